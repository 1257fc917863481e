#include "kernel/ConvertEnc.h"

namespace Kernel {
namespace {
constexpr char32_t Replacement = 0xFFFD;

// One step of a decoder: the code point, how many characters it took, and whether they were well-formed.
struct Decoded {
    char32_t codePoint;
    std::size_t length;
    bool isWellFormed = true;
};

template<class TEnc>
struct Codec;

template<>
struct Codec<TEncUtf8> {
    static unsigned GetByte(std::string_view text, std::size_t index) {
        return static_cast<unsigned char>(text[index]);
    }

    static Decoded Decode(std::string_view rest) {
        unsigned const lead = GetByte(rest, 0);
        if (lead < 0x80)
            return {lead, 1};
        if (lead < 0xC2 || lead > 0xF4)
            return {Replacement, 1, false};
        std::size_t const length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        // The second byte alone decides on overlong forms, surrogates and what lies above U+10FFFF.
        unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        char32_t codePoint = lead & (0x7Fu >> length);
        for (std::size_t i = 1; i < length; ++i, lowest = 0x80, highest = 0xBF) {
            if (i == rest.size() || GetByte(rest, i) < lowest || GetByte(rest, i) > highest)
                return {Replacement, i, false};
            codePoint = codePoint << 6 | (GetByte(rest, i) & 0x3F);
        }
        return {codePoint, length};
    }

    static std::size_t GetEncodedLength(char32_t codePoint) {
        return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
    }
    static char * Encode(char32_t codePoint, char * dest) {
        auto const length = GetEncodedLength(codePoint);
        if (length == 1) {
            *dest = static_cast<char>(codePoint);
            return dest + 1;
        }
        for (auto i = length - 1; i > 0; --i, codePoint >>= 6)
            dest[i] = static_cast<char>(0x80 | (codePoint & 0x3F));
        dest[0] = static_cast<char>(0xF00u >> length | codePoint);
        return dest + length;
    }
};

template<>
struct Codec<TEncUtf16> {
    static bool IsHigh(char16_t unit) { return (unit & 0xFC00) == 0xD800; }
    static bool IsLow(char16_t unit) { return (unit & 0xFC00) == 0xDC00; }

    static Decoded Decode(std::u16string_view rest) {
        if (!IsHigh(rest[0]) && !IsLow(rest[0]))
            return {rest[0], 1};
        if (IsLow(rest[0]) || rest.size() == 1 || !IsLow(rest[1]))
            return {Replacement, 1, false};
        return {0x10000 + ((rest[0] & 0x3FFu) << 10 | (rest[1] & 0x3FFu)), 2};
    }

    static std::size_t GetEncodedLength(char32_t codePoint) { return codePoint < 0x10000 ? 1 : 2; }
    static char16_t * Encode(char32_t codePoint, char16_t * dest) {
        if (codePoint >= 0x10000) {
            *dest++ = static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10));
            codePoint = 0xDC00 + (codePoint & 0x3FF);
        }
        *dest++ = static_cast<char16_t>(codePoint);
        return dest;
    }
};

template<class TEnc, class Function>
void ForEachCodePoint(std::basic_string_view<typename TEnc::Character> text, Function && function) {
    while (!text.empty()) {
        auto const decoded = Codec<TEnc>::Decode(text);
        function(decoded);
        text.remove_prefix(decoded.length);
    }
}
}

template<class TDest, class TSource>
StringT<TDest> ConvertEnc(std::basic_string_view<typename TSource::Character> source) {
    std::size_t length = 0; // at most three bytes a unit, and no view is over half the address space: can't overflow
    ForEachCodePoint<TSource>(
        source, [&](auto const & decoded) { length += Codec<TDest>::GetEncodedLength(decoded.codePoint); });
    return StringT<TDest>::Create(length, [&](typename TDest::Character * dest) {
        ForEachCodePoint<TSource>(source,
                                  [&](auto const & decoded) { dest = Codec<TDest>::Encode(decoded.codePoint, dest); });
    });
}

template<class TEnc>
bool IsWellFormed(std::basic_string_view<typename TEnc::Character> text) {
    bool result = true;
    ForEachCodePoint<TEnc>(text, [&](auto const & decoded) { result = result && decoded.isWellFormed; });
    return result;
}

template RASTER_API StringUtf8 ConvertEnc<TEncUtf8, TEncUtf8>(std::string_view);
template RASTER_API StringUtf8 ConvertEnc<TEncUtf8, TEncUtf16>(std::u16string_view);
template RASTER_API StringUtf16 ConvertEnc<TEncUtf16, TEncUtf8>(std::string_view);
template RASTER_API StringUtf16 ConvertEnc<TEncUtf16, TEncUtf16>(std::u16string_view);
template RASTER_API bool IsWellFormed<TEncUtf8>(std::string_view);
template RASTER_API bool IsWellFormed<TEncUtf16>(std::u16string_view);
}
