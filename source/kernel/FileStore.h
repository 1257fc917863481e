#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/ItemID.h"

namespace Kernel {
class DelayLoadHolder;
class FileStoreItemType;
class SharedObjectReference;
class SharedSerialisable;

/// Where a stream's further items are found when objects are loaded from it.
/// Threads: any number may ask one store.
class RASTER_API FileStore : public virtual Countable {
public:
    ~FileStore() override;

    /// The one holder of the item in this store, whoever asks. It loads nothing.
    /// @return null if the store has no such item, or the item is of another type.
    virtual Counted<DelayLoadHolder> GetHolder(ItemID id, FileStoreItemType const & type) = 0;
    /// Loads an object that the store keeps once. Its class may be any; the caller checks.
    /// @param depth  how many objects and items deep the reference stands.
    /// @return null if there is none, its class is not known, it is damaged, or it lies too deep.
    virtual Counted<SharedSerialisable> LoadSharedObject(ItemID id, int depth) = 0;
    /// The same for whoever goes on naming an object that can't be loaded.
    /// @param reference  receives the name of the object, loaded or not; left alone if there is another kind of item,
    /// and
    ///                   by a store that can't keep what it can't load.
    virtual Counted<SharedSerialisable> LoadReferredObject(ItemID id, int depth, SharedObjectReference & reference);

    // Around the life of a serialiser that loads from the store: while there is one, what it loads more than once may
    // be kept.
    virtual void BeginLoading() noexcept {}
    virtual void EndLoading() noexcept {}
};

/// A store without items, for streams that stand alone.
class RASTER_API EmptyFileStore final : public FileStore {
public:
    Counted<DelayLoadHolder> GetHolder(ItemID id, FileStoreItemType const & type) override;
    Counted<SharedSerialisable> LoadSharedObject(ItemID id, int depth) override;
};
}
