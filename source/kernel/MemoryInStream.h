#pragma once

#include "kernel/InStream.h"
#include "kernel/RawData.h"

namespace Kernel {
/// Reads bytes in memory, which the caller keeps alive and unchanged.
class RASTER_API MemoryInStream : public InStreamSeekable {
public:
    /// @param bytes  may be null if `byteCount` is 0.
    MemoryInStream(void const * bytes, std::uint64_t byteCount) noexcept;

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return size; }
    bool Seek(SeekOrigin origin, std::int64_t offset) override;

    /// Always: the bytes need no buffer on their way.
    bool WillDelegateCopyToStream(OutStream const & dest) const override;
    std::uint64_t DelegateCopyToStream(OutStream & dest, std::uint64_t size) override;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t size) override;

private:
    std::uint8_t const * data; // not owned
    std::uint64_t size;
    std::uint64_t position = 0; // at most size
};

/// Reads bytes in memory that the stream owns.
class RASTER_API DMemoryInStream : public MemoryInStream {
public:
    using Block = RawDataT<Countable, AllocatorNew>;

    explicit DMemoryInStream(Block ownedBlock) noexcept;

private:
    Block const block;
};
}
