// The table of file types. A type stands here once its wrapper exists; the search skips those that don't.
#include "files/FileFormat.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace Raster {
namespace {
constexpr std::size_t typeCount = FileTypeHEIF + 1;

// Formats of this module by type; then those that others have registered.
constexpr std::array<FileFormat const *, typeCount> MakeBuiltIn() {
    std::array<FileFormat const *, typeCount> formats{};
    return formats;
}
constexpr auto builtIn = MakeBuiltIn();
constinit std::array<std::atomic<FileFormat const *>, typeCount> registered{};
}

FileFormat const * FindFileFormat(FileType type) noexcept {
    auto const index = static_cast<std::size_t>(type);
    if (index >= typeCount)
        return nullptr;
    return builtIn[index] ? builtIn[index] : registered[index].load(std::memory_order_acquire);
}

void RegisterFileFormat(FileFormat const & format) noexcept {
    auto const index = static_cast<std::size_t>(format.type);
    if (index < typeCount)
        registered[index].store(&format, std::memory_order_release);
}
}
