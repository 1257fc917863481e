#pragma once

#include "kernel/Counted.h"
#include "kernel/File.h"
#include "kernel/InStream.h"

#include <memory>

namespace Kernel {
/// Reads a regular file through a buffer. Seeking within what is buffered costs nothing.
class RASTER_API FastFileInStream final : public InStreamSeekable {
public:
    static constexpr std::size_t defaultBufferBytes = 65536;

    /// @return null, with errno set, for what can't be opened: directories and pipes too.
    static Counted<FastFileInStream> Open(char const * path, std::size_t bufferBytes = defaultBufferBytes);

    std::uint64_t Tell() const override { return position; }
    /// As it was when the file was opened. A file that was cut since ends early.
    std::uint64_t GetSize() const override { return size; }
    bool Seek(SeekOrigin origin, std::int64_t offset) override;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t byteCount) override;

private:
    FastFileInStream(File openFile, std::uint64_t fileSize, std::size_t bufferBytes);

    std::uint64_t ReadFromBuffer(std::uint8_t * dest, std::uint64_t byteCount);

    File file;
    std::uint64_t size;
    std::uint64_t position = 0;
    std::size_t bufferSize;
    std::unique_ptr<std::uint8_t[]> buffer;
    std::uint64_t bufferOffset = 0; // where in the file the buffer begins
    std::uint64_t bufferUsed = 0;   // bytes of it that are filled
};
}
