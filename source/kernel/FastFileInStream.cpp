#include "kernel/FastFileInStream.h"

#include <algorithm>
#include <cstring>

namespace Kernel {
Counted<FastFileInStream> FastFileInStream::Open(char const * path, std::size_t bufferBytes) {
    auto file = File::Open(path, "rb");
    auto const size = file.IsOpen() ? file.GetSize() : std::nullopt;
    if (!size)
        return nullptr;
    return Counted<FastFileInStream>(
        new FastFileInStream(std::move(file), *size, std::max<std::size_t>(bufferBytes, 1)));
}

FastFileInStream::FastFileInStream(File openFile, std::uint64_t fileSize, std::size_t bufferBytes)
    : file(std::move(openFile)), size(fileSize), bufferSize(bufferBytes),
      buffer(std::make_unique_for_overwrite<std::uint8_t[]>(bufferBytes)) {}

bool FastFileInStream::Seek(SeekOrigin origin, std::int64_t offset) {
    auto const target = ResolveSeek(origin, offset, position, size);
    position = target.value_or(position);
    return target.has_value();
}

std::uint64_t FastFileInStream::ReadI(void * dest, std::uint64_t byteCount) {
    auto * const bytes = static_cast<std::uint8_t *>(dest);
    byteCount = std::min(byteCount, size - position);
    std::uint64_t done = ReadFromBuffer(bytes, byteCount);
    if (byteCount - done >= bufferSize) { // a buffer would only be in the way
        auto const count = file.ReadAt(position, bytes + done, byteCount - done);
        position += count;
        return done + count;
    }
    if (done < byteCount) {
        bufferOffset = position;
        bufferUsed = file.ReadAt(position, buffer.get(), std::min<std::uint64_t>(bufferSize, size - position));
        done += ReadFromBuffer(bytes + done, byteCount - done);
    }
    return done;
}

std::uint64_t FastFileInStream::ReadFromBuffer(std::uint8_t * dest, std::uint64_t byteCount) {
    if (position < bufferOffset || position - bufferOffset >= bufferUsed)
        return 0;
    auto const start = position - bufferOffset;
    auto const count = std::min(byteCount, bufferUsed - start);
    std::memcpy(dest, buffer.get() + start, count);
    position += count;
    return count;
}
}
