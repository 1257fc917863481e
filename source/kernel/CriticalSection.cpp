#include "kernel/CriticalSection.h"

namespace Kernel {
CriticalSection::CriticalSection(LockRank lockRank) noexcept : rank(lockRank) {}

CriticalSection::~CriticalSection() = default;

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
