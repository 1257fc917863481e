#include "host/Signals.h"

#include "host/Failure.h"
#include "kernel/Abort.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits.h>
#include <sys/time.h>
#include <unistd.h>

namespace Host {
namespace {
// A tenth of a second is what users take for at once; the rest of it is for the end of the process.
constexpr suseconds_t patienceMicroseconds = 50000;

struct Slot {
    std::atomic<bool> isTaken{false};  ///< by an object
    std::atomic<bool> isActive{false}; ///< `path` is whole; pairs with the handler
    char path[PATH_MAX];
};

bool abortFlag = false;
std::atomic<int> firstSignal{0};
std::array<Slot, 64> slots;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// From here to the next empty line runs in signal handlers: only what is safe there.
[[noreturn]] void EndNow() {
    for (auto & slot : slots)
        if (slot.isActive.load(std::memory_order_acquire))
            ::unlink(slot.path);
    _exit(128 + firstSignal.load());
}
extern "C" void HandlePatienceEnd(int) { EndNow(); }
extern "C" void HandleEnd(int signal) {
    int none = 0;
    if (!firstSignal.compare_exchange_strong(none, signal))
        EndNow(); // asked twice
    Kernel::RequestAbort(&abortFlag);
    itimerval patience{};
    patience.it_value.tv_usec = patienceMicroseconds;
    ::setitimer(ITIMER_REAL, &patience, nullptr);
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a read that waits for standard input has to come back.
    ::sigaction(signal, &action, nullptr);
}

bool IsIgnored(int signal) {
    struct sigaction action {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}
}

void Signals::Install() {
    Handle(SIGALRM, HandlePatienceEnd);
    for (int const signal : {SIGHUP, SIGINT, SIGTERM})
        if (!IsIgnored(signal)) // as nohup and background jobs of scripts want it
            Handle(signal, HandleEnd);
    Handle(SIGPIPE, SIG_IGN);
    Handle(SIGXFSZ, SIG_IGN);
}

bool * Signals::GetAbortFlag() { return &abortFlag; }

bool Signals::IsAborted() { return Kernel::IsAborted(&abortFlag); }

void Signals::ThrowIfAborted() {
    if (IsAborted())
        throw Interrupted();
}

int Signals::GetSignal() { return firstSignal.load(); }

UnfinishedFile::UnfinishedFile(std::string const & path) : slot(path.size() < PATH_MAX ? 0 : slots.size()) {
    while (slot < slots.size() && slots[slot].isTaken.exchange(true))
        ++slot;
    if (slot == slots.size())
        return;
    std::memcpy(slots[slot].path, path.c_str(), path.size() + 1);
    slots[slot].isActive.store(true, std::memory_order_release);
}

UnfinishedFile::~UnfinishedFile() {
    if (slot == slots.size())
        return;
    slots[slot].isActive.store(false);
    slots[slot].isTaken.store(false);
}
}
