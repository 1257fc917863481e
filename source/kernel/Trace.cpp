#include "kernel/Trace.h"

#include "kernel/CriticalSection.h"
#include "kernel/ScopedLock.h"

namespace Kernel {
namespace {
// The present sink. Never destroyed, since statics of others may trace while they go.
struct Present {
    CriticalSection lock{LockRank::Leaf}; // guards `sink`; never held while a sink runs or goes
    Counted<TraceSink> sink;
    std::atomic<bool> isSet{false}; // a hint for IsTracing; the lock orders the sink itself
};

Present & GetPresent() noexcept {
    static auto & present = *new Present;
    return present;
}

Counted<TraceSink> GetSink() {
    auto & present = GetPresent();
    ScopedLock const guard(present.lock);
    return present.sink;
}
}

TraceSink::~TraceSink() = default;

void SetTraceSink(Counted<TraceSink> sink) noexcept {
    auto & present = GetPresent();
    ScopedLock const guard(present.lock);
    std::swap(present.sink, sink);
    present.isSet.store(static_cast<bool>(present.sink), std::memory_order_relaxed);
} // here the lock goes first and then the old sink, whose destructor may trace

bool IsTracing() noexcept { return GetPresent().isSet.load(std::memory_order_relaxed); }

void TraceArguments(char const * format, std::span<FormatArgument const> arguments) noexcept try {
    auto const sink = GetSink();
    if (!sink)
        return;
    std::string message;
    AppendFormat(message, format, arguments);
    LockOrder::WillCallOut();
    sink->Write(message);
} catch (...) { // a message is never worth a failure
}
}
