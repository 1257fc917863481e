#include "kernel/Semaphore.h"

namespace Kernel {
Semaphore::Semaphore(std::uint64_t initialCount) noexcept : count(initialCount) {}

Semaphore::~Semaphore() = default;

void Semaphore::Signal() {
    std::lock_guard const lock(mutex);
    ++count;
    condition.notify_one(); // under the mutex: after it the semaphore may be gone
}

void Semaphore::Wait() {
    std::unique_lock lock(mutex);
    condition.wait(lock, [this] { return count != 0; });
    --count;
}

bool Semaphore::TryWait() {
    std::lock_guard const lock(mutex);
    if (count == 0)
        return false;
    --count;
    return true;
}
}
