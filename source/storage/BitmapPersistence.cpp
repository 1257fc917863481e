// How a bitmap goes into a document and comes out of it.
#include "colour/ICCProfile.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "kernel/Trace.h"
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
    unsigned const flags = strategy ? strategy->GetFlags() : 0u;
    bool const hasLevels = (flags & RasterSerialisationStrategy::SaveMipmaps) && mipmapMode != MipmapModeNone;
    // Where items are only enumerated they are those of the stored object: a pending bitmap refers to its backing.
    if (serialiser.IsFullSave() && !(flags & RasterSerialisationStrategy::AllowByReference))
        ForceDelayLoad(nullptr);
    if (hasLevels && !IsPendingDelayLoad())
        CreateMissingLevels();
    auto const before = GetWritesSeen();
    // Whatever is loaded or painted from here on, this is what is saved.
    auto const saved = CloneWithoutLevels();
    if (hasLevels)
        saved->CopyLevelsFrom(*this, before);
    bool const isByReference = saved->IsSavedByReference(strategy);
    if (isByReference) {
        serialiser.SaveDelayLoadObject(backingTag, saved->backing.Get(),
                                       Kernel::FileStoreOutIndexedPathGenerator("", "c/"), nullptr);
        serialiser.SaveSharedObject(profileTag, saved->GetProfile().Get());
    }
    serialiser.SaveType(delayTag, true);
    serialiser.SaveEnumI(modeTag, MipmapModeEnumSerialiser::GetInstance(), static_cast<int>(mipmapMode));
    serialiser.SaveType(leftTag, saved->leftInflationTiles);
    serialiser.SaveType(topTag, saved->topInflationTiles);
    if (!saved->IsPendingDelayLoad())
        for (int i = 0; i < saved->GetPlaneCount(); ++i)
            saved->GetPlane(i).SaveInline(serialiser, GetBlockTag(i), GetStateTag(i),
                                          isByReference ? saved->backing : nullptr);
    if (!hasLevels)
        return;
    // Built on the copy, which nobody paints, for both: the next save finds the same levels and stores none anew.
    saved->UpdateMipmaps(0, nullptr);
    AdoptLevelsFrom(*saved, before);
    saved->SaveLevels(serialiser, strategy->GetLargestLevel());
}

void BitmapCore::SaveLevels(Kernel::OutSerialiser & serialiser, int largest) const {
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
    leftInflationTiles = std::clamp(leftInflationTiles, 0, GetGrid().tilesAcross);
    topInflationTiles = std::clamp(topInflationTiles, 0, GetGrid().tilesDown);
    Kernel::Consolidated<ICCProfile> loadedProfile;
    if (serialiser.LoadSharedObject(profileTag, store, loadedProfile))
        profile = Kernel::Counted<Kernel::Countable const>(loadedProfile.Get());
    if (!LoadPlanes(serialiser, store, version)) {
        Kernel::Trace("The file behind a bitmap of a document can't be had: the bitmap is not loaded\n");
        return false;
    }
    mipmaps.InvalidateAll();
    LoadLevels(serialiser, store, version);
    return true;
}

// False if a part of the pixels is in a backing that can't be had now. Without it the rest would be saved as the whole.
bool BitmapCore::LoadPlanes(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store,
                            unsigned short version) {
    Kernel::Counted<Kernel::DelayLoadHolder> holder;
    bool isDelayed = false;
    serialiser.LoadType(delayTag, isDelayed);
    if (serialiser.LoadDelayLoadObject(backingTag, store, CompressedRasterData::GetTypeFileStoreItemType(), holder)) {
        SetPendingBacking(holder);
        if (isDelayed)
            return true; // nothing was written but what the backing has
        ForceDelayLoad(nullptr);
    } else if (serialiser.HasProperty(backingTag)) {
        return false;
    }
    if (IsPendingDelayLoad()) // it may be there the next time; what was painted on it is not to be lost until then
        return !serialiser.HasProperty(GetStateTag(0));
    for (int i = 0; i < GetPlaneCount(); ++i)
        GetPlane(i).LoadInline(serialiser, store, GetBlockTag(i), GetStateTag(i), version);
    return true;
}

// A level that isn't whole is built anew when it is needed.
void BitmapCore::LoadLevels(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short) {
    for (auto const & [level, entry] : mipmaps.GetLevels()) {
        if (!serialiser.HasProperty(GetLevelStateTag(level, 0)))
            continue;
        std::size_t lost = 0;
        for (int i = 0; i < entry.bitmap->GetPlaneCount(); ++i)
            lost += entry.bitmap->GetPlane(i).LoadTiles(serialiser, store, GetLevelBlockTag(level, i),
                                                        GetLevelStateTag(level, i));
        if (lost == 0)
            mipmaps.DeclareValid(level);
    }
}
}
