// How a bitmap goes into a document and comes out of it.
#include "colour/ICCProfile.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "pixel/EnumSerialisers.h"
#include "storage/BitmapCore.h"
#include "storage/CompressedRasterData.h"
#include "storage/RasterSerialisationStrategy.h"

#include <algorithm>

namespace Raster {
namespace {
constexpr Kernel::IDTag backingTag("Bckg"), profileTag("RPro"), delayTag("DelA"), modeTag("Mipm"), leftTag("LInf"),
    topTag("TInf");
// "DRc1" to "DRc5" and "IDR1" to "IDR5" are taken: no other property may be named so.

char GetDigit(int number) { return static_cast<char>('0' + number); }
// Planes count from 1, as channels do in the names of properties.
Kernel::IDTag GetBlockTag(int plane) { return {'I', 'd', 'x', GetDigit(plane + 1)}; }
Kernel::IDTag GetStateTag(int plane) { return {'S', 't', 'a', GetDigit(plane + 1)}; }
Kernel::IDTag GetLevelBlockTag(int level, int plane) { return {'M', 'I', GetDigit(level), GetDigit(plane + 1)}; }
Kernel::IDTag GetLevelStateTag(int level, int plane) { return {'M', 'T', GetDigit(level), GetDigit(plane + 1)}; }
}

RasterSerialisationStrategy::~RasterSerialisationStrategy() = default;

bool BitmapCore::IsWhollyBacked() const {
    for (auto const & plane : planes)
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            if (!plane.GetTile(i).IsBackedBy(backing))
                return false;
    return true;
}

bool BitmapCore::HasAllocatedTiles() const {
    for (auto const & plane : planes)
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            if (plane.GetTile(i).IsAllocated())
                return true;
    return false;
}

bool BitmapCore::IsSavedByReference(RasterSerialisationStrategy const * strategy) const {
    if (!backing)
        return false;
    if (IsPendingDelayLoad())
        return true;
    bool const isAllowed = strategy && (strategy->GetFlags() & RasterSerialisationStrategy::AllowByReference);
    // A backing that can't be decoded has given an empty picture. What it holds is nowhere else.
    return IsWhollyBacked() && (isAllowed || !HasAllocatedTiles());
}

void BitmapCore::SaveInline(Kernel::OutSerialiser & serialiser) const {
    auto const * const strategy = serialiser.GetStrategies().Find<RasterSerialisationStrategy>();
    bool const mayRefer = strategy && (strategy->GetFlags() & RasterSerialisationStrategy::AllowByReference);
    if (!mayRefer)
        ForceDelayLoad(nullptr);
    // The tiles as they are at one moment, whatever is loaded or copied meanwhile.
    auto const tiles = CloneTiles();
    bool const isPending = IsPendingDelayLoad();
    bool const isByReference = IsSavedByReference(strategy);
    if (isByReference) {
        serialiser.SaveDelayLoadObject(backingTag, backing.Get(), Kernel::FileStoreOutIndexedPathGenerator("", "c/"),
                                       nullptr);
        serialiser.SaveSharedObject(profileTag, GetProfile().Get());
    }
    serialiser.SaveType(delayTag, true);
    serialiser.SaveEnumI(modeTag, MipmapModeEnumSerialiser::GetInstance(), static_cast<int>(mipmapMode));
    serialiser.SaveType(leftTag, leftInflationTiles);
    serialiser.SaveType(topTag, topInflationTiles);
    if (!isPending)
        for (int i = 0; i < tiles->GetPlaneCount(); ++i)
            tiles->GetPlane(i).SaveInline(serialiser, GetBlockTag(i), GetStateTag(i),
                                          isByReference ? backing : nullptr);
    if (strategy)
        SaveLevels(serialiser, *strategy);
}

void BitmapCore::SaveLevels(Kernel::OutSerialiser & serialiser, RasterSerialisationStrategy const & strategy) const {
    if (mipmapMode == MipmapModeNone || !(strategy.GetFlags() & RasterSerialisationStrategy::SaveMipmaps))
        return;
    UpdateMipmaps(0, nullptr);
    int const largest = strategy.GetLargestLevel();
    for (auto const & [level, entry] : mipmaps.GetLevels()) {
        if (!entry.valid || (largest != 0 && std::max(entry.bitmap->GetWidth(), entry.bitmap->GetHeight()) > largest))
            continue;
        for (int i = 0; i < entry.bitmap->GetPlaneCount(); ++i)
            entry.bitmap->GetPlane(i).SaveInline(serialiser, GetLevelBlockTag(level, i), GetLevelStateTag(level, i),
                                                 nullptr);
    }
}

bool BitmapCore::LoadInline(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store,
                            unsigned short version) {
    int mode = 0;
    if (serialiser.LoadEnumI(modeTag, MipmapModeEnumSerialiser::GetInstance(), mode))
        mipmapMode = static_cast<MipmapMode>(mode);
    serialiser.LoadType(leftTag, leftInflationTiles);
    serialiser.LoadType(topTag, topInflationTiles);
    // No more than there are: those of later inflations are added to them.
    leftInflationTiles = std::clamp(leftInflationTiles, 0, GetGrid().tilesAcross);
    topInflationTiles = std::clamp(topInflationTiles, 0, GetGrid().tilesDown);

    Kernel::Counted<Kernel::DelayLoadHolder> holder;
    serialiser.LoadDelayLoadObject(backingTag, store, CompressedRasterData::GetTypeFileStoreItemType(), holder);
    Kernel::Consolidated<ICCProfile> loadedProfile;
    if (serialiser.LoadSharedObject(profileTag, store, loadedProfile))
        profile = Kernel::Counted<Kernel::Countable const>(loadedProfile.Get());
    bool isDelayed = false;
    serialiser.LoadType(delayTag, isDelayed);
    if (holder) {
        SetPendingBacking(holder);
        if (!isDelayed)
            ForceDelayLoad(nullptr);
    }
    if (!IsPendingDelayLoad())
        for (int i = 0; i < GetPlaneCount(); ++i)
            GetPlane(i).LoadInline(serialiser, store, GetBlockTag(i), GetStateTag(i), version);
    mipmaps.InvalidateAll();
    LoadLevels(serialiser, store, version);
    return true;
}

void BitmapCore::LoadLevels(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store,
                            unsigned short version) {
    for (auto const & [level, entry] : mipmaps.GetLevels()) {
        if (!serialiser.HasProperty(GetLevelStateTag(level, 0)))
            continue;
        for (int i = 0; i < entry.bitmap->GetPlaneCount(); ++i)
            entry.bitmap->GetPlane(i).LoadInline(serialiser, store, GetLevelBlockTag(level, i),
                                                 GetLevelStateTag(level, i), version);
        mipmaps.DeclareValid(level);
    }
}
}
