/// Names and facts of file types and pixel formats that people use.
#pragma once

#include "pixel/Format.h"
#include "pixel/Vocabulary.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Host {
/// Such as "JPEG".
std::string_view GetTypeName(Raster::FileType type);
/// By its name on the command line, in any case: "png". Only types that can be written.
std::optional<Raster::FileType> FindWrittenType(std::string_view name);
/// By the extension of a path. Only types that can be written.
std::optional<Raster::FileType> FindWrittenTypeOfPath(std::string_view path);
/// "jpeg (.jpg, .jpeg, .jpe, .jfif) and png (.png)".
std::string ListWrittenTypes();
/// The longest side that a picture of this type can have, in pixels.
int GetLargestSide(Raster::FileType type);

/// Such as "RGBA8".
std::string_view GetFormatName(Raster::Format format);
std::optional<Raster::Format> FindFormat(std::string_view name);
std::vector<std::string> ListFormats();
/// In memory, of one pixel.
unsigned GetPixelBytes(Raster::Format format);
/// Bits a channel: 8, 16 or 32.
unsigned GetBits(Raster::Format format);
/// "grey", "RGB", "linear RGB", "CMYK", "Lab", "no colour".
std::string_view GetSpaceName(Raster::ColourSpace space);
}
