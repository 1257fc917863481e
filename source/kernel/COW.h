#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"

namespace Kernel {
/// How `COW<T>` makes objects. Specialise it for a class that is not copied by its copy constructor.
template<class T>
struct COWTraits {
    static Counted<T> Create() { return MakeCounted<T>(); }
    /// A new object equal to `source`, which other threads may be reading meanwhile.
    static Counted<T> Copy(T const & source) { return MakeCounted<T>(source); }
};

/// A copy-on-write owner: copies share one object until one of them asks to write. As large as a pointer, and copied
/// at the cost of one atomic increment.
///
/// Default construction makes a new object; `CreateNull` makes a holder without one, which a write fills. Reading a
/// null holder gives null.
///
/// Threads: one holder belongs to one thread while that thread writes through it; the object may be shared with
/// holders in any thread. A count below 2 is read with acquire order, so that what former holders did to the object
/// before they let go happened before the write.
template<class T>
class COW {
public:
    using Traits = COWTraits<T>;

    COW() : object(Traits::Create()) {}
    COW(std::nullptr_t) noexcept {}
    /// Shares the object with the given owner.
    COW(Counted<T> shared) noexcept : object(std::move(shared)) {}
    COW & operator=(Counted<T> shared) noexcept {
        object = std::move(shared);
        return *this;
    }
    COW & operator=(std::nullptr_t) noexcept {
        object.Reset();
        return *this;
    }

    /// A holder of nothing: no allocation until somebody writes.
    static COW CreateNull() noexcept { return COW(nullptr); }

    /// Never copies and never creates; null for a null holder.
    T const * GetConst() const noexcept { return object.Get(); }
    T const * operator->() const noexcept { return object.Get(); }
    T const & operator*() const noexcept { return *object; }

    /// The object for writing: copied first if anybody else holds it, created first if there is none. If making it
    /// throws, this holder is unchanged.
    T * GetMutable() {
        if (!object)
            object = Traits::Create();
        else if (object->GetCount() >= 2)
            object = Traits::Copy(*object);
        return object.Get();
    }
    T * operator->() { return GetMutable(); }
    T & operator*() { return *GetMutable(); }

    /// Another owner of the present object, which counts as a sharer; null for a null holder.
    Counted<T const> Share() const noexcept { return object; }

    void Reset() noexcept { object.Reset(); }
    explicit operator bool() const noexcept { return static_cast<bool>(object); }
    /// Whether both hold the same object, or both none.
    bool operator==(COW const & other) const noexcept { return object == other.object; }
    bool operator==(std::nullptr_t) const noexcept { return object == nullptr; }

private:
    Counted<T> object;
};
}
