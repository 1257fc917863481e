#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Kernel {
/// Four characters that name a property, a class or a kind of item in a file. The first character is the highest byte
/// of the value, so that tags sort as they read; in a file and in memory the lowest byte comes first: "Mipm" lies
/// there as 'm', 'p', 'i', 'M'.
class IDTag {
public:
    constexpr IDTag() noexcept = default; ///< Four zero bytes: no tag.
    constexpr IDTag(char const (&text)[5]) noexcept : IDTag(text[0], text[1], text[2], text[3]) {}
    constexpr IDTag(char first, char second, char third, char fourth) noexcept
        : value(Byte(first) << 24 | Byte(second) << 16 | Byte(third) << 8 | Byte(fourth)) {}

    static constexpr IDTag FromValue(std::uint32_t value) noexcept {
        IDTag result;
        result.value = value;
        return result;
    }
    constexpr std::uint32_t GetValue() const noexcept { return value; }
    /// The four characters as they read, and a terminating zero. They need not be printable.
    constexpr std::array<char, 5> GetText() const noexcept {
        return {Character(24), Character(16), Character(8), Character(0), '\0'};
    }

    constexpr auto operator<=>(IDTag const &) const noexcept = default;

private:
    static constexpr std::uint32_t Byte(char character) noexcept { return static_cast<unsigned char>(character); }
    constexpr char Character(int shift) const noexcept { return static_cast<char>(value >> shift & 0xff); }

    std::uint32_t value = 0;
};

static_assert(sizeof(IDTag) == 4);

/// Names a class in a file.
using ClassUID = IDTag;
}

template<>
struct std::hash<Kernel::IDTag> {
    std::size_t operator()(Kernel::IDTag tag) const noexcept { return std::hash<std::uint32_t>()(tag.GetValue()); }
};
