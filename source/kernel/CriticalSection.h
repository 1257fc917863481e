#pragma once

#include "kernel/Export.h"
#include "kernel/LockOrder.h"

#include <mutex>

namespace Kernel {
/// A re-entrant lock: its thread may enter again, and leaves as often as it entered. Waiters sleep.
/// Every section has a place in the order of locks; `LockRank::None` is for those outside of it.
class RASTER_API CriticalSection {
public:
    explicit CriticalSection(LockRank lockRank = LockRank::None) noexcept;
    CriticalSection(CriticalSection const &) = delete;
    CriticalSection & operator=(CriticalSection const &) = delete;
    ~CriticalSection();

    void AcquireLock(LockNesting nesting = LockNesting::Forbidden);
    /// @return false if another thread is inside. Never breaks the order, since it never waits.
    bool TryAcquireLock();
    void ReleaseLock();

    LockRank GetRank() const noexcept { return rank; }

private:
    std::recursive_mutex mutex;
    LockRank const rank;
};
}
