/// Keeps the messages that are traced while it lives, and sees to it that none comes under a lock that forbids it.
#pragma once

#include "kernel/LockOrder.h"
#include "kernel/Trace.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Raster {
class TraceCapture {
public:
    /// Files, levels and pending bitmaps send messages under their own lock, as they are told of by a codec.
    enum class Under { NoLock, TheLockOfAModel };

    explicit TraceCapture(Under under = Under::NoLock)
        : sink(Kernel::MakeCounted<Sink>(under == Under::NoLock ? 0u : 1u)) {
        Kernel::SetTraceSink(sink);
    }
    ~TraceCapture() { Kernel::SetTraceSink(nullptr); }
    TraceCapture(TraceCapture const &) = delete;
    TraceCapture & operator=(TraceCapture const &) = delete;

    /// What came since the last call.
    std::vector<std::string> Take() {
        std::lock_guard const guard(sink->mutex);
        return std::exchange(sink->messages, {});
    }

private:
    struct Sink : Kernel::TraceSink {
        explicit Sink(std::size_t lockCount) : mostLocks(lockCount) {}
        void Write(std::string_view message) override {
            EXPECT_LE(Kernel::LockOrder::GetHeldCount(), mostLocks) << message;
            std::lock_guard const guard(mutex);
            messages.emplace_back(message);
        }
        std::size_t const mostLocks;
        std::mutex mutex;
        std::vector<std::string> messages;
    };
    Kernel::Counted<Sink> const sink;
};
}
