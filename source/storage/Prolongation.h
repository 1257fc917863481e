#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/Export.h"
#include "kernel/Semaphore.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Raster {
/// Keeps up to six objects alive until the last of several parties lets go of it, then takes one from each counter and
/// wakes those who wait for that. The counters and semaphores belong to others and must outlive it.
class RASTER_API Prolongation : public Kernel::Countable {
public:
    static constexpr std::size_t EntryCount = 6;

    struct Entry {
        std::atomic<std::uint32_t> * counter = nullptr; ///< Lowered by one at the end; null is skipped.
        Kernel::Semaphore * semaphore = nullptr;        ///< Signalled after that; null is skipped.
        Kernel::Counted<Kernel::Countable> object;      ///< Kept alive.
    };

    explicit Prolongation(std::array<Entry, EntryCount> const & entries);
    ~Prolongation() override;

    /// Nothing is lowered or signalled any more; the objects are kept all the same.
    void MarkAsDone() noexcept { isDone = true; }

private:
    bool isDone = false;
    std::array<std::atomic<std::uint32_t> *, EntryCount> counters;
    std::array<Kernel::Semaphore *, EntryCount> semaphores; // of the counters at the same places
    std::array<Kernel::Counted<Kernel::Countable>, EntryCount> objects;
};
}
