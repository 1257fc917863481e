#pragma once

#include <chrono>

namespace Kernel {
/// A stopwatch on a clock that never goes back.
class Timer {
public:
    Timer() { Reset(); } ///< Starts.
    void Reset() { start = Clock::now(); }
    /// Since the start or the last reset.
    double GetSeconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start;
};
}
