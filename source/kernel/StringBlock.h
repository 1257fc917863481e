#pragma once

#include "kernel/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kernel {
/// The shared part of a string: this header, then the characters, then a terminating zero character. Immutable once
/// the string that made it has filled it.
///
///     | count: 8 bytes | length: 8 bytes | characters ... | 0 |
class RASTER_API StringBlock {
public:
    /// A block for `length` characters, whose terminator is set and which counts one holder. The one empty block if
    /// `length` is 0. Throws std::length_error if the size overflows, std::bad_alloc if memory is short.
    static StringBlock * Allocate(std::size_t length, std::size_t characterSize);
    /// The block that all empty strings of the process share, of any encoding. It isn't counted, so that strings which
    /// many threads clear don't fight for one count, and is never freed.
    static StringBlock * GetEmpty() noexcept;

    void Retain() noexcept {
        if (length != 0)
            count.fetch_add(1, std::memory_order_relaxed);
    }
    void Release() noexcept {
        if (length != 0 && count.fetch_sub(1, std::memory_order_acq_rel) == 1)
            Free(this);
    }

    /// In characters, without the terminator.
    std::size_t GetLength() const noexcept { return length; }
    void * GetCharacters() noexcept { return this + 1; }
    void const * GetCharacters() const noexcept { return this + 1; }

private:
    struct Empty;

    constexpr explicit StringBlock(std::size_t characters) noexcept : length(characters) {}
    static void Free(StringBlock * block) noexcept;

    std::atomic<std::uint64_t> count{1};
    std::size_t const length;
};
}
