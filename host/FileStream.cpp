#include "host/FileStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace Host {
FileStream::FileStream(Kernel::File openFile)
    : file(std::move(openFile)), buffer(std::make_unique_for_overwrite<std::uint8_t[]>(bufferBytes)) {}

bool FileStream::Seek(Kernel::SeekOrigin origin, std::int64_t offset) {
    constexpr std::uint64_t largestOffset = std::numeric_limits<std::int64_t>::max(); // a gap before the end is allowed
    auto const target = Kernel::ResolveSeek(origin == Kernel::SeekOrigin::Start ? origin : Kernel::SeekOrigin::Current,
                                            offset, origin == Kernel::SeekOrigin::End ? size : position, largestOffset);
    if (!target)
        return false;
    if (*target == position)
        return true;
    if (!ForceFlush())
        return false;
    position = *target;
    file.SetPosition(position);
    return true;
}

bool FileStream::ForceFlush() { return WriteThrough(buffer.get(), std::exchange(bufferUsed, 0)) && error == 0; }

std::uint64_t FileStream::WriteI(void const * data, std::uint64_t byteCount) {
    if (bufferUsed + byteCount > bufferBytes && !ForceFlush())
        return 0;
    if (error != 0)
        return 0;
    if (byteCount >= bufferBytes) {
        if (!WriteThrough(data, byteCount))
            return 0;
    } else {
        std::memcpy(buffer.get() + bufferUsed, data, byteCount);
        bufferUsed += byteCount;
    }
    position += byteCount;
    size = std::max(size, position);
    return byteCount;
}

bool FileStream::WriteThrough(void const * data, std::uint64_t byteCount) {
    if (byteCount == 0)
        return true;
    errno = 0;
    if (error == 0 && file.Write(data, byteCount) != byteCount)
        error = errno != 0 ? errno : EIO;
    return error == 0;
}
}
