#pragma once

#include "kernel/Counted.h"

#include <atomic>

namespace Raster {
/// An owning pointer that other threads may look at while its owner replaces it. Looking takes no reference: who
/// follows the pointer must know from elsewhere that the object stays, say by a lock that replacing also takes.
template<class T>
class AtomicCounted {
public:
    AtomicCounted() noexcept = default;
    explicit AtomicCounted(Kernel::Counted<T> object) noexcept : pointer(object.Detach()) {}
    AtomicCounted(AtomicCounted const &) = delete;
    AtomicCounted & operator=(AtomicCounted const &) = delete;
    ~AtomicCounted() { Exchange(nullptr); }

    /// Acquire: pairs with `Exchange` and `SetIfNull`, so the object is seen complete.
    T * Get() const noexcept { return pointer.load(std::memory_order_acquire); }

    /// @return what was held before; letting it go may delete it.
    Kernel::Counted<T> Exchange(Kernel::Counted<T> object) noexcept {
        return Kernel::Counted<T>::Adopt(pointer.exchange(object.Detach(), std::memory_order_acq_rel));
    }

    /// Takes the object unless another thread was first.
    /// @return what is held now.
    T * SetIfNull(Kernel::Counted<T> object) noexcept {
        T * present = nullptr;
        if (pointer.compare_exchange_strong(present, object.Get(), std::memory_order_acq_rel))
            return object.Detach();
        return present;
    }

private:
    std::atomic<T *> pointer{nullptr};
};
}
