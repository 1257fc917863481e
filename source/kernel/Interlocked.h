#pragma once

#include <atomic>
#include <cstdint>

namespace Kernel {
/// An atomic integer that starts at 0, also as the element of an array. 64 bits, so that counts of pixels can't wrap.
/// Every operation is sequentially consistent, but for `AddRelaxed`.
class Interlocked {
public:
    constexpr Interlocked() noexcept = default;
    constexpr explicit Interlocked(std::int64_t initial) noexcept : value(initial) {}
    Interlocked(Interlocked const &) = delete;
    Interlocked & operator=(Interlocked const &) = delete;

    std::int64_t Get() const noexcept { return value.load(); }
    void Set(std::int64_t newValue) noexcept { value.store(newValue); }

    /// These four return the new value.
    std::int64_t Increment() noexcept { return Add(1); }
    std::int64_t Decrement() noexcept { return Subtract(1); }
    std::int64_t Add(std::int64_t amount) noexcept { return value.fetch_add(amount) + amount; }
    std::int64_t Subtract(std::int64_t amount) noexcept { return value.fetch_sub(amount) - amount; }

    /// For tallies that are read only after the threads which count have been joined.
    void AddRelaxed(std::int64_t amount) noexcept { value.fetch_add(amount, std::memory_order_relaxed); }

    /// @return the old value.
    std::int64_t Exchange(std::int64_t newValue) noexcept { return value.exchange(newValue); }
    /// Stores `desired` if the value is `expected`. @return whether it was.
    bool CompareExchange(std::int64_t expected, std::int64_t desired) noexcept {
        return value.compare_exchange_strong(expected, desired);
    }

private:
    std::atomic<std::int64_t> value{0};
};
}
