#pragma once

namespace Raster {
/// How a graphics device should cache a bitmap. Stored and passed on to mipmaps; without a device it has no effect.
enum class HardwareCachePolicy : int { Default = 0 };
}
