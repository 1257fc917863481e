/// What a `Format` is like, and which format fits a purpose. All pure; they take any value and never fail.
#pragma once

#include "kernel/Export.h"
#include "pixel/Format.h"

namespace Raster {
/// The position of alpha among the channels, counted from 1. 0 means no alpha, also for `NoFormat` and values above 10.
RASTER_API int GetAlphaChannelIndex(Format format) noexcept;

/// The same position as a bit: channel n is bit n - 1. 0 means no alpha.
RASTER_API int GetAlphaChannelMask(Format format) noexcept;

/// How many of the format's channels `mask` names. Bits beyond the format's channels count for nothing.
RASTER_API int GetNumberOfNonMaskedChannels(int mask, Format format) noexcept;

/// The first of the format's channels that `mask` names, counted from 1; 0 if it names none.
RASTER_API int GetFirstNonMaskedChannelIndex(int mask, Format format) noexcept;

/// `ColourSpaceNone` for formats that have alpha only, `NoFormat` and values above 10.
RASTER_API ColourSpace GetColourSpace(Format format) noexcept;

/// The format for a picture of `format` that moves to `space`, with as much depth as that space allows. A format
/// without colour, an unknown one, and any format with an unknown space come back unchanged.
RASTER_API Format GetBestFormatForFormatAndSpace(Format format, ColourSpace space) noexcept;

/// The format of `space` that keeps the depth of `format`. Only `RGBA16` and `IA16` count as deep: the others fall to
/// 8 bits in grey and RGB. `ColourSpaceNone` and unknown spaces give `NoFormat`.
RASTER_API Format PreserveBitDepth(ColourSpace space, Format format) noexcept;

/// The alpha-only format in which a mask for pictures of `format` is held: the same depth. `NoFormat` where no pixels
/// are.
RASTER_API Format GetCompatibleMaskFormat(Format format) noexcept;
}
