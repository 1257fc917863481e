#include "kernel/StringBlock.h"

#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace Kernel {
struct StringBlock::Empty {
    StringBlock header{0};
    char32_t terminator = 0; // as wide as the widest character
};

StringBlock * StringBlock::GetEmpty() noexcept {
    static constinit Empty empty;
    static_assert(sizeof(Empty) >= sizeof(StringBlock) + sizeof(char32_t));
    return &empty.header;
}

StringBlock * StringBlock::Allocate(std::size_t length, std::size_t characterSize) {
    if (length == 0)
        return GetEmpty();
    constexpr auto Largest = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    if (length > (Largest - sizeof(StringBlock)) / characterSize - 1)
        throw std::length_error("string too long");
    void * const memory = ::operator new(sizeof(StringBlock) + (length + 1) * characterSize);
    auto * const block = new (memory) StringBlock(length);
    std::memset(static_cast<char *>(block->GetCharacters()) + length * characterSize, 0, characterSize);
    return block;
}

void StringBlock::Free(StringBlock * block) noexcept {
    block->~StringBlock();
    ::operator delete(block);
}
}
