#pragma once

#include "kernel/Consolidated.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/CriticalSection.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/JailCounted.h"
#include "kernel/Rect.h"
#include "pixel/ChannelTuple.h"
#include "pixel/HardwareCachePolicy.h"
#include "pixel/Vocabulary.h"
#include "storage/MipmapTable.h"
#include "storage/PlaneCore.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace Raster {
class BitmapCore;
class BlockDeduplicationSupport;
class ICCProfile;
class RasterSerialisationStrategy;

/// What untyped code needs to know of one kind of bitmap.
struct BitmapType {
    TupleLayout layout;
    /// Makes another bitmap of the same tuple. Its count is 0.
    BitmapCore * (*create)(int width, int height, MipmapMode, HardwareCachePolicy);
};

/// Fills a pending bitmap from its backing: decodes it and writes the pixels through pipeline sessions or
/// `CopyPlanesFrom`. Runs under the bitmap's `delayLoadLock`. What it has written when it is aborted, returns false or
/// throws is dropped.
/// @return false if the backing can't be read, so that the bitmap has to stay pending. A backing that is there but
///         can't be decoded is true, with no pixels written.
using BitmapLoader = bool (*)(BitmapCore & bitmap, Kernel::DelayLoadHolder & backing, bool * abort);

/// Sets how pending bitmaps are filled, for the process; at start that is `CompressedRasterData::LoadBitmap`. Without
/// one a pending bitmap can't be read.
/// @return the loader before.
RASTER_API BitmapLoader SetBitmapLoader(BitmapLoader loader) noexcept;

/// An editable picture, for every channel tuple: a plane of tiles for each real channel, levels of half size each
/// (`MipmapTable`), and maybe a backing, the compressed file whose pixels these are. `Bitmap` gives it its types.
///
/// Copies share tiles until one of them is written. A bitmap is Pending while its pixels are still in the backing only,
/// Backed when it has one and its planes are filled, and Plain otherwise; see docs/bitmaps.md.
///
/// Threads: reading runs side by side, implicit loads included, and so do writers of separate tiles. Whoever copies
/// planes into a bitmap, inflates it or sets its backing does so alone. Locks: see docs/locks.md.
class RASTER_API BitmapCore : public Kernel::Countable {
public:
    BitmapCore(BitmapCore const &) = delete;
    BitmapCore & operator=(BitmapCore const &) = delete;
    ~BitmapCore() override;

    TupleLayout const & GetLayout() const { return type.layout; }
    /// The size in pixels at a level: 0 is the bitmap itself, and each further level is half as large, rounded up. A
    /// level need not exist.
    int GetWidth(int level = 0) const { return GetLevelSize(planes.front().GetWidth(), level); }
    int GetHeight(int level = 0) const { return GetLevelSize(planes.front().GetHeight(), level); }
    Kernel::RectT<int> GetBounds() const { return planes.front().GetGrid().GetBounds(); }

    /// One plane for each real channel, all of one grid, in the order of the tuple.
    int GetPlaneCount() const { return static_cast<int>(planes.size()); }
    PlaneCore & GetPlane(int index) { return planes[static_cast<std::size_t>(index)]; }
    PlaneCore const & GetPlane(int index) const { return planes[static_cast<std::size_t>(index)]; }
    TileGrid const & GetGrid() const { return planes.front().GetGrid(); }

    /// A bitmap of the same tuple and size that shares all tiles, without levels and backing of its own: the picture as
    /// it is now, whatever is written afterwards.
    std::unique_ptr<BitmapCore> CloneTiles() const;
    /// Shares every tile, backing included, and gets clones of the source's levels if this bitmap has levels. Does
    /// nothing if the tuples or sizes differ, or with null.
    void CopyPlanesFrom(BitmapCore const * source);

    bool IsPendingDelayLoad() const { return pendingDelayLoad.load(std::memory_order_acquire); }
    /// Fills a pending bitmap, once: others who ask meanwhile wait. An abort leaves it pending, and so does a backing
    /// that can't be read, which is traced.
    /// @param abort  null, or a flag to stop the decoder with
    void ForceDelayLoad(bool * abort) const;
    Kernel::JailCounted<Kernel::DelayLoadHolder> GetBackingData() const;
    /// Says that the present pixels are those of `holder`, for every tile. Touches neither pixels nor
    /// `IsPendingDelayLoad`. (A template so that profiles are known by name only here.)
    template<class Profile = ICCProfile>
    void SetBackingData(Kernel::Counted<Kernel::DelayLoadHolder> holder,
                        Kernel::Consolidated<Profile> const & backingProfile) {
        SetBackingAndProfile(std::move(holder), Kernel::Counted<Kernel::Countable const>(backingProfile.Get()));
    }
    void SetBackingData(Kernel::Counted<Kernel::DelayLoadHolder> holder, std::nullptr_t) {
        SetBackingAndProfile(std::move(holder), nullptr);
    }
    /// The profile that came with the backing; null if none did.
    template<class Profile = ICCProfile>
    Kernel::Consolidated<Profile> GetProfile() const {
        return Kernel::Consolidated<Profile>::FromConsolidated(dynamic_cast<Profile const *>(profile.Get()));
    }
    /// Makes a bitmap without pixels whose pixels are in `holder`: all tiles unallocated and backed.
    void SetPendingBacking(Kernel::Counted<Kernel::DelayLoadHolder> holder);

