#include "storage/DeduplicationPass.h"

#include "storage/DynamicBitmap.h"

namespace Raster {
DeduplicationPass::DeduplicationPass(Kernel::CriticalSection * handleLock) : lock(handleLock) {}

DeduplicationPass::~DeduplicationPass() = default;

void DeduplicationPass::Add(Kernel::Counted<BitmapCore> const & bitmap, bool * abort) {
    if (!bitmap)
        return;
    bitmaps.push_back(bitmap);
    bitmap->Deduplicate(*this, abort);
}

void DeduplicationPass::Add(DynamicBitmap & bitmap, bool * abort) {
    Add(Kernel::Counted<BitmapCore>(bitmap.GetCore()), abort);
}

void DeduplicationPass::BeginReplace() {
    if (lock)
        lock->AcquireLock();
}

void DeduplicationPass::EndReplace() {
    ++replaced;
    if (lock)
        lock->ReleaseLock();
}
}
