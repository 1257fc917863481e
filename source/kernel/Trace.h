#pragma once

#include "kernel/AppendFormat.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"

namespace Kernel {
/// Takes the messages of the library, for developers. Calls come from any thread, several at once, and the tracing code
/// may hold locks of its own: an override is quick and doesn't call pixels or files. What it throws is dropped.
class RASTER_API TraceSink : public Countable {
public:
    ~TraceSink() override;
    /// @param message  one message, with the line end that its author gave it; valid during the call.
    virtual void Write(std::string_view message) = 0;
};

/// Sets where messages go; null, as at the start, drops them. A thread that is tracing at this moment may still write
/// to the old sink, which lives until it has.
RASTER_API void SetTraceSink(Counted<TraceSink> sink) noexcept;
/// Whether there is a sink: for what is too dear to compute for nobody. Costs one relaxed load.
RASTER_API bool IsTracing() noexcept;
/// The untyped core of `Trace`.
RASTER_API void TraceArguments(char const * format, std::span<FormatArgument const> arguments) noexcept;

/// Sends a message, formatted as by `AppendFormatVT`, to the sink. Has no effect on the program's behaviour: it doesn't
/// throw and takes no lock while the sink runs. Without a sink nothing is formatted.
template<class... Arguments>
void Trace(char const * format, Arguments const &... arguments) noexcept {
    if (!IsTracing())
        return;
    if constexpr (sizeof...(Arguments) == 0) {
        TraceArguments(format, {});
    } else {
        FormatArgument const list[] = {FormatArgument(arguments)...};
        TraceArguments(format, list);
    }
}
}
