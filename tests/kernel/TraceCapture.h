/// Keeps the messages that are traced while it lives, and sees to it that none comes under a lock.
#pragma once

#include "kernel/LockOrder.h"
#include "kernel/Trace.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Raster {
class TraceCapture {
public:
    TraceCapture() { Kernel::SetTraceSink(sink); }
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
        void Write(std::string_view message) override {
            EXPECT_EQ(Kernel::LockOrder::GetHeldCount(), 0u) << message;
            std::lock_guard const guard(mutex);
            messages.emplace_back(message);
        }
        std::mutex mutex;
        std::vector<std::string> messages;
    };
    Kernel::Counted<Sink> const sink = Kernel::MakeCounted<Sink>();
};
}
