#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"

namespace Kernel {
/// A counting owner of an object whose count is kept apart from it, in a keeper: another `Countable` that owns or
/// outlives the object. The object itself need not be countable. Made from a `Counted`, the object is its own keeper.
/// As large as two pointers; may be null. Threads: as `Counted`.
template<class T>
class JailCounted {
public:
    JailCounted() noexcept = default;
    JailCounted(std::nullptr_t) noexcept {}
    /// @param object  reached through this owner; may be null.
    /// @param owner   what keeps the object alive; may be null only if the object is null.
    JailCounted(T * object, Counted<Countable const> owner) noexcept : pointer(object), keeper(std::move(owner)) {}
    template<class U>
        requires std::convertible_to<U *, T *> JailCounted(Counted<U> const & owner)
    noexcept : pointer(owner.Get()), keeper(owner) {}
    template<class U>
        requires std::convertible_to<U *, T *> JailCounted(JailCounted<U> const & other)
    noexcept : pointer(other.Get()), keeper(other.GetKeeper()) {}

    JailCounted(JailCounted const &) noexcept = default;
    JailCounted(JailCounted && other) noexcept
        : pointer(std::exchange(other.pointer, nullptr)), keeper(std::move(other.keeper)) {}
    JailCounted & operator=(JailCounted other) noexcept {
        std::swap(pointer, other.pointer);
        std::swap(keeper, other.keeper);
        return *this;
    }
    ~JailCounted() = default;

    void Reset() noexcept {
        pointer = nullptr;
        keeper.Reset();
    }

    T * Get() const noexcept { return pointer; }
    T * operator->() const noexcept { return pointer; }
    T & operator*() const noexcept { return *pointer; }
    explicit operator bool() const noexcept { return pointer != nullptr; }
    Counted<Countable const> const & GetKeeper() const noexcept { return keeper; }

    /// An owner by the object's own count. Null if somebody else keeps the object: then that count rules nothing, and
    /// would delete it in the middle of its keeper.
    operator Counted<T>() const noexcept requires std::convertible_to<T *, Countable const *> {
        return keeper == static_cast<Countable const *>(pointer) ? Counted<T>(pointer) : nullptr;
    }

    template<class U>
    bool operator==(JailCounted<U> const & other) const noexcept {
        return pointer == other.Get();
    }
    bool operator==(T const * other) const noexcept { return pointer == other; }
    bool operator==(std::nullptr_t) const noexcept { return pointer == nullptr; }

private:
    T * pointer = nullptr;
    Counted<Countable const> keeper;
};
}

template<class T>
struct std::hash<Kernel::JailCounted<T>> {
    std::size_t operator()(Kernel::JailCounted<T> const & object) const noexcept {
        return std::hash<T *>()(object.Get());
    }
};
