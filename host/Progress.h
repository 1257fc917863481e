#pragma once

#include "host/Messages.h"
#include "kernel/Timer.h"
#include "pixel/TransferParams.h"

#include <atomic>
#include <string>

namespace Host {
/// How far the work has come, shown on a terminal once it took half a second. Several steps, each with its share of the
/// whole. Threads: `GetParams` and `BeginStep` belong to the one that works; the library reports from any.
class Progress {
public:
    /// @param what  the name of the work, such as that of the file. Empty: nothing is shown.
    Progress(Messages & progressMessages, std::string what);
    Progress(Progress const &) = delete;
    Progress & operator=(Progress const &) = delete;
    ~Progress();

    /// The next `newShare` of the whole, whatever the step before came to. The shares add up to 1.
    void BeginStep(double newShare);
    /// How far the whole has come, 0 to 1.
    void Show(double fraction);
    /// For the library, with the abort flag; valid as long as this.
    Raster::TransferParams GetParams();

private:
    static void Report(unsigned count, void * context, double fraction);

    Messages & messages;
    std::string const name;
    Kernel::Timer timer;
    double start = 0, share = 0; // of the present step
    std::atomic<double> nextSeconds;
    std::atomic<bool> isShown{false};
};
}
