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
    auto const count = std::min(byteCount, size - position);
    dest.WriteAll(data + position, count);
    position += count;
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
