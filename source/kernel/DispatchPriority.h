#pragma once

namespace Kernel {
/// How urgent a parallel job is. It orders nothing at present: every job runs at once, on the threads that are free.
enum class DispatchPriority : int {
    Background = 0,
    Normal = 1,
    Pixels = 2, ///< Work that somebody waits for to see.
};
}
