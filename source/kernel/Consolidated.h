#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"

namespace Kernel {
/// Base of immutable objects of which equal ones are kept once in the process.
///
/// An object stands in the process-wide table from the moment it wins its consolidation until it is destroyed. The
/// table takes no count, so an object goes with its last owner.
class RASTER_API Consolidatable : public virtual Countable {
public:
    Consolidatable() noexcept = default;
    /// A copy is another object, and not consolidated.
    Consolidatable(Consolidatable const & other) noexcept : Countable(other) {}
    Consolidatable & operator=(Consolidatable const &) noexcept { return *this; }
    ~Consolidatable() override;

    /// Equal objects give equal hashes, and an object gives the same one for ever. Called once per consolidation, with
    /// no lock held.
    virtual std::uint64_t GetConsolidationHash() const = 0;
    /// @param other  an object of the same dynamic type as this one. Called from any thread, with no lock held.
    virtual bool IsEqualTo(Consolidatable const & other) const = 0;
    /// Called once, on the thread that consolidated, when this object has become the one that equal objects share. No
    /// lock is held; other threads may have found the object already. It may consolidate others.
    virtual void OnConsolidated() const {}

    bool IsConsolidated() const noexcept { return consolidated.load(std::memory_order_acquire); }

private:
    friend class ConsolidationTable;

    std::uint64_t tableHash = 0; // under the table's lock: where the table lists this object
    // Set under the table's lock once the object is listed, and never cleared; pairs with IsConsolidated.
    std::atomic<bool> consolidated{false};
};

/// Gives the object of the process that equals the given one: an earlier one if there is any, which drops the one
/// given, else the given one itself. An object that is consolidated already, or null, comes back as it is. If a
/// comparison or `OnConsolidated` throws, so does this; in the second case the object stays listed.
/// Cost: one hash, and one comparison for each listed object of that hash. Safe from any thread.
RASTER_API Counted<Consolidatable const> ConsolidateObject(Counted<Consolidatable> object);

/// An owner of a shared immutable object: equal values share one object, so that equality is equality of pointers. May
/// be null. As large as a pointer. Threads: as `Counted`.
template<class T>
class Consolidated {
public:
    Consolidated() noexcept = default;
    Consolidated(std::nullptr_t) noexcept {}
    /// Consolidates; the object must not be changed afterwards. See `ConsolidateObject`.
    explicit Consolidated(Counted<T> const & candidate) : Consolidated(ConsolidateObjectSacrifice(candidate)) {}

    /// The owner of the object that equals `sacrifice`, which is given up if another one was there before.
    static Consolidated ConsolidateObjectSacrifice(Counted<T> sacrifice) {
        Consolidated result;
        auto const shared = ConsolidateObject(std::move(sacrifice));
        // The table pairs objects of one dynamic type only, so the cast can't fail; a virtual base needs it dynamic.
        result.object = Counted<T const>(dynamic_cast<T const *>(shared.Get()));
        return result;
    }
    /// An owner of an object that is consolidated already, for use in `OnConsolidated`; null for any other object.
    static Consolidated FromConsolidated(T const * consolidatedObject) noexcept {
        Consolidated result;
        if (consolidatedObject && consolidatedObject->IsConsolidated())
            result.object = Counted<T const>(consolidatedObject);
        return result;
    }

    T const * Get() const noexcept { return object.Get(); }
    T const * operator->() const noexcept { return object.Get(); }
    T const & operator*() const noexcept { return *object; }
    explicit operator bool() const noexcept { return static_cast<bool>(object); }
    operator Counted<T const> const &() const noexcept { return object; }
    void Reset() noexcept { object.Reset(); }

    bool operator==(Consolidated const & other) const noexcept { return object == other.object; }
    bool operator==(std::nullptr_t) const noexcept { return object == nullptr; }

private:
    Counted<T const> object;
};
}

template<class T>
struct std::hash<Kernel::Consolidated<T>> {
    std::size_t operator()(Kernel::Consolidated<T> const & object) const noexcept {
        return std::hash<T const *>()(object.Get());
    }
};
