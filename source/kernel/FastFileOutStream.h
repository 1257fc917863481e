#pragma once

#include "kernel/Counted.h"
#include "kernel/File.h"
#include "kernel/OutStream.h"

#include <memory>
#include <string>

namespace Kernel {
/// Writes a file through a buffer, in any order; writes in sequence are the fast ones. `Finish` tells whether all went
/// well. A stream that is destroyed without it finishes by itself, and can only trace a failure.
class RASTER_API FastFileOutStream final : public OutStreamSeekable {
public:
    static constexpr std::size_t defaultBufferBytes = 65536;

    /// Creates the file, or empties the one that is there.
    /// @return null, with errno set, for what can't be opened: directories and pipes too.
    static Counted<FastFileOutStream> Create(char const * path, std::size_t bufferBytes = defaultBufferBytes);
    ~FastFileOutStream() override;

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return size; }
    bool Seek(SeekOrigin origin, std::int64_t offset) override;
    bool ForceFlush() override;
    /// Also closes the file.
    bool Finish() override;

protected:
    std::uint64_t WriteI(void const * data, std::uint64_t byteCount) override;

private:
    FastFileOutStream(File openFile, char const * openPath, std::size_t bufferBytes);

    File file;
    std::string path; // for the trace
    std::uint64_t position = 0;
    std::uint64_t size = 0;
    std::size_t bufferSize;
    std::unique_ptr<std::uint8_t[]> buffer;
    std::uint64_t bufferOffset = 0; // where in the file the buffered bytes go
    std::uint64_t bufferUsed = 0;
    bool hasFailed = false; // for good: what was lost can't be written again
};
}
