#pragma once

#include <algorithm>
#include <cstddef>
#include <type_traits>

namespace Kernel {
/// Operations on runs of characters of one encoding. Order is by unsigned character value, so that it doesn't depend
/// on the machine; of UTF-8 this is the order of the code points.
template<class Character>
struct BaseCharTraits {
    /// Of a zero-terminated run, without the zero; 0 for null.
    static constexpr std::size_t GetLength(Character const * characters) noexcept {
        std::size_t length = 0;
        while (characters && characters[length] != Character())
            ++length;
        return length;
    }
    /// The runs must not overlap.
    static constexpr void Copy(Character * dest, Character const * source, std::size_t count) noexcept {
        std::copy_n(source, count, dest);
    }
    static constexpr bool IsEqual(Character const * one, Character const * other, std::size_t count) noexcept {
        return std::equal(one, one + count, other);
    }
    /// Below, at or above 0 as the first run stands before, with or after the second. A prefix stands before.
    static constexpr int Compare(Character const * one, std::size_t oneLength, Character const * other,
                                 std::size_t otherLength) noexcept {
        using Value = std::make_unsigned_t<Character>;
        auto const common = std::min(oneLength, otherLength);
        for (std::size_t i = 0; i < common; ++i)
            if (one[i] != other[i])
                return static_cast<Value>(one[i]) < static_cast<Value>(other[i]) ? -1 : 1;
        return oneLength == otherLength ? 0 : oneLength < otherLength ? -1 : 1;
    }
    /// The same for zero-terminated runs.
    static constexpr int Compare(Character const * one, Character const * other) noexcept {
        return Compare(one, GetLength(one), other, GetLength(other));
    }
};
}
