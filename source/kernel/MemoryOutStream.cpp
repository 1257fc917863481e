#include "kernel/MemoryOutStream.h"

#include "kernel/InStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Kernel {
namespace {
constexpr std::uint64_t noLimit = std::numeric_limits<std::int64_t>::max();
}

bool MemoryOutStream::Seek(SeekOrigin origin, std::int64_t offset) {
    auto const base = origin == SeekOrigin::End ? bytes.size() : position;
    auto const target = ResolveSeek(origin == SeekOrigin::Start ? origin : SeekOrigin::Current, offset, base, noLimit);
    position = target.value_or(position);
    return target.has_value();
}

void MemoryOutStream::Reserve(std::uint64_t size) {
    // A hint, perhaps from a file: what can't be had is not asked for, and small steps are left to the vector's growth.
    constexpr std::uint64_t largest = 64u << 20;
    if (size <= largest && bytes.size() + size > bytes.capacity() * 2)
        bytes.reserve(bytes.size() + size);
}

bool MemoryOutStream::WillDelegateCopyFromStream(InStream const &) const { return position == bytes.size(); }

std::uint64_t MemoryOutStream::DelegateCopyFromStream(InStream & source, std::uint64_t size) {
    constexpr std::uint64_t pieceBytes = 65536; // never the size asked for, which may be any number
    auto const start = bytes.size();
    while (bytes.size() - start < size) {
        auto const filled = bytes.size();
        auto const piece = std::min(size - (filled - start), pieceBytes);
        bytes.resize(filled + piece);
        auto const count = source.Read(bytes.data() + filled, piece);
        bytes.resize(filled + count);
        position = bytes.size();
        if (count == 0)
            break;
        source.SlowProgressInStream(position - start);
        SlowProgressOutStream(position - start);
    }
    return bytes.size() - start;
}

std::vector<std::uint8_t> MemoryOutStream::TakeData() noexcept {
    position = 0;
    return std::exchange(bytes, {});
}

std::uint64_t MemoryOutStream::WriteI(void const * data, std::uint64_t size) {
    if (size > bytes.max_size() || position > bytes.max_size() - size)
        return 0;
    auto const * const source = static_cast<std::uint8_t const *>(data);
    if (position == bytes.size()) {
        bytes.insert(bytes.end(), source, source + size);
    } else {
        if (position + size > bytes.size())
            bytes.resize(position + size); // zeros in the gap
        std::memcpy(bytes.data() + position, source, size);
    }
    position += size;
    return size;
}
}
