#pragma once

#include "kernel/DispatchPriority.h"
#include "kernel/Export.h"

#include <cstdint>
#include <memory>
#include <type_traits>

namespace Kernel {
/// Spreads work over threads. The library owns none: helpers are lent by oneTBB, in an arena of the set size.
///
/// The calling thread always takes part, and helpers join as they come free, so a call ends however busy the others
/// are: with no helper free it runs in line. While it waits for the last helpers it sleeps, and never runs anything of
/// another job. So a caller may hold locks, as long as its workers don't need those, and workers may block and may
/// start jobs of their own.
class RASTER_API Dispatch {
public:
    using Worker = void (*)(void * data, std::uint64_t index);

    /// Runs `worker(data, i)` for each i below `count`, in any order, and returns when all have ended. What the workers
    /// wrote is visible to the caller then. If one throws, indices that have not begun are skipped and the first
    /// exception is thrown again here. In line for a count of 1 and for a thread count of 1.
    static void DispatchParallelFor(Worker worker, std::uint64_t count, void * data, DispatchPriority priority);

    /// The same for anything that can be called with an index. It is shared by all threads, not copied.
    template<class Function>
    static void ParallelFor(std::uint64_t count, Function && function,
                            DispatchPriority priority = DispatchPriority::Pixels) {
        using Callable = std::remove_reference_t<Function>;
        auto * const data = const_cast<void *>(static_cast<void const *>(std::addressof(function)));
        DispatchParallelFor([](void * shared, std::uint64_t index) { (*static_cast<Callable *>(shared))(index); },
                            count, data, priority);
    }

    /// The number of threads that work on one job, the caller included; 0 is one for each processor, as at start. Each
    /// further caller adds its own thread. Takes effect for jobs that start afterwards.
    static void SetThreadCount(unsigned count);
    static unsigned GetThreadCount();
};
}
