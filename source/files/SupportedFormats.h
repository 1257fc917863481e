#pragma once

#include "kernel/Export.h"
#include "pixel/Format.h"
#include "pixel/Vocabulary.h"

namespace Raster {
/// The format in which a bitmap of `format` has to be written to this type of file; `NoFormat` if there is none. Any
/// values may be asked about. That a format is answered doesn't say that the library has a writer for the type.
RASTER_API Format GetSupportedFormatFor(FileType type, Format format) noexcept;
/// Whether that is the bitmap's own.
RASTER_API bool IsSupportedFormatFor(FileType type, Format format) noexcept;
}
