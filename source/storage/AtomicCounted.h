#pragma once

#include "kernel/Counted.h"

#include <atomic>

namespace Raster {
/// An owning pointer that other threads may look at while it is replaced. Looking takes no reference: who follows the
/// pointer must know from elsewhere that the object stays, say by a lock that replacing also takes.
template<class T>
class AtomicCounted {
public:
    AtomicCounted() noexcept = default;
    explicit AtomicCounted(Kernel::Counted<T> object) noexcept : pointer(object.Detach()) {}
    AtomicCounted(AtomicCounted const &) = delete;
    AtomicCounted & operator=(AtomicCounted const &) = delete;
    ~AtomicCounted() { Exchange(nullptr); }

    /// Acquire: pairs with `Exchange`, so the object is seen complete.
    T * Get() const noexcept { return pointer.load(std::memory_order_acquire); }

    /// For an owner of nothing that no other thread sees yet: `Exchange` at no cost.
    void Init(Kernel::Counted<T> object) noexcept { pointer.store(object.Detach(), std::memory_order_relaxed); }

    /// One thread at a time may replace.
    /// @return what was held before; letting it go may delete it.
    Kernel::Counted<T> Exchange(Kernel::Counted<T> object) noexcept {
        auto const before = pointer.load(std::memory_order_relaxed);
        pointer.store(object.Detach(), std::memory_order_release);
        return Kernel::Counted<T>::Adopt(before);
    }

private:
    std::atomic<T *> pointer{nullptr};
};
}
