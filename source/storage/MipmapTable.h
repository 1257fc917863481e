#pragma once

#include "kernel/Counted.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/Export.h"
#include "kernel/Rect.h"

#include <cstdint>
#include <map>
#include <vector>

namespace Raster {
class BitmapCore;

/// One level of a bitmap, half as large as the one before. Level 0 is the bitmap itself and has no entry.
struct MipmapEntry {
    bool valid = false;                 ///< matches the image
    Kernel::Counted<BitmapCore> bitmap; ///< of the same tuple, with no levels of its own; not null while it is listed
    Kernel::RectT<int> dirtyRect;       ///< what has changed since it was built, in pixels of level 0; empty is all
    std::uint64_t changeCount = 0;      ///< how often a change was recorded
};

/// The levels of one bitmap and what each has missed. Any thread may call anything: a small lock of its own, under
/// which nothing is created or destroyed, guards the map.
class RASTER_API MipmapTable {
public:
    /// The sizes of the levels follow from that of the bitmap: levels stop once both sides are below 17, or one is
    /// below 2.
    static bool HasLevelBelow(int width, int height) {
        return !(width < 17 && height < 17) && !(width < 2 || height < 2);
    }
    static int GetHalf(int size) { return size / 2 + size % 2; }

    using Levels = std::map<int, MipmapEntry>;

    MipmapTable() = default;
    MipmapTable(MipmapTable const &) = delete;
    MipmapTable & operator=(MipmapTable const &) = delete;
    ~MipmapTable();

    /// The levels that a bitmap of this size has, none of them valid.
    static Levels CreateLevels(BitmapCore const & bitmap, int width, int height);

    void Replace(Levels && levels);
    /// Takes in the entries whose level has none yet.
    void AddMissing(Levels && levels);
    /// A copy of the entries as they are now.
    Levels GetLevels() const;
    /// Whether the table still has the levels that it gave here, and no change was recorded since.
    bool HasSameChanges(Levels const & levels) const;
    /// The entry of a level; one without a bitmap if there is none.
    MipmapEntry GetEntry(int level) const;
    /// The level, if there is one and it matches the image.
    Kernel::Counted<BitmapCore> GetValid(int level) const;

    void InvalidateAll();
    /// Takes the level's bitmap for what matches the image, as a document says. Without such a level: nothing.
    void DeclareValid(int level);
    /// Adds to what every level has missed. A level that is wholly dirty stays so. An empty rect changes nothing.
    void RecordChange(Kernel::RectT<int> const & changed);
    /// Declares a level built from what `built` said when it was read. Does nothing if a change was recorded since.
    void Publish(int level, MipmapEntry const & built);

private:
    Levels entries;
    mutable Kernel::CriticalSectionSpin lock{Kernel::LockRank::Leaf}; // guards entries
};
}
