#pragma once

#include "kernel/Export.h"
#include "kernel/LockOrder.h"

#include <atomic>
#include <cstdint>

namespace Kernel {
/// A small lock for short sections. Not re-entrant. A waiter spins briefly and then sleeps, so that a holder which was
/// descheduled costs no processor time. Never hold one over disk access or other long work, unless the interface of
/// its owner says so.
class RASTER_API CriticalSectionSpin {
public:
    explicit CriticalSectionSpin(LockRank lockRank = LockRank::None) noexcept : rank(lockRank) {}
    CriticalSectionSpin(CriticalSectionSpin const &) = delete;
    CriticalSectionSpin & operator=(CriticalSectionSpin const &) = delete;

    void AcquireLock(LockNesting nesting = LockNesting::Forbidden) {
        LockOrder::WillAcquire(this, rank, /*isReentrant=*/false, nesting);
        std::uint32_t expected = isFree;
        if (!state.compare_exchange_strong(expected, isHeld, std::memory_order_acquire, std::memory_order_relaxed))
            WaitAndAcquire();
        LockOrder::DidAcquire(this, rank);
    }

    /// @return false if the section is held. Never breaks the order, since it never waits.
    bool TryAcquireLock() {
        std::uint32_t expected = isFree;
        if (!state.compare_exchange_strong(expected, isHeld, std::memory_order_acquire, std::memory_order_relaxed))
            return false;
        LockOrder::DidAcquire(this, rank);
        return true;
    }

    void ReleaseLock() {
        LockOrder::WillRelease(this, rank);
        if (state.exchange(isFree) == isHeldWithSleepers)
            WakeOne();
    }

    LockRank GetRank() const noexcept { return rank; }

private:
    static constexpr std::uint32_t isFree = 0, isHeld = 1, isHeldWithSleepers = 2;

    void WaitAndAcquire();
    void WakeOne();

    std::atomic<std::uint32_t> state{isFree};
    LockRank const rank;
};

static_assert(sizeof(CriticalSectionSpin) == 8, "blocks and tiles by the hundred thousand hold these");
}
