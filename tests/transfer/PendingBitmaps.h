/// Bitmaps whose pixels are still in a backing, and a backing that does as it is told.
#pragma once

#include "kernel/Abort.h"
#include "storage/TestHolder.h"
#include "transfer/TransferPixels.h"

namespace Raster {
class PendingBitmapTest : public StorageTest {
protected:
    static constexpr int width = 300, height = 280;
    enum class Backing { Readable, Unreadable, AbortsWhileRead };
    static inline Backing backing = Backing::Readable;
    static inline int loads = 0;

    PendingBitmapTest() : loaderBefore(SetBitmapLoader(&Load)) {
        backing = Backing::Readable;
        loads = 0;
    }
    ~PendingBitmapTest() override { SetBitmapLoader(loaderBefore); }

    static Kernel::Counted<RGBA8Bitmap> MakePending(MipmapMode mode = MipmapModeNone) {
        Kernel::Counted<RGBA8Bitmap> bitmap(new RGBA8Bitmap(width, height, mode, HardwareCachePolicy()));
        bitmap->SetPendingBacking(TestHolder::Create());
        return bitmap;
    }
    /// What a pending bitmap is once it is loaded.
    static Kernel::Counted<RGBA8Bitmap> MakePainted(MipmapMode mode = MipmapModeNone) {
        Kernel::Counted<RGBA8Bitmap> bitmap(new RGBA8Bitmap(width, height, mode, HardwareCachePolicy()));
        Paint(*bitmap);
        return bitmap;
    }
    static bool HasNoTiles(BitmapCore const & bitmap) {
        for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane)
            for (std::size_t i = 0; i < bitmap.GetPlane(plane).GetTileCount(); ++i)
                if (bitmap.GetPlane(plane).GetTile(i).IsAllocated())
                    return false;
        return true;
    }

private:
    static bool Load(BitmapCore & bitmap, Kernel::DelayLoadHolder &, bool * abort) {
        ++loads;
        if (backing == Backing::AbortsWhileRead)
            Kernel::RequestAbort(abort);
        if (backing == Backing::Readable)
            Paint(static_cast<RGBA8Bitmap &>(bitmap));
        return backing != Backing::Unreadable;
    }

    BitmapLoader const loaderBefore;
};
}
