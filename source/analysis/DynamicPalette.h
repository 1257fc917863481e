#pragma once

#include "pixel/DynamicPixel.h"

#include <cstdint>
#include <vector>

namespace Raster {
/// The colours of an indexed file, in order, and which of them is transparent. A value.
class RASTER_API DynamicPalette {
public:
    DynamicPalette();
    DynamicPalette(DynamicPalette const &);
    DynamicPalette(DynamicPalette &&) noexcept;
    DynamicPalette & operator=(DynamicPalette const &);
    DynamicPalette & operator=(DynamicPalette &&) noexcept;
    ~DynamicPalette();

    /// Appends a colour. @param chromaKey  makes it the transparent one.
    void AddColour(DynamicPixel colour, bool chromaKey);
    /// Appends the 216 colours whose red, green and blue are multiples of 0x33, red changing slowest. Colours that are
    /// there already come again.
    void AddWebSafeColours();

    std::uint64_t GetSize() const { return colours.size(); }
    std::vector<DynamicPixel> & GetColours() { return colours; }
    std::vector<DynamicPixel> const & GetColours() const { return colours; }
    /// Of the transparent colour; -1 if there is none.
    int GetChromaKeyIndex() const { return chromaKeyIndex; }
    /// Of an index, for a file: 1, 2, 4 or 8. More than 256 colours are 8, too.
    int GetBitDepth() const;

    // Colours are compared in their `RGBA8` view.

    /// Whether every colour is a grey.
    bool IsGreyOnly() const;
    /// Whether the colours are the even ramp from black to white of their number, which is at least 2.
    bool IsGreyScale() const;
    /// Becomes the smallest even ramp, of 2, 4, 8 and so on up to 256 opaque greys, that holds all its colours and
    /// isn't smaller than it is. If there is none it stays as it is. The transparent index stays in any case.
    /// @param full  only the ramp of 256.
    /// @param doubling  only ramps whose index has 1, 2, 4 or 8 bits.
    void MakeGreyScale(bool full, bool doubling);

private:
    std::vector<DynamicPixel> colours;
    int chromaKeyIndex = -1;
};
}
