#pragma once

#include "kernel/File.h"
#include "kernel/OutStream.h"

#include <memory>

namespace Host {
/// Writes an open file through a buffer and remembers why the system refused, which users want to know.
class FileStream final : public Kernel::OutStreamSeekable {
public:
    explicit FileStream(Kernel::File openFile);

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return size; }
    bool Seek(Kernel::SeekOrigin origin, std::int64_t offset) override;
    bool ForceFlush() override;
    /// Flushes. The file stays open, for who owns the stream to do the rest.
    bool Finish() override { return ForceFlush(); }

    /// The errno of the first failure, 0 if there was none.
    int GetError() const { return error; }
    Kernel::File & GetFile() { return file; }

protected:
    std::uint64_t WriteI(void const * data, std::uint64_t byteCount) override;

private:
    bool WriteThrough(void const * data, std::uint64_t byteCount);

    static constexpr std::size_t bufferBytes = 0x100000;

    Kernel::File file;
    std::uint64_t position = 0, size = 0;
    std::unique_ptr<std::uint8_t[]> buffer;
    std::size_t bufferUsed = 0; // what lies before `position` and isn't written yet
    int error = 0;
};
}
