#pragma once

#include "kernel/Archive.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreCompressionHint.h"
#include "kernel/FileStoreOut.h"
#include "kernel/PositionTable.h"

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Kernel {
namespace ItemCodec {
struct Encoded;
}
class ArchiveItemSource;
class ArchiveSnapshot;
class OutSerialiser;
class Serialisable;

/// A save of a document in progress. Whatever is to be part of the document afterwards goes through it: named streams
/// and, from within these, items and shared objects. What is unchanged is not written again.
/// Belongs to one thread. Compression runs on the pool.
class RASTER_API ArchiveSession final : public FileStoreOut {
public:
    ~ArchiveSession() override; ///< Without a commit: everything is undone.

    /// Stores bytes under a name, as they are. A name may be used once in a save, and be 4096 bytes long. Throws
    /// `ArchiveError` and what streams throw.
    void StoreStream(std::string const & name, void const * bytes, std::uint64_t size);
    /// Writes an object as the root of a stream of properties, under a name.
    void StoreObject(std::string const & name, Serialisable const & object);
    /// The same for properties that no class stands for.
    void StoreProperties(std::string const & name, IDTag rootTag, unsigned short version,
                         std::function<void(OutSerialiser &)> const & save);
    /// Keeps a stream of the document that is being updated, with all that it refers to, as it is.
    /// @return false if there is none of that name.
    bool KeepStream(std::string const & name);

    /// Keeps every item of another file's state, those that nothing refers to as well.
    void KeepEverything(ArchiveSnapshot const & source);

    /// Damaged items are copied as they are found, and missing ones stay missing, instead of failing the save. Behind a
    /// later state that is damaged the save goes on, where it would fail; to write the file anew removes that state.
    /// Before anything is stored.
    void SetKeepDamaged(bool keepThem) { keepsDamaged = keepThem; }

    ItemID StoreItem(DelayLoadHolder & holder, FileStoreOutPathGenerator const & itemPath,
                     FileStoreCompressionHint const * hint) override;
    ItemID StoreSharedObject(SharedSerialisable const & object) override;
    /// One that is missing or damaged fails the save, unless damage is kept. One whose bytes are whole is kept like any
    /// other: this program may lack its class.
    ItemID KeepReferredObject(SharedObjectReference const & reference) override;

private:
    friend class Archive;
    using Entry = ArchiveLayout::Entry;

    struct Pending { // an item that waits to be compressed
        ArchiveLayout::ItemHeader header;
        std::vector<std::uint8_t> raw;
        std::optional<FileStoreCompressionHintGeneral> hint; // none stores it raw
    };
    struct Taken { // a holder whose item has been stored
        Counted<DelayLoadHolder> holder;
        Counted<FileStoreItem> item;
        std::uint64_t generation;
        ItemID id;
        std::size_t stored; // its position in `storedHolders`
    };
    struct StoredHolder {
        std::uintptr_t address;          // that of `holder`; one that is gone may have given it to the next
        Counted<DelayLoadHolder> holder; // null once nobody else has it
        ItemID id;
        std::uint64_t generation; // of the item when it was taken; 0 if it was kept as it was stored
    };

    ArchiveSession(Counted<Archive> sessionArchive, ArchiveSaveMode mode);

    std::uint32_t GetLastNumber() const;
    Counted<ArchiveFile> LockBase() const;
    Counted<ArchiveFile> LockTarget();
    void OpenForUpdate();
    void OpenAnew();
    void OpenAnewOrForUpdate();
    void Begin();
    void FindStart();
    void CheckDepth() const;
    ItemID Refer(ItemID id);
    std::vector<ItemID> TakeReferences();
    void TakeStreamName(std::string const & name);
    ItemID TakeItem(DelayLoadHolder & holder, FileStoreItem & item, FileStoreOutPathGenerator const & itemPath,
                    FileStoreCompressionHint const * hint);
    static bool HasChangedSince(StoredHolder const & stored, FileStoreItem const * item);
    void LetGoOfUnused();
    enum class Content { Unknown, Kept }; ///< whether all that an item's content refers to has been kept or stored
    ItemID KeepItem(ArchiveSnapshot const & source, ItemID id, Content content = Content::Unknown);
    ItemID KeepSource(ArchiveItemSource const & source);
    void KeepEntry(ArchiveFile const & from, std::string const & path, Entry const & entry);
    [[noreturn]] void FailMissing(std::string const & path) const;
    std::vector<ItemID> GetReferences(ArchiveSnapshot const & source, Entry const & entry,
                                      Content content = Content::Unknown) const;
    template<class Write>
    ItemID AddNestable(IDTag type, std::string const & name, Write const & write);
    ItemID AddItem(Pending item);
    std::optional<ItemID> FindEqual(Pending const & item);
    Pending const * FindPending(ItemID id) const;
    bool IsEqual(Pending const & item, ItemID other) const;
    bool IsEqual(Pending const & item, Entry const & entry, ArchiveFile const & place) const;
    /// Null if it isn't part of the document so far.
    Entry const * FindEntry(ItemID id) const;
    void AddEntry(Entry entry);
    void RememberHash(std::uint64_t hash, ItemID id);
    void Flush();
    void Compress(Pending & item, ItemCodec::Encoded & encoded) const;
    void TakeBack(Pending item);
    std::vector<std::uint8_t> TakeSpare();
    void Append(std::vector<std::uint8_t> const & bytes);
    bool IsWhole(ArchiveFile const & place, Entry const & entry) const;
    void KeepUnread(std::string const & name, std::vector<ItemID> & stored);
    void KeepUnread();
    [[noreturn]] void FailUnread() const;
    void Commit();
    bool CommitFooter(ArchiveLayout::Footer const & footer);
    void Undo() noexcept;
    void AfterCommit();

    Counted<Archive> const archive;
    Counted<ArchiveSnapshot const> const base; // what is updated, or null
    bool isUpdate = false;                     // the base's file grows; otherwise a new one takes its place
    bool isOwnWish = false;                    // to write it anew, though an update was asked for and could be had
    bool isOpen = false;                       // there is something to undo
    bool keepsDamaged = false;
    bool hasBegun = false;
    std::exception_ptr refusal; // why it could not begin
    Counted<ArchiveFile> file;
    Counted<ArchiveFile> locked;               // the file that is replaced, while other savers are kept out of it
    ArchiveTarget target = ArchiveTarget::Any; // of a file that is written anew
    std::string temporaryPath;                 // of a file that is written anew
    ArchiveLayout::Header header;
    std::uint64_t start = 0;    // of an update, where its first bytes go; 0 before there is one
    std::uint64_t position = 0; // where the next bytes go
    std::uint64_t commitID = 0; // the first half of the ids of new items
    std::uint64_t itemsAdded = 0, bytesWritten = 0;
    std::vector<Entry> entries; // everything that belongs to the document so far
    PositionTable entryByID;
    std::vector<std::pair<std::uint64_t, ItemID>> hashes; // of the base's items, and of those that were added
    PositionTable itemByHash;                             // positions in `hashes`
    std::unordered_set<std::string> streamNames;
    std::vector<StoredHolder> storedHolders;
    PositionTable storedHolderByAddress; // one for each address
    std::unordered_map<Counted<SharedSerialisable const>, ItemID> storedShared;
    std::vector<Taken> taken;
    std::uint64_t takenBytes = 0; // since `taken` was looked through
    std::vector<ItemID> givenUp;  // shared objects that could not be read, to which nothing refers any more
    std::vector<Pending> pending;
    std::uint64_t pendingBytes = 0;
    std::vector<std::uint8_t> batch;              // of the last flush, for the memory
    std::vector<std::vector<std::uint8_t>> spare; // memory of items that were written
    std::vector<std::vector<ItemID>> references;  // of the streams that are being written, one in another
};
}
