/// Writing through libpng.
#pragma once

#include "files/png/PNGBase.h"
#include "files/png/PNGSession.h"
#include "kernel/OutStream.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Raster {
/// Encodes the rows of one PNG. Members throw `PNGError`, std::bad_alloc, and what the stream throws.
class PNGBase::BasePixelAccessor : private PNGSession {
public:
    /// Writes the header.
    /// @param target  not finished with the file; outlives this object.
    /// @param depth  of the samples that will come, 8 or 16; a palette can call for less in the file.
    BasePixelAccessor(Kernel::OutStream & target, int width, int height, int colourType, int depth,
                      ExportOptions const & options);
    ~BasePixelAccessor();

    /// @param samples  of one row: 16-bit ones with the high byte first; indices one a byte, whatever their depth is in
    ///                 the file.
    void WriteRow(unsigned char const * samples);
    /// After the last row. The file is complete then.
    void Finish();

private:
    friend class PNGSession;

    static void OnWrite(png_structp png, png_bytep data, std::size_t size);
    static void OnFlush(png_structp png);
    char const * Write(unsigned char const * data, std::size_t size) noexcept;

    static void BeginStep(BasePixelAccessor & writer);
    static void ColoursStep(BasePixelAccessor & writer);
    static void ProfileStep(BasePixelAccessor & writer);
    static void WriteInfoStep(BasePixelAccessor & writer);
    static void WriteRowStep(BasePixelAccessor & writer);
    static void FinishStep(BasePixelAccessor & writer);
    void RunOrThrow(void (*step)(BasePixelAccessor &));

    void TakePalette(DynamicPalette const & palette);
    void WriteProfile(ICCProfile const & profile);
    unsigned char const * Pack(unsigned char const * samples);

    Kernel::OutStream & stream;
    std::uint32_t width = 0, height = 0;
    int colourType = 0;
    int depth = 0; // in the file
    std::uint32_t pixelsPerMetre = 0;

    std::vector<png_color> palette;
    std::vector<png_byte> paletteAlpha;
    bool hasTransparentGrey = false;
    png_color_16 transparentGrey = {};
    bool isGreyRamp = false; // indices become these greys
    std::array<unsigned char, 256> greyOfIndex{};
    std::vector<unsigned char> packedRow;

    std::uint32_t rowsWritten = 0;

    std::string profileName;
    ICCProfile const * profile = nullptr; // these two only while WriteProfile runs
    unsigned char const * row = nullptr;
};
}
