#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/ItemID.h"
#include "kernel/SerialisationStrategy.h"

namespace Kernel {
class DelayLoadHolder;
class FileStoreCompressionHint;
class FileStoreOutPathGenerator;
class SharedObjectReference;
class SharedSerialisable;

/// Where the items of objects that are being saved go. Belongs to one thread, that of the save.
class RASTER_API FileStoreOut : public virtual Countable {
public:
    ~FileStoreOut() override;

    /// In force for everything that is saved into the store, below what a saver pushes on its own serialiser.
    void AddStrategy(Counted<SerialisationStrategy const> strategy);
    SerialisationStrategyStack const & GetStrategies() const noexcept { return strategies; }

    /// Takes the item that the holder stands for, once however often it is asked: its bytes are safe from change when
    /// this returns. What the store has already, unchanged, is kept as it is.
    /// @param path  names the item for people.
    /// @param hint  how to compress it; null stores it raw.
    /// Throws if the item can't be had, and what streams throw.
    virtual ItemID StoreItem(DelayLoadHolder & holder, FileStoreOutPathGenerator const & path,
                             FileStoreCompressionHint const * hint) = 0;
    /// Takes an object that the store keeps once: equal objects are one item.
    virtual ItemID StoreSharedObject(SharedSerialisable const & object) = 0;
    /// Keeps an object that whoever refers to it could not load, as it is. Throws if it can't be kept. By default
    /// nothing is kept but its name.
    virtual ItemID KeepReferredObject(SharedObjectReference const & reference);

protected:
    FileStoreOut() = default;

private:
    SerialisationStrategyStack strategies;
};
}
