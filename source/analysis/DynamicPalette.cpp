#include "analysis/DynamicPalette.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Raster {
namespace {
using Pixel8 = PixelOf<RGBA8Tuple>;

Pixel8 const & ViewOf(DynamicPixel const & colour) { return colour; }

bool IsGrey(Pixel8 const & pixel) { return pixel[0] == pixel[1] && pixel[1] == pixel[2]; }

std::uint8_t RampLevel(std::uint64_t index, std::uint64_t count) {
    return static_cast<std::uint8_t>(index * 255 / (count - 1));
}

std::vector<Pixel8> MakeRamp(int bits) {
    std::vector<Pixel8> ramp(std::size_t(1) << bits);
    for (std::size_t i = 0; i < ramp.size(); ++i) {
        auto const level = RampLevel(i, ramp.size());
        ramp[i] = {{level, level, level, 255}};
    }
    return ramp;
}

bool IsBelow(Pixel8 const & a, Pixel8 const & b) {
    return std::lexicographical_compare(std::begin(a.channels), std::end(a.channels), std::begin(b.channels),
                                        std::end(b.channels));
}

// An index of 1 bit for up to 2 colours, and so on.
int GetBitsFor(std::uint64_t colourCount) {
    return colourCount <= 2 ? 1 : colourCount <= 4 ? 2 : colourCount <= 16 ? 4 : 8;
}
}

DynamicPalette::DynamicPalette() = default;
DynamicPalette::DynamicPalette(DynamicPalette const &) = default;
DynamicPalette::DynamicPalette(DynamicPalette && other) noexcept
    : colours(std::move(other.colours)), chromaKeyIndex(std::exchange(other.chromaKeyIndex, -1)) {}
DynamicPalette & DynamicPalette::operator=(DynamicPalette const &) = default;
DynamicPalette & DynamicPalette::operator=(DynamicPalette && other) noexcept {
    colours = std::move(other.colours);
    chromaKeyIndex = std::exchange(other.chromaKeyIndex, -1);
    return *this;
}
DynamicPalette::~DynamicPalette() = default;

void DynamicPalette::AddColour(DynamicPixel colour, bool chromaKey) {
    colours.push_back(colour);
    if (chromaKey)
        chromaKeyIndex = static_cast<int>(colours.size() - 1);
}

void DynamicPalette::AddWebSafeColours() {
    constexpr std::array<std::uint8_t, 6> levels{0, 0x33, 0x66, 0x99, 0xCC, 0xFF};
    for (auto const red : levels)
        for (auto const green : levels)
            for (auto const blue : levels)
                AddColour(Pixel8{{red, green, blue, 255}}, /*chromaKey=*/false);
}

int DynamicPalette::GetBitDepth() const { return GetBitsFor(colours.size()); }

bool DynamicPalette::IsGreyOnly() const {
    return std::all_of(colours.begin(), colours.end(),
                       [](DynamicPixel const & colour) { return IsGrey(ViewOf(colour)); });
}

bool DynamicPalette::IsGreyScale() const {
    if (colours.size() < 2)
        return false;
    for (std::size_t i = 0; i < colours.size(); ++i) {
        auto const & pixel = ViewOf(colours[i]);
        if (!IsGrey(pixel) || pixel[0] != RampLevel(i, colours.size()))
            return false;
    }
    return true;
}

void DynamicPalette::MakeGreyScale(bool full, bool doubling) {
    for (int bits = full ? 8 : GetBitDepth(); bits <= 8; bits = doubling ? bits * 2 : bits + 1) {
        auto const ramp = MakeRamp(bits);
        bool const holdsAll = std::all_of(colours.begin(), colours.end(), [&](DynamicPixel const & colour) {
            return std::binary_search(ramp.begin(), ramp.end(), ViewOf(colour), IsBelow);
        });
        if (holdsAll) {
            colours.assign(ramp.begin(), ramp.end());
            return;
        }
    }
}
}
