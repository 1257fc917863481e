#pragma once

#include "kernel/SerialisationStrategy.h"

#include <chrono>

namespace Raster {
/// Until when who saves a bitmap waits for those who write it. Once its tiles are shared every new session writes into
/// a copy, so the sessions that a save meets were all open when it began: one limit for all of them.
class WritersDeadline final : public Kernel::SerialisationStrategy {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds longestWait{1000};

    Clock::time_point const end = Clock::now() + longestWait;
};
}
