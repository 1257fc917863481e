#pragma once

#include "kernel/OutStream.h"

#include <utility>
#include <vector>

namespace Kernel {
/// Writes into memory that grows. Throws std::bad_alloc where there is none left.
class RASTER_API MemoryOutStream : public OutStreamSeekable {
public:
    MemoryOutStream() noexcept = default;
    /// Writes from the start of memory that has served before, whose content goes.
    explicit MemoryOutStream(std::vector<std::uint8_t> memory) noexcept : bytes(std::move(memory)) { bytes.clear(); }

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return bytes.size(); }
    bool Seek(SeekOrigin origin, std::int64_t offset) override;
    void Reserve(std::uint64_t size) override;

    /// At the end of what was written: the bytes need no buffer on their way.
    bool WillDelegateCopyFromStream(InStream const & source) const override;
    std::uint64_t DelegateCopyFromStream(InStream & source, std::uint64_t size) override;

    /// What was written so far; valid until the next write.
    std::uint8_t const * GetData() const noexcept { return bytes.data(); }
    /// Hands over what was written. The stream starts anew.
    std::vector<std::uint8_t> TakeData() noexcept;

protected:
    std::uint64_t WriteI(void const * data, std::uint64_t size) override;

private:
    std::vector<std::uint8_t> bytes;
    std::uint64_t position = 0; // may lie beyond the end
};
}
