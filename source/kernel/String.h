#pragma once

#include "kernel/BaseCharTraits.h"
#include "kernel/StringBlock.h"

#include <compare>
#include <functional>
#include <string_view>
#include <utility>

namespace Kernel {
struct TEncUtf8 {
    using Character = char;
};
struct TEncUtf16 {
    using Character = char16_t;
};

/// An immutable text that copies share; as large as a pointer. Lengths and indices count characters of the encoding
/// (bytes, or 16-bit units), not code points. May hold zeros and ill-formed sequences, which only `ConvertEnc` repairs.
/// Threads: one string belongs to one thread at a time; copies may be used anywhere.
template<class TEnc>
class StringT {
public:
    using Encoding = TEnc;
    using Character = typename TEnc::Character;
    using Traits = BaseCharTraits<Character>;
    using View = std::basic_string_view<Character>;

    StringT() noexcept : block(StringBlock::GetEmpty()) {}
    /// From a zero-terminated text; null gives the empty string.
    StringT(Character const * characters) : StringT(characters, Traits::GetLength(characters)) {}
    StringT(Character const * characters, std::size_t length)
        : StringT(Create(length, [=](Character * dest) { Traits::Copy(dest, characters, length); })) {}
    explicit StringT(View view) : StringT(view.data(), view.size()) {}
    StringT(StringT const & other) noexcept : block(other.block) { block->Retain(); }
    StringT(StringT && other) noexcept : block(std::exchange(other.block, StringBlock::GetEmpty())) {}
    StringT & operator=(StringT other) noexcept {
        std::swap(block, other.block);
        return *this;
    }
    ~StringT() { block->Release(); }

    /// A string of `length` characters, all of which `fill(Character *)` has to write; it isn't called for 0.
    template<class Fill>
    static StringT Create(std::size_t length, Fill && fill) {
        StringT result;
        result.block = StringBlock::Allocate(length, sizeof(Character));
        if (length != 0)
            fill(static_cast<Character *>(result.block->GetCharacters()));
        return result;
    }

    std::size_t GetLength() const noexcept { return block->GetLength(); }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    /// Zero-terminated; valid while this string or a copy is neither assigned to nor destroyed.
    Character const * GetCharacters() const noexcept {
        return static_cast<Character const *>(std::as_const(*block).GetCharacters());
    }
    View GetView() const noexcept { return {GetCharacters(), GetLength()}; }
    /// @param index  at most the length, where the terminating zero stands.
    Character operator[](std::size_t index) const noexcept { return GetCharacters()[index]; }

    /// Makes a new text: to build one of many pieces, use `ConcatString` or `AppendFormatVT`.
    StringT & operator+=(StringT const & other) { return *this = *this + other; }
    friend StringT operator+(StringT const & one, StringT const & other) {
        if (other.IsEmpty())
            return one;
        if (one.IsEmpty())
            return other;
        return Join(one.GetView(), other.GetView());
    }

    friend bool operator==(StringT const & one, StringT const & other) noexcept {
        return one.block == other.block || one.GetView() == other.GetView();
    }
    friend bool operator==(StringT const & one, Character const * other) noexcept {
        return Traits::Compare(one.GetCharacters(), one.GetLength(), other, Traits::GetLength(other)) == 0;
    }
    friend std::strong_ordering operator<=>(StringT const & one, StringT const & other) noexcept {
        return Traits::Compare(one.GetCharacters(), one.GetLength(), other.GetCharacters(), other.GetLength()) <=> 0;
    }

private:
    static StringT Join(View one, View other) {
        return Create(one.size() + other.size(), [&](Character * dest) {
            Traits::Copy(dest, one.data(), one.size());
            Traits::Copy(dest + one.size(), other.data(), other.size());
        });
    }

    StringBlock * block; // never null; holds one count
};

using StringUtf8 = StringT<TEncUtf8>;
using StringUtf16 = StringT<TEncUtf16>;
}

template<class TEnc>
struct std::hash<Kernel::StringT<TEnc>> {
    std::size_t operator()(Kernel::StringT<TEnc> const & string) const noexcept {
        return std::hash<typename Kernel::StringT<TEnc>::View>()(string.GetView());
    }
};
