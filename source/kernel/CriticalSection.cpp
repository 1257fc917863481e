#include "kernel/CriticalSection.h"

namespace Kernel {
CriticalSection::CriticalSection(LockRank lockRank) noexcept : rank(lockRank) {}

CriticalSection::~CriticalSection() {
#ifdef __SANITIZE_THREAD__
    // The standard mutex ends without a call, so that the sanitizer would take the next one at this address for the
    // same and mix up their orders.
    pthread_mutex_destroy(mutex.native_handle());
#endif
}

void CriticalSection::AcquireLock(LockNesting nesting) {
    LockOrder::WillAcquire(this, rank, /*isReentrant=*/true, nesting);
    mutex.lock();
    LockOrder::DidAcquire(this, rank);
}

bool CriticalSection::TryAcquireLock() {
    if (!mutex.try_lock())
        return false;
    LockOrder::DidAcquire(this, rank);
    return true;
}

void CriticalSection::ReleaseLock() {
    LockOrder::WillRelease(this, rank);
    mutex.unlock();
}
}
