/// Visibility marks. Symbols are hidden unless they carry RASTER_API.
#pragma once

#define RASTER_API __attribute__((visibility("default")))
/// Stands on an `extern template` line: users link the library's instance.
#define RASTER_EXTERN_TEMPLATE RASTER_API
/// Stands on the instance itself. On ELF the mark of the extern line holds, so this is empty.
#define RASTER_TEMPLATE_INSTANCE
