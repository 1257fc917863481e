#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>

namespace Kernel {
/// A hash for tables whose keys come from files. It differs from process to process, so that no file can be made whose
/// keys all meet in one place of a table. Never stored; nothing that is stored may depend on it.
RASTER_API std::size_t GetTableHash(std::uint64_t first, std::uint64_t second = 0) noexcept;
}
