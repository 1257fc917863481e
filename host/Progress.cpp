#include "host/Progress.h"

#include "host/Signals.h"
#include "host/Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace Host {
namespace {
constexpr double patienceSeconds = 0.5, intervalSeconds = 0.1;
constexpr int barWidth = 30;
}

Progress::Progress(Messages & progressMessages, std::string what)
    : messages(progressMessages), name(MakePrintable(what)), nextSeconds(patienceSeconds) {}

Progress::~Progress() {
    if (isShown)
        messages.SetStatusLine({});
}

void Progress::BeginStep(double newShare) {
    start += share;
    share = newShare;
    Show(start);
}

Raster::TransferParams Progress::GetParams() {
    Raster::TransferParams params;
    params.abort = Signals::GetAbortFlag();
    params.progress = Report;
    params.progressContext = this;
    return params;
}

void Progress::Report(unsigned, void * context, double fraction) {
    auto & progress = *static_cast<Progress *>(context);
    progress.Show(progress.start + progress.share * fraction);
}

void Progress::Show(double fraction) {
    if (!messages.IsTerminal() || name.empty())
        return;
    double const now = timer.GetSeconds();
    double due = nextSeconds.load();
    // Of threads that come at one time, one shows.
    if (now < due || !nextSeconds.compare_exchange_strong(due, now + intervalSeconds))
        return;
    double const whole = std::clamp(fraction, 0.0, 1.0);
    int const full = static_cast<int>(whole * barWidth);
    isShown = true;
    messages.SetStatusLine(fmt::format("[{:<{}}] {:3.0f}% {}", std::string(static_cast<std::size_t>(full), '#'),
                                       barWidth, whole * 100, name));
}
}
