#pragma once

#include "kernel/Countable.h"
#include "kernel/SeekOrigin.h"
#include "kernel/StreamValue.h"

#include <cstddef>
#include <limits>

namespace Kernel {
class OutStream;

/// A source of bytes. Belongs to one thread at a time.
class RASTER_API InStream : public virtual Countable {
public:
    InStream() noexcept = default;
    InStream(InStream const &) = delete;
    InStream & operator=(InStream const &) = delete;
    ~InStream() override;

    /// Reads up to `size` bytes.
    /// @return how many were read. Fewer than asked for only at the end of the data, or where reading fails.
    std::uint64_t Read(void * dest, std::uint64_t size) { return size == 0 ? 0 : ReadI(dest, size); }
    /// Reads exactly `size` bytes, or tells false; `dest` then holds a beginning of undefined length.
    bool ReadAll(void * dest, std::uint64_t size) { return Read(dest, size) == size; }
    /// Reads a number, little-endian in the width of its type. @return false, with `value` untouched, if bytes lack.
    template<StreamValue T>
    bool Read(T & value) {
        std::array<std::uint8_t, sizeof(T)> bytes;
        if (!ReadAll(bytes.data(), bytes.size()))
            return false;
        value = FromStreamBytes<T>(bytes);
        return true;
    }

    virtual std::uint64_t Tell() const = 0;
    virtual std::uint64_t GetSize() const = 0;
    virtual bool IsEndOfData() const;

    /// Copies up to `size` bytes from here to the present position of `dest`. If this stream or `dest` will do it in a
    /// better way, it is left to them, else it goes piece by piece.
    /// @return how many were copied, fewer than asked for only at the end of the data.
    /// Throws `OutStream::WriteException` if `dest` takes less than it is given.
    std::uint64_t CopyToStream(OutStream & dest, std::uint64_t size = std::numeric_limits<std::uint64_t>::max());
    /// Whether this stream knows a better way to copy itself to `dest`.
    virtual bool WillDelegateCopyToStream(OutStream const & dest) const;
    /// That better way, as `CopyToStream`. Called only where the above tells true.
    virtual std::uint64_t DelegateCopyToStream(OutStream & dest, std::uint64_t size);

    /// Called between the pieces of a long copy, with the bytes copied so far. Does nothing; may throw to give up.
    virtual void SlowProgressInStream(std::uint64_t copied);

protected:
    /// As `Read`; `size` is not 0.
    virtual std::uint64_t ReadI(void * dest, std::uint64_t size) = 0;
};

/// A source of bytes that can be read in any order.
class RASTER_API InStreamSeekable : public InStream {
public:
    /// Moves the position, at most to the start or the end: see `ResolveSeek`.
    /// @return false, with the position as it was, if the sum does not fit 63 bits or the source refuses.
    virtual bool Seek(SeekOrigin origin, std::int64_t offset) = 0;
    bool RewindInStream() { return Seek(SeekOrigin::Start, 0); }
    /// Moves on by `size` bytes. @return false, at the end of the data, if there were fewer.
    bool SkipBlock(std::uint64_t size);
};
}
