#include "storage/MipmapTable.h"

#include "kernel/ScopedLock.h"
#include "storage/BitmapCore.h"

#include <algorithm>
#include <utility>

namespace Raster {
MipmapTable::~MipmapTable() = default;

MipmapTable::Levels MipmapTable::CreateLevels(BitmapCore const & bitmap, int width, int height) {
    Levels levels;
    for (int level = 1; HasLevelBelow(width, height); ++level) {
        width = GetHalf(width);
        height = GetHalf(height);
        levels[level].bitmap = bitmap.CreateSame(width, height, MipmapModeNone).release();
    }
    return levels;
}

void MipmapTable::Replace(Levels && levels) {
    Kernel::ScopedLock guard(lock);
    entries.swap(levels); // what was there goes with the caller's map, when the lock is free again
}

void MipmapTable::AddMissing(Levels && levels) {
    Kernel::ScopedLock guard(lock);
    entries.merge(levels); // moves nodes; what it leaves goes with the caller's map
}

MipmapTable::Levels MipmapTable::GetLevels() const {
    Kernel::ScopedLock guard(lock);
    return entries;
}

bool MipmapTable::HasSameChanges(Levels const & levels) const {
    Kernel::ScopedLock guard(lock);
    return std::equal(entries.begin(), entries.end(), levels.begin(), levels.end(), [](auto const & a, auto const & b) {
        return a.first == b.first && a.second.bitmap == b.second.bitmap && a.second.changeCount == b.second.changeCount;
    });
}

MipmapEntry MipmapTable::GetEntry(int level) const {
    Kernel::ScopedLock guard(lock);
    auto const found = entries.find(level);
    return found == entries.end() ? MipmapEntry() : found->second;
}

Kernel::Counted<BitmapCore> MipmapTable::GetValid(int level) const {
    auto const entry = GetEntry(level);
    return entry.valid ? entry.bitmap : nullptr;
}

void MipmapTable::InvalidateAll() {
    Kernel::ScopedLock guard(lock);
    for (auto & [level, entry] : entries) {
        entry.valid = false;
        entry.dirtyRect = {};
        ++entry.changeCount;
    }
}

void MipmapTable::RecordChange(Kernel::RectT<int> const & changed) {
    if (changed.IsEmpty())
        return;
    Kernel::ScopedLock guard(lock);
    for (auto & [level, entry] : entries) {
        ++entry.changeCount;
        if (!entry.valid && entry.dirtyRect.IsEmpty())
            continue; // wholly dirty
        entry.dirtyRect = entry.dirtyRect.Unite(changed);
        entry.valid = false;
    }
}

void MipmapTable::Publish(int level, MipmapEntry const & built) {
    Kernel::ScopedLock guard(lock);
    auto const found = entries.find(level);
    if (found == entries.end() || found->second.bitmap != built.bitmap ||
        found->second.changeCount != built.changeCount)
        return;
    found->second.valid = true;
    found->second.dirtyRect = {};
}

void MipmapTable::DeclareValid(int level) {
    Kernel::ScopedLock guard(lock);
    auto const found = entries.find(level);
    if (found != entries.end()) {
        found->second.valid = true;
        found->second.dirtyRect = {};
    }
}
}
