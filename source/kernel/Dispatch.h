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

    using Maker = bool (*)(void * data, std::uint64_t index);

    /// Makes pieces one after another, and uses each while the next one is made. `make(data, i)` runs on the calling
    /// thread for i = 0, 1, ... until it gives false: then there is no piece i, and none behind it. `use(data, i)` runs
    /// once for each piece, in their order and one at a time, on a helper if one is free, else on the calling thread.
    /// `make(data, i)` begins when `use(data, i - depth)` has ended, so that there is room for `depth` pieces, at least
    /// one. Returns when all is done; what either wrote is visible to the other and to the caller. If one throws,
    /// nothing more is begun and the first exception is thrown again here. In line for a thread count of 1.
    static void DispatchPipeline(Maker make, Worker use, void * data, std::uint64_t depth);

    /// The same for anything that can be called with an index.
    template<class Make, class Use>
    static void Pipeline(std::uint64_t depth, Make && make, Use && use) {
        struct Both {
            std::remove_reference_t<Make> & make;
            std::remove_reference_t<Use> & use;
        } both{make, use};
        DispatchPipeline([](void * data, std::uint64_t index) { return bool(static_cast<Both *>(data)->make(index)); },
                         [](void * data, std::uint64_t index) { static_cast<Both *>(data)->use(index); }, &both, depth);
    }

    /// The number of threads that work on one job, the caller included; 0 is one for each processor, as at start. Each
    /// further caller adds its own thread. Takes effect for jobs that start afterwards.
    static void SetThreadCount(unsigned count);
    static unsigned GetThreadCount();
};
}
