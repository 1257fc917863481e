// The table of file types. A type stands here once its wrapper exists; the search skips those that don't.
#include "files/FileFormat.h"

#include "files/jpeg/DynamicJPEG.h"
#include "files/png/DynamicPNG.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <utility>

namespace Raster {
namespace {
constexpr std::size_t typeCount = FileTypeHEIF + 1;

// One question of a path or of bytes in memory.
template<auto ofPath, auto ofData>
bool Ask(FileSource const & source) {
    if (auto data = source.GetData())
        return ofData(std::move(data));
    return source.GetPath() && ofPath(source.GetPath());
}
#define RASTER_ASK(question)                                                                                           \
    &Ask<[](char const * path) { return question(path); },                                                             \
         [](Kernel::Counted<CompressedRasterData const> data) { return question(std::move(data)); }>

constexpr FileFormat MakeJPEG() {
    using Of = FileFormatOf<DynamicJPEG>;
    FileFormat format = Of::Make(FileTypeJPEG, RASTER_ASK(DynamicJPEG::IsJPEGFile));
    format.getDPI = &Of::GetDPI;
    format.getProfile = &Of::GetProfile;
    format.isProfileFallback = &Of::IsProfileFallback;
    format.getOrientation = &Of::GetOrientation;
    format.endedEarly = &Of::EndedEarly;
    format.getWarning = &Of::GetWarning;
    return format;
}

constexpr FileFormat MakePNG() {
    using Of = FileFormatOf<DynamicPNG>;
    FileFormat format = Of::Make(FileTypePNG, RASTER_ASK(DynamicPNG::IsPNGFile));
    format.getDPI = &Of::GetDPI;
    format.getProfile = &Of::GetProfile;
    format.isProfileFallback = &Of::IsProfileFallback;
    return format;
}

constexpr FileFormat formats[] = {MakeJPEG(), MakePNG()};

// Those by type; null for types of others, which register theirs.
constexpr std::array<FileFormat const *, typeCount> MakeBuiltIn() {
    std::array<FileFormat const *, typeCount> byType{};
    for (auto const & format : formats)
        byType[format.type] = &format;
    return byType;
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
