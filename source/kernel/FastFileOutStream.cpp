#include "kernel/FastFileOutStream.h"

#include "kernel/Trace.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace Kernel {
namespace {
constexpr std::uint64_t largestOffset = std::numeric_limits<std::int64_t>::max();
}

Counted<FastFileOutStream> FastFileOutStream::Create(char const * path, std::size_t bufferBytes) {
    auto file = File::Open(path, "wb");
    if (!file.IsOpen())
        return nullptr;
    return Counted<FastFileOutStream>(
        new FastFileOutStream(std::move(file), path, std::max<std::size_t>(bufferBytes, 1)));
}

FastFileOutStream::FastFileOutStream(File openFile, char const * openPath, std::size_t bufferBytes)
    : file(std::move(openFile)), path(openPath), bufferSize(bufferBytes),
      buffer(std::make_unique_for_overwrite<std::uint8_t[]>(bufferBytes)) {}

FastFileOutStream::~FastFileOutStream() {
    if (!Finish())
        Trace("The file %1 could not be written completely\n", path);
}

bool FastFileOutStream::Seek(SeekOrigin origin, std::int64_t offset) {
    auto const base = origin == SeekOrigin::End ? size : position;
    auto const target =
        ResolveSeek(origin == SeekOrigin::Start ? origin : SeekOrigin::Current, offset, base, largestOffset);
    position = target.value_or(position);
    return target.has_value();
}

bool FastFileOutStream::ForceFlush() {
    auto const count = std::exchange(bufferUsed, 0);
    if (count != 0 && file.WriteAt(bufferOffset, buffer.get(), count) != count)
        hasFailed = true;
    return !hasFailed;
}

bool FastFileOutStream::Finish() {
    ForceFlush();
    if (!file.Close())
        hasFailed = true;
    return !hasFailed;
}

std::uint64_t FastFileOutStream::WriteI(void const * data, std::uint64_t byteCount) {
    if (!file.IsOpen() || hasFailed || byteCount > largestOffset - position)
        return 0;
    bool const isInSequence = position == bufferOffset + bufferUsed;
    if ((!isInSequence || byteCount > bufferSize - bufferUsed) && !ForceFlush())
        return 0;
    std::uint64_t count = byteCount;
    if (byteCount >= bufferSize) { // a buffer would only be in the way
        count = file.WriteAt(position, data, byteCount);
        hasFailed = count != byteCount;
    } else {
        if (bufferUsed == 0)
            bufferOffset = position;
        std::memcpy(buffer.get() + bufferUsed, data, byteCount);
        bufferUsed += byteCount;
    }
    position += count;
    size = std::max(size, position);
    return count;
}
}
