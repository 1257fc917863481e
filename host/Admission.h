#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Host {
/// Lets work begin as long as what all of it takes together stays below a limit. Work that is over the limit by itself
/// is let in alone.
class Admission {
public:
    explicit Admission(std::uint64_t limitBytes) : limit(limitBytes) {}
    Admission(Admission const &) = delete;
    Admission & operator=(Admission const &) = delete;

    /// A place among those who work; gives it back.
    class Ticket {
    public:
        /// Waits until there is room. Throws `Interrupted`.
        Ticket(Admission & givenAdmission, std::uint64_t bytes);
        Ticket(Ticket const &) = delete;
        Ticket & operator=(Ticket const &) = delete;
        ~Ticket();

    private:
        Admission & admission;
        std::uint64_t const size;
    };

private:
    std::uint64_t const limit;
    std::mutex lock; // guards `used`
    std::condition_variable freed;
    std::uint64_t used = 0;
};
}
