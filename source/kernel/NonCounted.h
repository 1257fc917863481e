#pragma once

#include "kernel/Counted.h"

namespace Kernel {
/// A borrowed reference in the shape of `Counted`: it takes no count. Whoever lends the object keeps it alive for as
/// long as the reference is used.
template<class T>
class NonCounted {
public:
    NonCounted() noexcept = default;
    NonCounted(std::nullptr_t) noexcept {}
    NonCounted(T * object) noexcept : pointer(object) {}
    template<class U>
        requires std::convertible_to<U *, T *> NonCounted(NonCounted<U> const & other)
    noexcept : pointer(other.Get()) {}
    template<class U>
        requires std::convertible_to<U *, T *> NonCounted(Counted<U> const & owner)
    noexcept : pointer(owner.Get()) {}

    void Reset() noexcept { pointer = nullptr; }

    T * Get() const noexcept { return pointer; }
    T * operator->() const noexcept { return pointer; }
    T & operator*() const noexcept { return *pointer; }
    explicit operator bool() const noexcept { return pointer != nullptr; }

    /// An owner of the same object: from here on it is counted.
    operator Counted<T>() const noexcept { return Counted<T>(pointer); }

    template<class U>
    bool operator==(NonCounted<U> const & other) const noexcept {
        return pointer == other.Get();
    }
    bool operator==(T const * other) const noexcept { return pointer == other; }
    bool operator==(std::nullptr_t) const noexcept { return pointer == nullptr; }

private:
    T * pointer = nullptr;
};
}

template<class T>
struct std::hash<Kernel::NonCounted<T>> {
    std::size_t operator()(Kernel::NonCounted<T> const & object) const noexcept {
        return std::hash<T *>()(object.Get());
    }
};
