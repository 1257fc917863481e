/// Streams that fail at a given byte.
#pragma once

#include "kernel/InStream.h"
#include "kernel/MemoryInStream.h"
#include "kernel/OutStream.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

namespace Raster {
enum class Fault {
    Short, ///< gives or takes fewer bytes
    Throw  ///< throws a `StreamFault`
};

struct StreamFault : std::runtime_error {
    StreamFault() : std::runtime_error("the stream broke") {}
};

/// Reads bytes in memory, up to `limit` of them in all.
class FaultyInStream : public Kernel::MemoryInStream {
public:
    FaultyInStream(std::vector<std::uint8_t> const & bytes, std::uint64_t newLimit, Fault newFault)
        : MemoryInStream(bytes.data(), bytes.size()), limit(newLimit), fault(newFault) {}

    std::uint64_t readBytes = 0; ///< so far, seeks or not
    std::uint64_t limit;
    bool refusesSeek = false;

    bool Seek(Kernel::SeekOrigin origin, std::int64_t offset) override {
        return !refusesSeek && MemoryInStream::Seek(origin, offset);
    }

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t byteCount) override {
        auto const allowed = std::min(byteCount, limit - std::min(limit, readBytes));
        if (allowed < byteCount && fault == Fault::Throw)
            throw StreamFault();
        auto const got = MemoryInStream::ReadI(dest, allowed);
        readBytes += got;
        return got;
    }

private:
    Fault const fault;
};

/// Takes up to `limit` bytes, and keeps them.
class FaultyOutStream : public Kernel::OutStream {
public:
    FaultyOutStream(std::uint64_t newLimit, Fault newFault) : limit(newLimit), fault(newFault) {}

    std::vector<std::uint8_t> bytes;
    bool flushFails = false;
    int finishCount = 0;

    std::uint64_t Tell() const override { return bytes.size(); }
    std::uint64_t GetSize() const override { return bytes.size(); }
    bool ForceFlush() override { return !flushFails; }
    bool Finish() override {
        ++finishCount;
        return true;
    }

protected:
    std::uint64_t WriteI(void const * data, std::uint64_t size) override {
        auto const allowed = std::min(size, limit - bytes.size());
        if (allowed < size && fault == Fault::Throw)
            throw StreamFault();
        auto const * const begin = static_cast<std::uint8_t const *>(data);
        bytes.insert(bytes.end(), begin, begin + allowed);
        return allowed;
    }

private:
    std::uint64_t const limit;
    Fault const fault;
};
}
