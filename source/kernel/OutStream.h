#pragma once

#include "kernel/Countable.h"
#include "kernel/SeekOrigin.h"
#include "kernel/StreamValue.h"

#include <limits>
#include <stdexcept>

namespace Kernel {
class InStream;

/// A sink of bytes. Belongs to one thread at a time.
class RASTER_API OutStream : public virtual Countable {
public:
    /// A stream took less than it was given: the disk is full, say.
    class RASTER_API WriteException : public std::runtime_error {
    public:
        WriteException();
        ~WriteException() override;
    };

    OutStream() noexcept = default;
    OutStream(OutStream const &) = delete;
    OutStream & operator=(OutStream const &) = delete;
    ~OutStream() override;

    /// Writes at the present position and moves it on.
    /// @return how many bytes were taken. Fewer than given is a failure, after which a stream takes no more. It throws
    /// nothing for that, so that it can be called from within C libraries.
    std::uint64_t Write(void const * data, std::uint64_t size) { return size == 0 ? 0 : WriteI(data, size); }
    /// Writes everything, or throws `WriteException`.
    void WriteAll(void const * data, std::uint64_t size);
    /// Writes a number, little-endian in the width of its type. Throws `WriteException`.
    template<StreamValue T>
    void Write(T value) {
        auto const bytes = ToStreamBytes(value);
        WriteAll(bytes.data(), bytes.size());
    }

    virtual std::uint64_t Tell() const = 0;
    /// The end of what was written so far.
    virtual std::uint64_t GetSize() const = 0;

    /// A hint that `size` bytes more will come.
    virtual void Reserve(std::uint64_t size);
    /// Hands what is buffered to the system. @return false if that failed, now or earlier.
    virtual bool ForceFlush();
    /// The end: flushes, gives back what is not needed, and takes no more after that. Again: the same answer.
    /// @return whether every byte that was taken has arrived.
    virtual bool Finish();

    /// As `InStream::CopyToStream` with both in their other places.
    std::uint64_t CopyFromStream(InStream & source, std::uint64_t size = std::numeric_limits<std::uint64_t>::max());
    /// Whether this stream knows a better way to copy from `source`.
    virtual bool WillDelegateCopyFromStream(InStream const & source) const;
    /// That better way. Called only where the above tells true.
    virtual std::uint64_t DelegateCopyFromStream(InStream & source, std::uint64_t size);

    /// Called between the pieces of a long copy, with the bytes copied so far. Does nothing; may throw to give up.
    virtual void SlowProgressOutStream(std::uint64_t copied);

protected:
    /// As `Write`; `size` is not 0.
    virtual std::uint64_t WriteI(void const * data, std::uint64_t size) = 0;
};

/// A sink that can be written in any order.
class RASTER_API OutStreamSeekable : public OutStream {
public:
    /// Moves the position, also beyond the end: a write there fills the gap with zeros. Before the start is the start.
    /// @return false, with the position as it was, if the sum does not fit 63 bits or the sink refuses.
    virtual bool Seek(SeekOrigin origin, std::int64_t offset) = 0;
};
}
