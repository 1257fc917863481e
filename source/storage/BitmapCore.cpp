#include "storage/BitmapCore.h"

#include "kernel/Abort.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "storage/CompressedRasterData.h"

#include <stdexcept>
#include <utility>

namespace Raster {
namespace {
std::atomic<BitmapLoader> bitmapLoader{CompressedRasterData::LoadBitmap};
}

BitmapLoader SetBitmapLoader(BitmapLoader loader) noexcept { return bitmapLoader.exchange(loader); }

BitmapCore::BitmapCore(BitmapType const & bitmapType, int width, int height, MipmapMode mode,
                       HardwareCachePolicy policy)
    : type(bitmapType), mipmapMode(mode), hardwarePolicy(policy) {
    if (!TileGrid::Create(width, height, type.layout.sampleSize).IsWithinLimit(type.layout.channelCount))
        throw std::length_error("a bitmap of more than 2^24 tiles");
    planes.reserve(static_cast<std::size_t>(type.layout.channelCount));
    for (int i = 0; i < type.layout.channelCount; ++i)
        planes.emplace_back(width, height, type.layout.sampleSize, type.layout.kind);
    if (mipmapMode != MipmapModeNone)
        mipmaps.Replace(MipmapTable::CreateLevels(*this, GetWidth(), GetHeight()));
}

BitmapCore::~BitmapCore() = default;

int BitmapCore::GetReducedSize(int size, int level) {
    for (; level > 0 && size > 1; --level)
        size = MipmapTable::GetHalf(size);
    return size;
}

std::unique_ptr<BitmapCore> BitmapCore::CreateSame(int width, int height, MipmapMode mode) const {
    return std::unique_ptr<BitmapCore>(type.create(width, height, mode, hardwarePolicy));
}

std::unique_ptr<BitmapCore> BitmapCore::CloneEmptyCore() const {
    return CreateSame(GetWidth(), GetHeight(), mipmapMode);
}

std::unique_ptr<BitmapCore> BitmapCore::CloneCore() const {
    auto const before = GetWritesSeen();
    auto clone = CloneWithoutLevels();
    clone->CopyLevelsFrom(*this, before);
    return clone;
}

std::unique_ptr<BitmapCore> BitmapCore::CloneWithoutLevels() const {
    auto clone = CreateSame(GetWidth(), GetHeight(), MipmapModeNone); // the levels come with the planes
    clone->mipmapMode = mipmapMode;
    clone->leftInflationTiles = leftInflationTiles;
    clone->topInflationTiles = topInflationTiles;
    // Pixels and marks belong together: a load that ends between the two would leave a clone pending with pixels.
    Kernel::ScopedLock guard(delayLoadLock, Kernel::LockNesting::FromOuterBitmap);
    clone->ShareTilesIntoNew(*this);
    clone->pendingDelayLoad.store(IsPendingDelayLoad(), std::memory_order_release);
    clone->backing = backing;
    clone->profile = profile;
    return clone;
}

std::unique_ptr<BitmapCore> BitmapCore::CloneTiles() const {
    auto clone = CreateSame(GetWidth(), GetHeight(), MipmapModeNone);
    Kernel::ScopedLock guard(delayLoadLock, Kernel::LockNesting::FromOuterBitmap);
    clone->ShareTilesIntoNew(*this);
    return clone;
}

void BitmapCore::CopyTilesFrom(BitmapCore const & source) {
    for (std::size_t i = 0; i < planes.size(); ++i)
        planes[i].ShareTilesFrom(source.planes[i]);
}

void BitmapCore::ShareTilesIntoNew(BitmapCore const & source) {
    for (std::size_t i = 0; i < planes.size(); ++i)
        planes[i].ShareTilesIntoNew(source.planes[i]);
}

void BitmapCore::CopyPlanesFrom(BitmapCore const * source) {
    if (!source || !(source->type.layout == type.layout) || !(source->GetGrid() == GetGrid()))
        return;
    WriteInProgress const mark(*this);
    auto const before = source->GetWritesSeen();
    {
        Kernel::ScopedLock guard(source->delayLoadLock, Kernel::LockNesting::FromOuterBitmap);
        CopyTilesFrom(*source);
    }
    CopyLevelsFrom(*source, before);
}

BitmapCore::WritesSeen BitmapCore::GetWritesSeen() const {
    WritesSeen seen;
    // In this order: if all that have begun have ended, and none begins until the levels are copied, none is under way.
    seen.begun = writesBegun.load(std::memory_order_relaxed);
    seen.isOneUnderWay = writesEnded.load(std::memory_order_acquire) != seen.begun;
    seen.levels = mipmaps.GetLevels();
    return seen;
}

bool BitmapCore::IsUnwrittenSince(WritesSeen const & before) const {
    return !before.isOneUnderWay && writesBegun.load(std::memory_order_relaxed) == before.begun &&
           mipmaps.HasSameChanges(before.levels);
}

void BitmapCore::CopyLevelsFrom(BitmapCore const & source, WritesSeen const & before) {
    if (mipmapMode == MipmapModeNone)
        return;
    MipmapTable::Levels levels;
    {
        // Nobody builds the levels while they are cloned.
        Kernel::ScopedLock guard(source.mipmapLock, Kernel::LockNesting::FromOuterBitmap);
        levels = source.mipmaps.GetLevels();
        for (auto & [level, entry] : levels)
            entry.bitmap = entry.bitmap->CloneCore().release();
    }
    if (source.mipmapMode == MipmapModeNone) // has none to give
        levels = MipmapTable::CreateLevels(*this, GetWidth(), GetHeight());
    mipmaps.Replace(std::move(levels));
    // They may show what was painted after the tiles were copied, or not show what was painted before.
    if (!source.IsUnwrittenSince(before))
        InvalidateMipmaps();
}

void BitmapCore::ForceDelayLoad(bool * abort) const {
    if (!IsPendingDelayLoad())
        return;
    Kernel::ScopedLock guard(delayLoadLock, Kernel::LockNesting::FromOuterBitmap);
    if (!IsPendingDelayLoad() || IsLoadedByThisThread())
        return;
    bool const isRead = FillFromBacking(abort);
    guard.Release();
    if (!isRead && !Kernel::IsAborted(abort))
        Kernel::Trace("Bitmap<> can't read its backing and stays pending.\r\n");
}

// Under `delayLoadLock`. Returns whether the backing could be read.
bool BitmapCore::FillFromBacking(bool * abort) const {
    bool isRead = false;
    try {
        isRead = CallLoader(abort);
    } catch (...) {
        DropPixels();
        throw;
    }
    if (!isRead || Kernel::IsAborted(abort)) {
        DropPixels();
        return isRead;
    }
    for (auto & plane : planes)
        plane.SetBacking(backing);
    pendingDelayLoad.store(false, std::memory_order_release);
    return true;
}

// Half a picture must not be taken for the picture, should the next attempt write nothing. Marks stay as they are.
void BitmapCore::DropPixels() const {
    Tile const empty;
    for (auto & plane : planes)
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            plane.GetTile(i).CopyAndPreserveBacking(&empty);
}

bool BitmapCore::IsLoadedByThisThread() const { return loadingThread.load() == std::this_thread::get_id(); }

bool BitmapCore::CallLoader(bool * abort) const {
    struct Mark {
        std::atomic<std::thread::id> & thread;
        ~Mark() { thread = std::thread::id(); }
    } const mark{loadingThread};
    loadingThread = std::this_thread::get_id();
    auto const loader = bitmapLoader.load();
    // Everything that a loader may change is mutable.
    return loader && backing && loader(const_cast<BitmapCore &>(*this), *backing, abort);
}

Kernel::JailCounted<Kernel::DelayLoadHolder> BitmapCore::GetBackingData() const { return backing; }

void BitmapCore::SetBackingAndProfile(Kernel::Counted<Kernel::DelayLoadHolder> holder,
                                      Kernel::Counted<Kernel::Countable const> backingProfile) {
    backing = std::move(holder);
    profile = std::move(backingProfile);
    for (auto & plane : planes)
        plane.SetBacking(backing);
}

void BitmapCore::SetPendingBacking(Kernel::Counted<Kernel::DelayLoadHolder> holder) {
    for (auto & plane : planes)
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            plane.GetTile(i).Unallocate();
    backing = std::move(holder);
    for (auto & plane : planes)
        plane.SetBacking(backing);
    pendingDelayLoad.store(static_cast<bool>(backing), std::memory_order_release);
}

void BitmapCore::SetHardwarePolicy(HardwareCachePolicy policy) {
    hardwarePolicy = policy;
    for (auto const & [level, entry] : mipmaps.GetLevels())
        entry.bitmap->SetHardwarePolicy(policy);
}

template<class Operation>
void BitmapCore::ForEachPlaneAndValidLevel(bool * abort, Operation && operation) {
    for (auto & plane : planes)
        if (!Kernel::IsAborted(abort))
            operation(plane);
    for (auto const & [level, entry] : mipmaps.GetLevels())
        if (entry.valid && !Kernel::IsAborted(abort))
            operation(*entry.bitmap);
}

void BitmapCore::Scrub(bool * abort) {
    ForEachPlaneAndValidLevel(abort, [&](auto & part) { part.Scrub(abort); });
}

void BitmapCore::Deduplicate(BlockDeduplicationSupport & support, bool * abort) {
    ForEachPlaneAndValidLevel(abort, [&](auto & part) { part.Deduplicate(support, abort); });
}

void BitmapCore::LoadFor(char const * operation) const {
    if (!IsPendingDelayLoad())
        return;
    Kernel::Trace(
        "Bitmap<> is performing a blocking, non-abortable delay-load in response to an %1() call - you should "
        "try to avoid this.\r\n",
        operation);
    ForceDelayLoad(nullptr);
}

void BitmapCore::LoadForConstSession(bool * abort) const {
    if (!IsPendingDelayLoad())
        return;
    Kernel::Trace("Bitmap<> is performing a blocking, abortable delay-load in response to a non-pipeline "
                  "ConstPixelAccessor session - you should try to avoid this.\r\n");
    ForceDelayLoad(abort);
}

void BitmapCore::LoadForMutableSession() const {
    if (!IsPendingDelayLoad())
        return;
    Kernel::Trace("Bitmap<> is performing a blocking, non-abortable delay-load in response to a non-pipeline "
                  "PixelAccessor session - you should try to avoid this.\r\n");
    ForceDelayLoad(nullptr);
    if (IsPendingDelayLoad() && !IsLoadedByThisThread())
        throw std::runtime_error("a bitmap whose pixels can't be loaded can't be written");
}

template<class Box>
Kernel::RectT<int> BitmapCore::UniteOverPlanes(Box && boxOfPlane) const {
    Kernel::RectT<int> box;
    for (auto const & plane : planes)
        box = box.Unite(boxOfPlane(plane));
    return box;
}

Kernel::RectT<int> BitmapCore::GetAllocatedBoundingBox() const {
    LoadFor("GetAllocatedBoundingBox");
    return UniteOverPlanes([](PlaneCore const & plane) { return plane.GetAllocatedBoundingBox(); });
}

Kernel::RectT<int> BitmapCore::GetNonZeroBoundingBox() const {
    LoadFor("GetNonZeroBoundingBox");
    return UniteOverPlanes([](PlaneCore const & plane) { return plane.GetDataBoundingBox(); });
}

Kernel::RectT<int> BitmapCore::GetNonFullBoundingBox() const {
    LoadFor("GetNonFullBoundingBox");
    return UniteOverPlanes([](PlaneCore const & plane) { return plane.GetInverseDataBoundingBox(); });
}

Kernel::RectT<int> BitmapCore::GetAlphaBoundingBox() const {
    LoadFor("GetAlphaBoundingBox");
    int const alpha = type.layout.alphaIndex;
    return alpha ? GetPlane(alpha - 1).GetDataBoundingBox() : Kernel::RectT<int>();
}

Kernel::RectT<int> BitmapCore::GetInverseAlphaBoundingBox() const {
    LoadFor("GetInverseAlphaBoundingBox");
    int const alpha = type.layout.alphaIndex;
    return alpha ? GetPlane(alpha - 1).GetInverseDataBoundingBox() : Kernel::RectT<int>();
}

Kernel::RectT<int> BitmapCore::InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty) {
    LoadFor("InflateByPixels");
    auto const inflation = TileGridInflation::Create(GetGrid(), amounts, GetPlaneCount());
    if (!inflation.fits || IsPendingDelayLoad())
        return {};
    // What may throw comes first, so that all planes grow or none.
    std::vector<PlaneCore> grown;
    grown.reserve(planes.size());
    for (auto const & plane : planes)
        grown.push_back(plane.PrepareInflation(inflation, fillEmpty));
    MipmapTable::Levels levels;
    if (mipmapMode != MipmapModeNone)
        levels = MipmapTable::CreateLevels(*this, inflation.grid.width, inflation.grid.height);

    for (std::size_t i = 0; i < planes.size(); ++i)
        planes[i].CommitInflation(inflation, std::move(grown[i]));
    leftInflationTiles += inflation.tilesLeft;
    topInflationTiles += inflation.tilesTop;
    backing = nullptr;
    mipmaps.Replace(std::move(levels));
    return inflation.wholeTiles;
}

void BitmapCore::InvalidateMipmaps() { mipmaps.InvalidateAll(); }

void BitmapCore::InvalidateMipmaps(Kernel::RectT<int> changed) { mipmaps.RecordChange(changed.Intersect(GetBounds())); }

void BitmapCore::RecordWrite(Kernel::RectT<int> changed, bool * abort) {
    if (mipmapMode == MipmapModeNone)
        return;
    InvalidateMipmaps(changed.Intersect(GetBounds()));
    if (mipmapMode == MipmapModeImmediate)
        UpdateMipmaps(0, abort);
}
}
