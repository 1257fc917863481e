#pragma once

#include "kernel/Export.h"

#include <cstdint>
#include <optional>

namespace Kernel {
/// What an offset counts from.
enum class SeekOrigin : int { Current = 0, Start = 1, End = 2 };

/// Where a seek in `size` bytes leads: before the start is the start, beyond the end the end. Nothing if the sum does
/// not fit 63 bits; the stream then stays where it is.
RASTER_API std::optional<std::uint64_t> ResolveSeek(SeekOrigin origin, std::int64_t offset, std::uint64_t position,
                                                    std::uint64_t size);
}
