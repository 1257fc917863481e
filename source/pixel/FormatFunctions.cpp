#include "pixel/FormatFunctions.h"

#include "pixel/ChannelTuple.h"

#include <array>
#include <bit>

namespace Raster {
namespace {
struct FormatFacts {
    Format format; // the row's own number, so that a row out of place doesn't compile
    int channelCount;
    int alphaIndex;
    ColourSpace colourSpace;
    Format maskFormat;
};

constexpr std::array<FormatFacts, formatCount> factsTable{{
    {RGBA8, 4, 4, ColourSpaceRGB, A8},
    {RGBA16, 4, 4, ColourSpaceRGB, A16},
    {IA8, 2, 2, ColourSpaceGrey, A8},
    {IA16, 2, 2, ColourSpaceGrey, A16},
    {CMYKA8, 5, 5, ColourSpaceCMYK, A8},
    {LABA16, 4, 4, ColourSpaceLAB, A16},
    {A8, 1, 1, ColourSpaceNone, A8},
    {A16, 1, 1, ColourSpaceNone, A16},
    {NoFormat, 0, 0, ColourSpaceNone, NoFormat},
    {RGBAUF, 4, 4, ColourSpaceRGBUF, AF},
    {AF, 1, 1, ColourSpaceNone, AF},
}};

constexpr FormatFacts const & GetFacts(Format format) { return factsTable[format < formatCount ? format : NoFormat]; }

constexpr bool FactsAgreeWithTuples() {
    for (std::uint32_t row = 0; row < formatCount; ++row)
        if (factsTable[row].format != row)
            return false;
    bool agree = true;
#define RASTER_CHECK(format, C1, C2, C3, C4, C5)                                                                       \
    agree = agree && GetFacts(format).channelCount == ChannelTuple<C1, C2, C3, C4, C5>::channelCount &&                \
            GetFacts(format).alphaIndex == ChannelTuple<C1, C2, C3, C4, C5>::alphaIndex &&                             \
            TupleOfFormat<GetFacts(format).maskFormat>::Type::sampleType == C1::sampleType;
    RASTER_FOR_EACH_FORMAT(RASTER_CHECK)
#undef RASTER_CHECK
    return agree;
}
static_assert(FactsAgreeWithTuples(), "a format was added, moved or changed, and the table wasn't");

constexpr std::uint32_t spaceCount = 6;
static_assert(ColourSpaceRGBUF + 1 == spaceCount, "a colour space was added: give each row below another column");

// The columns are the spaces in the order of their numbers. Rows of formats without colour stay as they are.
constexpr Format bestFormats[formatCount][spaceCount] = {
    {RGBA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF},                  // RGBA8
    {RGBA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF},               // RGBA16
    {IA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF},                    // IA8
    {IA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF},                 // IA16
    {CMYKA8, IA8, RGBA8, CMYKA8, LABA16, RGBAUF},                 // CMYKA8
    {LABA16, IA16, RGBA16, CMYKA8, LABA16, RGBAUF},               // LABA16
    {A8, A8, A8, A8, A8, A8},                                     // A8
    {A16, A16, A16, A16, A16, A16},                               // A16
    {NoFormat, NoFormat, NoFormat, NoFormat, NoFormat, NoFormat}, // NoFormat
    {RGBAUF, IA16, RGBAUF, CMYKA8, LABA16, RGBAUF},               // RGBAUF: RGB stays unbounded, grey is 16 bits
    {AF, AF, AF, AF, AF, AF},                                     // AF
};

struct DepthPair {
    Format shallow;
    Format deep;
};
constexpr DepthPair formatsOfSpace[spaceCount] = {
    {NoFormat, NoFormat}, // None
    {IA8, IA16},          // Grey
    {RGBA8, RGBA16},      // RGB
    {CMYKA8, CMYKA8},     // CMYK
    {LABA16, LABA16},     // LAB
    {RGBAUF, RGBAUF},     // RGBUF
};

constexpr bool SpacesAgree() {
    for (std::uint32_t space = 1; space < spaceCount; ++space) {
        if (GetFacts(formatsOfSpace[space].shallow).colourSpace != space ||
            GetFacts(formatsOfSpace[space].deep).colourSpace != space)
            return false;
        for (auto const & facts : factsTable) {
            auto const best = GetFacts(bestFormats[facts.format][space]).colourSpace;
            bool const unboundedKept = facts.format == RGBAUF && space == ColourSpaceRGB && best == ColourSpaceRGBUF;
            if (facts.colourSpace != ColourSpaceNone && best != space && !unboundedKept)
                return false;
        }
    }
    return true;
}
static_assert(SpacesAgree(), "a table answers with a format of another space than the one that was asked for");

constexpr unsigned KeepChannels(int mask, Format format) {
    return static_cast<unsigned>(mask) & ((1u << GetFacts(format).channelCount) - 1);
}
}

int GetAlphaChannelIndex(Format format) noexcept { return GetFacts(format).alphaIndex; }

int GetAlphaChannelMask(Format format) noexcept { return (1 << GetFacts(format).alphaIndex) >> 1; }

int GetNumberOfNonMaskedChannels(int mask, Format format) noexcept { return std::popcount(KeepChannels(mask, format)); }

int GetFirstNonMaskedChannelIndex(int mask, Format format) noexcept {
    auto const kept = KeepChannels(mask, format);
    return kept ? std::countr_zero(kept) + 1 : 0;
}

ColourSpace GetColourSpace(Format format) noexcept { return GetFacts(format).colourSpace; }

Format GetBestFormatForFormatAndSpace(Format format, ColourSpace space) noexcept {
    return format < formatCount && space < spaceCount ? bestFormats[format][space] : format;
}

Format PreserveBitDepth(ColourSpace space, Format format) noexcept {
    if (space >= spaceCount)
        return NoFormat;
    bool const deep = format == RGBA16 || format == IA16;
    return deep ? formatsOfSpace[space].deep : formatsOfSpace[space].shallow;
}

Format GetCompatibleMaskFormat(Format format) noexcept { return GetFacts(format).maskFormat; }
}
