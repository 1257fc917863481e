#pragma once

#include "kernel/Export.h"

#include <atomic>
#include <cstdint>

namespace Kernel {
/// Base of everything shared. Born with a count of 0; the first `Counted` that takes it makes that 1, and the last
/// one that lets go deletes it. Derive virtually where a class can reach `Countable` along more than one path.
/// Threads: the count is atomic; the object's own rules hold for the rest.
class RASTER_API Countable {
public:
    Countable() noexcept = default;
    Countable(Countable const &) noexcept {}                            // a copy is another object: it starts at 0
    Countable & operator=(Countable const &) noexcept { return *this; } // and keeps its own count
    virtual ~Countable();

    void Retain() const noexcept { holderCount.fetch_add(1, std::memory_order_relaxed); }

    /// Deletes the object when the count falls to 0. The release half publishes this holder's writes, the acquire half
    /// lets the destructor see those of all others.
    void Release() const noexcept {
        if (holderCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    /// Retains only while somebody else still holds the object: for tables that keep no count of their own.
    /// @return false if the count was 0, the object then being about to go.
    bool RetainIfHeld() const noexcept {
        auto seen = holderCount.load(std::memory_order_relaxed);
        while (seen != 0)
            if (holderCount.compare_exchange_weak(seen, seen + 1, std::memory_order_acquire, std::memory_order_relaxed))
                return true;
        return false;
    }

    /// The number of holders at this moment. Below 2 in the hands of a holder means that nobody else can reach the
    /// object: the acquire pairs with the release of holders that let go.
    std::uint64_t GetCount() const noexcept { return holderCount.load(std::memory_order_acquire); }

private:
    mutable std::atomic<std::uint64_t> holderCount{0};
};
}
