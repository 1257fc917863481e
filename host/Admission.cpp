#include "host/Admission.h"

#include "host/Signals.h"

#include <chrono>

namespace Host {
Admission::Ticket::Ticket(Admission & givenAdmission, std::uint64_t bytes) : admission(givenAdmission), size(bytes) {
    constexpr std::chrono::milliseconds patience(20); // a signal wakes nobody here
    std::unique_lock guard(admission.lock);
    auto const hasRoom = [&] {
        return admission.used == 0 || (size <= admission.limit && admission.used <= admission.limit - size);
    };
    while (!admission.freed.wait_for(guard, patience, hasRoom))
        Signals::ThrowIfAborted();
    admission.used += size;
}

Admission::Ticket::~Ticket() {
    {
        std::lock_guard const guard(admission.lock);
        admission.used -= size;
    }
    admission.freed.notify_all();
}
}
