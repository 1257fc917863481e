#include "kernel/MemoryInStream.h"

#include "kernel/OutStream.h"

#include <algorithm>
#include <cstring>

namespace Kernel {
MemoryInStream::MemoryInStream(void const * bytes, std::uint64_t byteCount) noexcept
    : data(static_cast<std::uint8_t const *>(bytes)), size(byteCount) {}

bool MemoryInStream::Seek(SeekOrigin origin, std::int64_t offset) {
    auto const target = ResolveSeek(origin, offset, position, size);
    position = target.value_or(position);
    return target.has_value();
}

bool MemoryInStream::WillDelegateCopyToStream(OutStream const &) const { return true; }

std::uint64_t MemoryInStream::DelegateCopyToStream(OutStream & dest, std::uint64_t byteCount) {
    constexpr std::uint64_t pieceBytes = 65536;
    auto const count = std::min(byteCount, size - position);
    dest.Reserve(count);
    for (std::uint64_t copied = 0; copied < count;) {
        auto const piece = std::min(count - copied, pieceBytes);
        dest.WriteAll(data + position, piece);
        position += piece;
        copied += piece;
        SlowProgressInStream(copied);
        dest.SlowProgressOutStream(copied);
    }
    return count;
}

std::uint64_t MemoryInStream::ReadI(void * dest, std::uint64_t byteCount) {
    auto const count = std::min(byteCount, size - position);
    if (count != 0)
        std::memcpy(dest, data + position, count);
    position += count;
    return count;
}

// The base only keeps the address of the block's bytes, which a move of the block doesn't change.
DMemoryInStream::DMemoryInStream(Block ownedBlock) noexcept
    : MemoryInStream(ownedBlock.GetData(), ownedBlock.GetSize()), block(std::move(ownedBlock)) {}
}
