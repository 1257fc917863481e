#include "kernel/DispatchArena.h"

#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/task_arena.h>

#include <optional>

namespace Kernel {
struct DispatchArena::Threads {
    explicit Threads(int helperCount) : arena(helperCount, /*reserved_for_masters=*/0) {
        // oneTBB makes one thread fewer than there are processors unless it is asked for more.
        if (helperCount >= tbb::info::default_concurrency())
            permission.emplace(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(helperCount) + 1);
        arena.initialize();
    }

    std::optional<tbb::global_control> permission;
    tbb::task_arena arena;
};

DispatchArena::DispatchArena(unsigned helperCount)
    : threads(std::make_unique<Threads>(static_cast<int>(helperCount))) {}

DispatchArena::~DispatchArena() = default;

void DispatchArena::Enqueue(void (*run)()) {
    // Isolated, so that a worker which uses oneTBB itself does not pick up another of these tasks while it waits.
    threads->arena.enqueue([run] { tbb::this_task_arena::isolate([run] { run(); }); });
}
}
