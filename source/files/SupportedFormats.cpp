#include "files/SupportedFormats.h"

#include <array>
#include <cstddef>

namespace Raster {
namespace {
struct Column {
    std::array<Format, formatCount> answers; // by `Format`
    Format unknown;                          // for any other value
};

constexpr Column MakeUniform(Format format) {
    Column column{{}, format};
    for (auto & answer : column.answers)
        answer = format;
    return column;
}

// In the order of `Format`:
//   RGBA8, RGBA16, IA8, IA16, CMYKA8, LABA16, A8, A16, NoFormat, RGBAUF, AF
constexpr Column columnJPEG{{RGBA8, RGBA8, IA8, IA8, CMYKA8, RGBA8, IA8, IA8, RGBA8, RGBA8, IA8}, RGBA8};
constexpr Column columnPNG{{RGBA8, RGBA16, IA8, IA16, RGBA8, RGBA16, A8, A16, RGBA8, RGBA16, A16}, NoFormat};
constexpr Column columnTIFF{{RGBA8, RGBA16, IA8, IA16, CMYKA8, LABA16, A8, A16, RGBA8, RGBAUF, A16}, RGBA8};
constexpr Column columnHDPhoto{{RGBA8, RGBA16, IA8, IA16, CMYKA8, RGBA8, IA8, IA16, RGBA8, RGBAUF, IA16}, RGBA8};
constexpr Column columnRadiance = MakeUniform(RGBAUF);
constexpr Column columnGIF = MakeUniform(RGBA8);

Column const * FindColumn(FileType type) {
    switch (type) {
    case FileTypeJPEG:
        return &columnJPEG;
    case FileTypePNG:
        return &columnPNG;
    case FileTypeTIFF:
        return &columnTIFF;
    case FileTypeHDPhoto:
        return &columnHDPhoto;
    case FileTypeOpenEXR:
    case FileTypeHDR:
        return &columnRadiance;
    case FileTypeGIF:
        return &columnGIF;
    case FileTypeWEBP:
    case FileTypeRAW:
    case FileTypeJPEG2000:
    case FileTypeBMP:
    case FileTypeTGA:
    case FileTypeHEIF:
        break; // only read
    }
    return nullptr;
}
}

Format GetSupportedFormatFor(FileType type, Format format) noexcept {
    auto const * const column = FindColumn(type);
    if (!column)
        return NoFormat;
    auto const index = static_cast<std::size_t>(format);
    return index < column->answers.size() ? column->answers[index] : column->unknown;
}

bool IsSupportedFormatFor(FileType type, Format format) noexcept {
    return format != NoFormat && GetSupportedFormatFor(type, format) == format;
}
}
