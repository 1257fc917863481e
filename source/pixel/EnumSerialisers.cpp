#include "pixel/EnumSerialisers.h"

#include <array>
#include <cstddef>
#include <initializer_list>
#include <span>

namespace Raster {
namespace {
/// The table of an enumeration whose values run from 0 without a gap.
template<std::size_t Count>
constexpr std::array<Kernel::EnumEntry, Count> CreateRun() {
    std::array<Kernel::EnumEntry, Count> entries{};
    for (std::size_t i = 0; i < Count; ++i)
        entries[i] = {static_cast<int>(i), nullptr};
    return entries;
}

template<std::size_t Count>
constexpr std::array<Kernel::EnumEntry, Count> CreateTable(int const (&values)[Count]) {
    std::array<Kernel::EnumEntry, Count> entries{};
    for (std::size_t i = 0; i < Count; ++i)
        entries[i] = {values[i], nullptr};
    return entries;
}

// The blend modes that existed at each version of the document, oldest first. 5 joined last: the gap in the middle
// tables is what documents have.
constexpr auto firstBlendModes =
    CreateTable({0, 1, 3, 4, 6, 8, 9, 10, 11, 12, 13, 14, 15, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28});
constexpr auto secondBlendModes = CreateTable(
    {0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28});
constexpr auto thirdBlendModes = CreateTable(
    {0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29});
constexpr auto newestBlendModes = CreateRun<blendModeTypeCount>();
static_assert(firstBlendModes.size() == 25 && secondBlendModes.size() == 28 && thirdBlendModes.size() == 29 &&
                  newestBlendModes.size() == 30,
              "documents tell the tables apart by their sizes");

constexpr auto formats = CreateRun<formatCount>();
constexpr auto colourSpaces = CreateRun<ColourSpaceRGBUF + 1>();
constexpr auto mipmapModes = CreateRun<mipmapModeCount>();
constexpr auto extendTypes = CreateRun<extendTypeCount>();
constexpr auto resamplerTypes = CreateRun<resamplerTypeCount>();
constexpr auto fileTypes = CreateRun<storedFileTypeCount>();
constexpr auto intents = CreateRun<intentCount>();
constexpr auto subModes = CreateRun<subModeCount>();
constexpr auto bitStreamFormats = CreateRun<bitStreamFormatCount>();
static_assert(formats.size() == 11 && colourSpaces.size() == 6 && mipmapModes.size() == 5 && extendTypes.size() == 6 &&
                  resamplerTypes.size() == 9 && fileTypes.size() == 14 && intents.size() == 4 && subModes.size() == 2 &&
                  bitStreamFormats.size() == 2,
              "an enumeration grew: its old table has to stay, and one more has to be registered");
}

// Tables are registered oldest first.
#define RASTER_DEFINE_ENUM_SERIALISER(Enum, ...)                                                                       \
    Enum##EnumSerialiser::Enum##EnumSerialiser() {                                                                     \
        for (auto const & table : std::initializer_list<std::span<Kernel::EnumEntry const>>{__VA_ARGS__})              \
            RegisterEnumSet(table.data(), table.size());                                                               \
    }                                                                                                                  \
    Enum##EnumSerialiser const & Enum##EnumSerialiser::GetInstance() {                                                 \
        static Enum##EnumSerialiser const instance;                                                                    \
        return instance;                                                                                               \
    }
RASTER_DEFINE_ENUM_SERIALISER(Format, formats)
RASTER_DEFINE_ENUM_SERIALISER(ColourSpace, colourSpaces)
RASTER_DEFINE_ENUM_SERIALISER(MipmapMode, mipmapModes)
RASTER_DEFINE_ENUM_SERIALISER(ExtendType, extendTypes)
RASTER_DEFINE_ENUM_SERIALISER(ResamplerType, resamplerTypes)
RASTER_DEFINE_ENUM_SERIALISER(FileType, fileTypes)
RASTER_DEFINE_ENUM_SERIALISER(Intent, intents)
RASTER_DEFINE_ENUM_SERIALISER(SubMode, subModes)
RASTER_DEFINE_ENUM_SERIALISER(BitStreamFormat, bitStreamFormats)
RASTER_DEFINE_ENUM_SERIALISER(BlendModeType, firstBlendModes, secondBlendModes, thirdBlendModes, newestBlendModes)
#undef RASTER_DEFINE_ENUM_SERIALISER
}
