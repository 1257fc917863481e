#pragma once

#include "kernel/CriticalSectionSpin.h"
#include "kernel/FileStoreItem.h"

#include <atomic>
#include <string>
#include <utility>

namespace Kernel {
class DelayLoadHolder;

/// Where one item lies in a store, and how to get it from there. Immutable.
class RASTER_API FileStoreItemSource : public virtual Countable {
public:
    ~FileStoreItemSource() override;

    /// A new item, marked as stored. Called under the holder's lock, so it sends no messages.
    /// @param why  receives what is wrong if the item can't be had, with its name.
    /// @return null then.
    virtual Counted<FileStoreItem> LoadItem(FileStoreItemType const & type, std::string & why) const = 0;
    /// A holder that stands for this source, and is listed, is being destroyed.
    virtual void ForgetHolder(DelayLoadHolder const & holder) const noexcept;
};

/// Stands for an item of a file store that is loaded when it is first needed. `Create` makes one around an item that
/// is in memory already and has no place in a store yet; a save gives it one.
///
/// The lock guards the item, so that each load happens once. Unlike other spin sections it is held over disk access and
/// decompression: waiters sleep. Its rank lies above that of the eviction list, so a load may evict blocks.
class RASTER_API DelayLoadHolder : public virtual Countable {
public:
    /// A loaded holder. A null item gives a holder whose loads fail.
    static Counted<DelayLoadHolder> Create(FileStoreItemType const & itemType, Counted<FileStoreItem> item);
    /// A holder that has yet to load. A null source gives one whose loads fail.
    static Counted<DelayLoadHolder> CreateFromSource(FileStoreItemType const & itemType,
                                                     Counted<FileStoreItemSource const> itemSource);
    ~DelayLoadHolder() override;

    /// Const, because a reader must be able to load. With these two, a `ScopedLock` can hold the holder itself.
    void AcquireLock(LockNesting nesting = LockNesting::Forbidden) const { holderLock.AcquireLock(nesting); }
    void ReleaseLock() const { holderLock.ReleaseLock(); }

    FileStoreItemType const & GetItemType() const noexcept { return keptType; }

    /// Whether the holder has its item in memory. Needs no lock: the acquire pairs with the release of the load.
    bool IsLoaded() const noexcept { return isLoaded.load(std::memory_order_acquire); }
    /// The item, or null while it isn't loaded. Under the lock.
    Counted<FileStoreItem> const & GetItem() const noexcept { return keptItem; }

    /// Sees to it that the item is loaded, and keeps it. Under the lock. A failed load may be tried again.
    /// @return whether there is an item now.
    virtual bool LoadItemI();

    /// Why the last load failed, for those who trace it once they have released the lock. Under the lock.
    std::string const & GetFailure() const noexcept { return failure; }

    /// Where the item can be loaded from; null if nowhere. Under the lock.
    Counted<FileStoreItemSource const> const & GetSource() const noexcept { return source; }
    /// The item lies there from now on. Under the lock.
    void SetSource(Counted<FileStoreItemSource const> newSource) noexcept;
    /// The same item lies elsewhere in the same store, which finds this holder as before. Under the lock.
    void MoveSource(Counted<FileStoreItemSource const> newSource) noexcept { source = std::move(newSource); }

    /// Whoever makes sources can find this holder by its item from now on, and is to be told when it goes. Before
    /// anybody else has it, or under the lock.
    void MarkAsListed() noexcept { isListed = true; }

    /// Lets go of the item, which others may still hold, if it can be loaded again as it is. Under the lock.
    /// @return false if the item stays: it has no stored form, or has changed since it was stored.
    bool DropItem();
    /// Lets go of an item also if it has changed since it was stored: whoever changed it has it, and stores it as
    /// another one. The next load gives what is stored. Under the lock.
    /// @return false if the item stays: it has no stored form.
    bool AbandonItem();
    /// Loads the item once more as it is stored, beside the one that is kept, which may have changed since. Under the
    /// lock.
    /// @return null if it has no stored form, or can't be loaded.
    Counted<FileStoreItem> LoadStoredItem();
    /// Whether `LoadItemI` can bring the item back once it was dropped.
    virtual bool CanReload() const;

    /// Keeps an item in reach for a scope, loading it if need be. The lock is held for the load only, so that the item
    /// may be decoded meanwhile. In the end the holder lets go of what can be loaded again and is recoverable; anything
    /// else, such as a file with its decoded picture, stays with it.
    class RASTER_API TempLoadItem {
    public:
        /// A null holder gives no item.
        explicit TempLoadItem(DelayLoadHolder * itemHolder);
        explicit TempLoadItem(Counted<DelayLoadHolder> const & itemHolder) : TempLoadItem(itemHolder.Get()) {}
        TempLoadItem(TempLoadItem const &) = delete;
        TempLoadItem & operator=(TempLoadItem const &) = delete;
        ~TempLoadItem();

        /// Null if the load failed.
        FileStoreItem * GetItem() const noexcept { return item.Get(); }
        /// The item as the class that it is expected to be, or null.
        template<class T>
        T * GetItemAs() const noexcept {
            return dynamic_cast<T *>(item.Get());
        }

    private:
        Counted<DelayLoadHolder> holder;
        Counted<FileStoreItem> item;
    };

protected:
    explicit DelayLoadHolder(FileStoreItemType const & type, Counted<FileStoreItem> loadedItem = nullptr) noexcept;

    /// Publishes what `LoadItemI` has loaded. Under the lock.
    void SetItem(Counted<FileStoreItem> loadedItem) noexcept;

private:
    FileStoreItemType const & keptType;
    mutable CriticalSectionSpin holderLock{LockRank::DelayLoadHolder};
    std::atomic<bool> isLoaded;
    Counted<FileStoreItem> keptItem;           // guarded by holderLock
    Counted<FileStoreItemSource const> source; // guarded by holderLock
    std::string failure;                       // guarded by holderLock
    bool isListed = false;                     // guarded by holderLock
};
}