    /// Writes the bitmap among the properties of the object that holds it. What a `RasterSerialisationStrategy` allows
    /// is stored as a reference to the backing, and levels as it says. A pending bitmap that may not be stored by
    /// reference is loaded first; if that is impossible it is stored by reference all the same, since its pixels are
    /// nowhere else. What is saved is the picture at one moment: others may paint meanwhile.
    void SaveInline(Kernel::OutSerialiser & serialiser) const;
    /// Fills a bitmap that was just made with what `SaveInline` wrote. No pixel is read, unless the document says so.
    /// @return false if what there is can't be shown without what is missing; the bitmap is of no use then.
    bool LoadInline(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version);

    HardwareCachePolicy GetHardwarePolicy() const { return hardwarePolicy; }
    /// Stores it, in the levels too. It has no effect in this library.
    void SetHardwarePolicy(HardwareCachePolicy policy);

    /// Both do the planes, then the valid levels. Neither loads anything.
    /// @param abort  null, or a flag that is tested before each tile
    void Scrub(bool * abort);
    void Deduplicate(BlockDeduplicationSupport & support, bool * abort);

    // Boxes, in pixels. On a pending bitmap each of these first loads it, which blocks, can't be aborted, and is
    // traced.

    /// In whole tiles, also beyond the edges. Static tiles count as allocated.
    Kernel::RectT<int> GetAllocatedBoundingBox() const;
    /// Around what is not 0 in some channel.
    Kernel::RectT<int> GetNonZeroBoundingBox() const;
    /// Around what is not full in some channel.
    Kernel::RectT<int> GetNonFullBoundingBox() const;
    /// The same for the alpha channel alone; empty for a tuple without one.
    Kernel::RectT<int> GetAlphaBoundingBox() const;
    Kernel::RectT<int> GetInverseAlphaBoundingBox() const;

    /// Grows outward without touching pixels: left and top by whole tiles, right and bottom by what is asked for. Pixel
    /// (0, 0) moves by the left and top of the result. New tiles are full unless `fillEmpty`. The backing goes, and the
    /// levels are made anew, none of them valid.
    /// @param amounts  pixels to add on each side; negative ones count as 0
    /// @return the amounts, each rounded up to whole tiles; the zero rect, with nothing changed, if a side would get
    ///         longer than 2^31 - 1, the planes would have more than `maximumTileCount` tiles, or a pending bitmap
    ///         can't be loaded.
    Kernel::RectT<int> InflateByPixels(Kernel::RectT<int> amounts, bool fillEmpty);
    /// Whole tiles that inflation has added since creation.
    int GetLeftInflationTiles() const { return leftInflationTiles; }
    int GetTopInflationTiles() const { return topInflationTiles; }

    MipmapMode GetMipmapMode() const { return mipmapMode; }
    /// The levels; none with mode 0. Its own lock makes it safe from any thread.
    MipmapTable & GetMipmapTable() const { return mipmaps; }
    /// The next update rebuilds every level whole.
    void InvalidateMipmaps();
    /// Records that the pixels in `changed` were written, which whoever writes through accessors does when done. An
    /// empty rect changes nothing.
    void InvalidateMipmaps(Kernel::RectT<int> changed);
    /// What every operation that wrote pixels does in the end: records the change, and with mipmap mode 1 brings the
    /// levels up to date at once. A save or a copy between the first write and this call takes levels that don't show
    /// what was written for valid: take a `WriteInProgress` where others may save or copy meanwhile.
    void RecordWrite(Kernel::RectT<int> changed, bool * abort);
    /// Says, as long as it lives, that pixels are being written that `RecordWrite` wasn't told of yet. A save that
    /// meets one builds the levels that it stores from the pixels that it stores, and a copy builds its own when they
    /// are needed. The library's own operations have one; so should who writes through guards or accessors while others
    /// may save, from before the first write until the write was recorded. Costs next to nothing, and nothing at all
    /// without levels. Threads: any number at once.
    class WriteInProgress {
    public:
        explicit WriteInProgress(BitmapCore & written) noexcept
            : bitmap(written.mipmapMode != MipmapModeNone ? &written : nullptr) {
            if (bitmap)
                bitmap->writesBegun.fetch_add(1, std::memory_order_relaxed);
        }
        WriteInProgress(WriteInProgress const &) = delete;
        WriteInProgress & operator=(WriteInProgress const &) = delete;
        ~WriteInProgress() {
            if (bitmap)
                bitmap->writesEnded.fetch_add(1, std::memory_order_release);
        }

