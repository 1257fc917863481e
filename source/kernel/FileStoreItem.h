#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/FileStoreStateObject.h"
#include "kernel/IDTag.h"

namespace Kernel {
class FileStore;
class FileStoreItem;
class FileStoreOut;
class InStream;
class OutStream;

/// Whether items of a type may refer to further items.
enum class ItemNesting : bool { NotNestable, Nestable };
/// Whether an item of a type can be given up for lost without making the document useless.
enum class ItemRecovery : bool { NotRecoverable, Recoverable };

/// What a file store knows of a kind of item. One static record per kind, which lives as long as the process.
class RASTER_API FileStoreItemType {
public:
    using CreateFunction = Counted<FileStoreItem> (*)();

    FileStoreItemType(IDTag itemTag, ItemNesting itemNesting, ItemRecovery itemRecovery,
                      CreateFunction createFunction) noexcept
        : tag(itemTag), nesting(itemNesting), recovery(itemRecovery), create(createFunction) {}
    FileStoreItemType(FileStoreItemType const &) = delete;
    FileStoreItemType & operator=(FileStoreItemType const &) = delete;

    /// Makes the type known under its tag. May be called again. A second type of one tag changes nothing and is traced:
    /// two kinds of items that a file can't tell apart.
    void Init() const;
    /// The type that was made known under a tag; null if none was. Threads: any.
    static FileStoreItemType const * Find(IDTag tag);

    IDTag GetTag() const noexcept { return tag; }
    bool IsNestable() const noexcept { return nesting == ItemNesting::Nestable; }
    bool IsRecoverable() const noexcept { return recovery == ItemRecovery::Recoverable; }
    /// An empty item for the store to fill.
    Counted<FileStoreItem> CreateObject() const;

private:
    IDTag tag;
    ItemNesting nesting;
    ItemRecovery recovery;
    CreateFunction create;
};

/// Base of what a document stores as an item of its own: compressed by itself, and loaded when it is first needed.
class RASTER_API FileStoreItem : public virtual Countable {
public:
    FileStoreItem() noexcept = default;
    /// A copy is another item, and dirty.
    FileStoreItem(FileStoreItem const & other) noexcept : Countable(other) {}
    FileStoreItem & operator=(FileStoreItem const &) = delete;
    ~FileStoreItem() override;

    /// Writes the item. The store may call this from another thread, and long after the save of the object that refers
    /// to the item. Throws `OutStream::WriteException` if the stream takes less than all.
    virtual void Save(OutStream & stream, FileStoreOut & store) const = 0;
    /// Fills an item that was just made. Every byte of the stream may be hostile.
    /// @return false if the item is of no use. Nothing is thrown for bad content.
    virtual bool Load(InStream & stream, FileStore & store) = 0;
    virtual FileStoreItemType const & GetObjectFileStoreItemType() const = 0;

    /// Whether the store's form is up to date. Marking an item dirty does not change what it holds, so this is const.
    FileStoreStateObject & GetState() const noexcept { return storeState; }

private:
    mutable FileStoreStateObject storeState;
};
}
