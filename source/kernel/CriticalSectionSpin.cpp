#include "kernel/CriticalSectionSpin.h"

namespace Kernel {
namespace {
/// About a microsecond: longer than any section that should be guarded this way, shorter than a sleep and a wake-up.
constexpr int spinCount = 64;

void Pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}
}

void CriticalSectionSpin::WaitAndAcquire() {
    for (int i = 0; i < spinCount; ++i) {
        std::uint32_t expected = isFree;
        if (state.load(std::memory_order_relaxed) == isFree &&
            state.compare_exchange_weak(expected, isHeld, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        Pause();
    }
    // Who has slept takes the section as one with sleepers, because it can't know whether others sleep too: the price
    // is at most one needless wake-up.
    while (state.exchange(isHeldWithSleepers, std::memory_order_acquire) != isFree)
        state.wait(isHeldWithSleepers, std::memory_order_relaxed);
}

void CriticalSectionSpin::WakeOne() { state.notify_one(); }
}
