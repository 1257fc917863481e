/// Enumerations that callers and documents share with the library. Documents hold the numbers. Where an enumeration has
/// no enumerators here, the host owns what its values mean: the library only stores them and hands them back.
#pragma once

#include <cstdint>

namespace Raster {
/// How a bitmap keeps its mipmaps.
enum MipmapMode : std::uint32_t {
    MipmapModeNone = 0,           ///< no levels exist
    MipmapModeImmediate = 1,      ///< rebuilt right after each format-erased transfer into the bitmap
    MipmapModeOnDemand = 2,       ///< rebuilt when a transfer wants a level
    MipmapModeManual = 3,         ///< changes are recorded; only the caller rebuilds
    MipmapModeOnDemandDefault = 4 ///< as on demand; the mode of the bitmaps that the library itself makes
};
inline constexpr std::uint32_t mipmapModeCount = 5;

/// 0 to 5. What a reader wants beyond the edges of a picture, in the host's words.
enum ExtendType : std::uint32_t {};
inline constexpr std::uint32_t extendTypeCount = 6;

/// 0 to 8. The quality of resampling that a user picked, in the host's words.
enum ResamplerType : std::uint32_t {};
inline constexpr std::uint32_t resamplerTypeCount = 9;

enum FileType : std::uint32_t {
    FileTypeJPEG = 0,
    FileTypePNG = 1,
    FileTypeTIFF = 2,
    FileTypeWEBP = 3,
    FileTypeHDPhoto = 4,
    FileTypeRAW = 5,
    FileTypeGIF = 6,
    FileTypeJPEG2000 = 7,
    FileTypeBMP = 8,
    FileTypeTGA = 9,
    FileTypeOpenEXR = 10,
    FileTypeHDR = 11,
    // 12 and 13 name nothing, but documents may hold them
    FileTypeHEIF = 14 ///< came later than the stored set, and is not stored
};
/// The number of values that documents may hold: 0 to 13.
inline constexpr std::uint32_t storedFileTypeCount = 14;

/// The rendering intents of ICC, with ICC's numbers. Any other value counts as `Perceptual`.
enum class Intent : std::uint32_t {
    Perceptual = 0,
    RelativeColorimetric = 1,
    Saturation = 2,
    AbsoluteColorimetric = 3
};
inline constexpr std::uint32_t intentCount = 4;

/// 0 or 1. How a brush's sub-brush joins in, in the host's words.
enum SubMode : std::uint32_t {};
inline constexpr std::uint32_t subModeCount = 2;

/// The order of the coefficients in an HD Photo stream, as export options state it.
enum BitStreamFormat : std::uint32_t {
    BitStreamFormatFrequency = 0, ///< all low frequencies first
    BitStreamFormatSpatial = 1    ///< block after block
};
inline constexpr std::uint32_t bitStreamFormatCount = 2;

/// 0 to 29. How a brush mixes with what it paints on, in the host's words.
enum BlendModeType : std::uint32_t {};
inline constexpr std::uint32_t blendModeTypeCount = 30;
}
