#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <utility>

namespace Kernel {
/// A `U *` is a `T *` too.
template<class U, class T>
concept PointsInto = std::convertible_to<U *, T *>;

/// A counting owner of a `Countable`; may be null. As large as a pointer.
/// Threads: one holder belongs to one thread at a time; any number of holders may share an object.
template<class T>
class Counted {
public:
    Counted() noexcept = default;
    Counted(std::nullptr_t) noexcept {}
    Counted(T * object) noexcept : pointer(object) { RetainPointer(); }
    Counted(Counted const & other) noexcept : pointer(other.pointer) { RetainPointer(); }
    Counted(Counted && other) noexcept : pointer(std::exchange(other.pointer, nullptr)) {}
    template<PointsInto<T> U>
    Counted(Counted<U> const & other) noexcept : pointer(other.Get()) {
        RetainPointer();
    }
    template<PointsInto<T> U>
    Counted(Counted<U> && other) noexcept : pointer(other.Detach()) {}
    ~Counted() { ReleasePointer(pointer); }

    /// Retains the new object before it releases the old one, so that an object may replace its own owner.
    Counted & operator=(Counted other) noexcept {
        std::swap(pointer, other.pointer);
        return *this;
    }

    /// Takes over a reference that was counted already, without counting again.
    static Counted Adopt(T * object) noexcept {
        Counted result;
        result.pointer = object;
        return result;
    }
    /// Gives up ownership without releasing: the caller now owes one `Release`.
    T * Detach() noexcept { return std::exchange(pointer, nullptr); }
    void Reset() noexcept { ReleasePointer(std::exchange(pointer, nullptr)); }

    T * Get() const noexcept { return pointer; }
    T * operator->() const noexcept { return pointer; }
    T & operator*() const noexcept { return *pointer; }
    explicit operator bool() const noexcept { return pointer != nullptr; }

    template<class U>
    bool operator==(Counted<U> const & other) const noexcept {
        return pointer == other.Get();
    }
    bool operator==(T const * other) const noexcept { return pointer == other; }
    bool operator==(std::nullptr_t) const noexcept { return pointer == nullptr; }

private:
    void RetainPointer() const noexcept {
        if (pointer)
            pointer->Retain();
    }
    static void ReleasePointer(T * object) noexcept {
        if (object)
            object->Release();
    }

    T * pointer = nullptr;
};

/// Makes an object and its first owner.
template<class T, class... Arguments>
Counted<T> MakeCounted(Arguments &&... arguments) {
    return Counted<T>(new T(std::forward<Arguments>(arguments)...));
}

/// The same object as another type, or null if it isn't one.
template<class T, class U>
Counted<T> DynamicCast(Counted<U> const & object) noexcept {
    return Counted<T>(dynamic_cast<T *>(object.Get()));
}
}

template<class T>
struct std::hash<Kernel::Counted<T>> {
    std::size_t operator()(Kernel::Counted<T> const & object) const noexcept { return std::hash<T *>()(object.Get()); }
};
