/// Where the helpers of parallel jobs come from. Its .cpp is the only file that calls oneTBB.
#pragma once

#include <memory>

namespace Kernel {
class DispatchArena {
public:
    /// @param helperCount  how many tasks may run at once; at least 1.
    explicit DispatchArena(unsigned helperCount);
    DispatchArena(DispatchArena const &) = delete;
    DispatchArena & operator=(DispatchArena const &) = delete;
    /// Does not wait: what was enqueued still runs.
    ~DispatchArena();

    /// Has a thread of the arena call `run`, some time. Nothing is promised on memory order: `run` has to take a lock
    /// before it looks at anything. It must not throw.
    void Enqueue(void (*run)());

private:
    struct Threads;
    std::unique_ptr<Threads> threads;
};
}