    private:
        BitmapCore * const bitmap; // not owned; null if there are no levels
    };
    /// Brings the levels up to `level` + 1, or all of them if it is 0, up to date with the pixels. A pending bitmap
    /// stays as it is.
    void UpdateMipmaps(int level, bool * abort) const;

    /// What sessions outside a pipeline do first; a pipeline has seen to the load itself. Tells of the load by a trace.
    void LoadForConstSession(bool * abort) const;
    /// @throws std::runtime_error if the pixels can't be loaded: what would be written could not be told from them.
    void LoadForMutableSession() const;

protected:
    /// @throws std::length_error if the planes would have more than `maximumTileCount` tiles. Negative sizes count as
    /// 0.
    BitmapCore(BitmapType const & bitmapType, int width, int height, MipmapMode, HardwareCachePolicy);

    std::unique_ptr<BitmapCore> CloneCore() const;
    std::unique_ptr<BitmapCore> CloneEmptyCore() const;

private:
    friend class MipmapTable;

    // Loops over pixels ask for the size at level 0: that has to be no call.
    static int GetLevelSize(int size, int level) { return level == 0 ? size : GetReducedSize(size, level); }
    static int GetReducedSize(int size, int level);
    std::unique_ptr<BitmapCore> CloneWithoutLevels() const;
    std::unique_ptr<BitmapCore> CreateSame(int width, int height, MipmapMode mode) const;
    void CopyTilesFrom(BitmapCore const & source);
    void ShareTilesIntoNew(BitmapCore const & source);
    /// What had been written at one moment, as far as levels depend on it.
    struct WritesSeen {
        std::uint64_t begun = 0;
        bool isOneUnderWay = false;
        MipmapTable::Levels levels;
    };
    WritesSeen GetWritesSeen() const;
    /// Whether levels that were copied after `before` and until now match tiles that were copied in this time.
    bool IsUnwrittenSince(WritesSeen const & before) const;
    /// Goes with tiles that were copied after `before`.
    void CopyLevelsFrom(BitmapCore const & source, WritesSeen const & before);
    void CreateMissingLevels() const;
    /// Takes over what a copy that was made after `before` has built.
    void AdoptLevelsFrom(BitmapCore const & copy, WritesSeen const & before) const;
    void SetBackingAndProfile(Kernel::Counted<Kernel::DelayLoadHolder>, Kernel::Counted<Kernel::Countable const>);
    void LoadFor(char const * operation) const;
    bool FillFromBacking(bool * abort) const;
    bool CallLoader(bool * abort) const;
    void DropPixels() const;
    bool IsWhollyBacked() const;
    bool HasAllocatedTiles() const;
    bool IsSavedByReference(RasterSerialisationStrategy const * strategy) const;
    void SaveLevels(Kernel::OutSerialiser & serialiser, int largest) const;
    bool LoadPlanes(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version);
    void LoadLevels(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version);
    /// Whether it is the loader that asks: what it writes is the load.
    bool IsLoadedByThisThread() const;
    template<class Box>
    Kernel::RectT<int> UniteOverPlanes(Box && boxOfPlane) const;
    template<class Operation>
    void ForEachPlaneAndValidLevel(bool * abort, Operation && operation);

    BitmapType const & type;
    MipmapMode mipmapMode;
    HardwareCachePolicy hardwarePolicy;
    int leftInflationTiles = 0, topInflationTiles = 0;
    // Loads and level updates are const for their callers: the pixels are the same, only elsewhere.
    mutable std::vector<PlaneCore> planes; // at least one
    mutable MipmapTable mipmaps;
    mutable std::atomic<bool> pendingDelayLoad{false}; // cleared with release order once the planes are filled
    // The thread that is in the loader now; written under delayLoadLock.
    mutable std::atomic<std::thread::id> loadingThread{};
    // A write that a copy of the planes shows has let go of a tile before, so that whoever took the copy sees that the
    // write has begun; and one that is seen to have ended has been recorded.
    std::atomic<std::uint64_t> writesBegun{0}, writesEnded{0};
    Kernel::Counted<Kernel::DelayLoadHolder> backing;
    Kernel::Counted<Kernel::Countable const> profile;

    // Held while the planes are filled from the backing, and while another bitmap copies this one's tiles, so that no
    // copy sees half a load. Outermost, with mipmapLock; never both of one bitmap.
    mutable Kernel::CriticalSection delayLoadLock{Kernel::LockRank::Bitmap};
    // Held while levels are built, and while another bitmap clones them. Outermost.
    mutable Kernel::CriticalSection mipmapLock{Kernel::LockRank::Bitmap};
};
}
