#include "kernel/Abort.h"
#include "kernel/ScopedLock.h"
#include "storage/BitmapCore.h"
#include "storage/ReduceLevel.h"

#include <cmath>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

// What differs by less than this from a whole number is taken for it.
constexpr double tolerance = 0.000001;

template<class Outward>
int RoundOutward(double value, Outward && outward) {
    double const nearest = std::round(value);
    return static_cast<int>(std::abs(value - nearest) < tolerance ? nearest : outward(value));
}

// A rect of the image in pixels of a level: all pixels that it has a part in.
Rect ScaleToLevel(Rect const & rect, int level) {
    double const factor = std::ldexp(1.0, -level);
    auto const down = [](double value) { return std::floor(value); };
    auto const up = [](double value) { return std::ceil(value); };
    return {RoundOutward(rect.left * factor, down), RoundOutward(rect.top * factor, down),
            RoundOutward(rect.right * factor, up), RoundOutward(rect.bottom * factor, up)};
}

std::size_t CountLevels(int width, int height) {
    std::size_t count = 0;
    for (; MipmapTable::HasLevelBelow(width, height); ++count) {
        width = MipmapTable::GetHalf(width);
        height = MipmapTable::GetHalf(height);
    }
    return count;
}
}

void BitmapCore::UpdateMipmaps(int level, bool * abort) const {
    if (mipmapMode == MipmapModeNone || IsPendingDelayLoad())
        return;
    Kernel::ScopedLock guard(mipmapLock, Kernel::LockNesting::FromOuterBitmap);
    CreateMissingLevels();

    // All entries as they are at one instant. A change that is recorded later may be missed by each of the levels, also
    // by one that is built from a level that missed it, so none of them becomes valid then.
    BitmapCore const * source = this;
    for (auto const & [built, entry] : mipmaps.GetLevels()) {
        // With a level asked for, the one after it is brought up to date too.
        if (Kernel::IsAborted(abort) || (level != 0 && built - 1 > level))
            return;
        if (!entry.valid) {
            Rect const bounds = entry.bitmap->GetBounds();
            Rect const rect =
                entry.dirtyRect.IsEmpty() ? bounds : ScaleToLevel(entry.dirtyRect, built).Intersect(bounds);
            ReduceLevel(*entry.bitmap, *source, rect, abort);
            if (Kernel::IsAborted(abort))
                return;
            mipmaps.Publish(built, entry);
        }
        source = entry.bitmap.Get();
    }
}

// There are none after a document whose bitmap had no levels, and none before they are needed.
void BitmapCore::CreateMissingLevels() const {
    if (mipmaps.GetLevels().size() < CountLevels(GetWidth(), GetHeight()))
        mipmaps.AddMissing(MipmapTable::CreateLevels(*this, GetWidth(), GetHeight()));
}

void BitmapCore::AdoptLevelsFrom(BitmapCore const & copy, WritesSeen const & before) const {
    Kernel::ScopedLock guard(mipmapLock, Kernel::LockNesting::FromOuterBitmap);
    auto const levels = mipmaps.GetLevels();
    if (!IsUnwrittenSince(before))
        return;
    for (auto const & [level, entry] : levels) {
        auto const built = copy.mipmaps.GetValid(level);
        if (entry.valid || !built)
            continue;
        entry.bitmap->CopyTilesFrom(*built);
        mipmaps.Publish(level, entry); // unless a change is recorded just now
    }
}
}
