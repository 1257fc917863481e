#pragma once

#include "kernel/Export.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Kernel {
/// A counter that threads can wait on.
class RASTER_API Semaphore {
public:
    explicit Semaphore(std::uint64_t initialCount = 0) noexcept;
    Semaphore(Semaphore const &) = delete;
    Semaphore & operator=(Semaphore const &) = delete;
    ~Semaphore();

    /// Raises the count and wakes one waiter. A waiter may destroy the semaphore as soon as its `Wait` has returned.
    void Signal();
    /// Waits until the count is above 0 and lowers it.
    void Wait();
    /// @return false, without waiting, if the count is 0.
    bool TryWait();

private:
    std::mutex mutex;
    std::condition_variable condition;
    std::uint64_t count; // guarded by mutex
};
}
