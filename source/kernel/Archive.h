#pragma once

#include "kernel/ArchiveDisk.h"
#include "kernel/ArchiveError.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/FileStore.h"
#include "kernel/IDTag.h"
#include "kernel/InStream.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Kernel {
class ArchiveSession;
class ArchiveSnapshot;

/// What a save is to do.
enum class ArchiveSaveMode {
    Update,  ///< append what is new; where most of the file is dead, write it anew
    Compact, ///< write the file anew, without what nothing refers to
};

/// One item in a document, for those who list it.
struct ArchiveItemInfo {
    ItemID id;
    IDTag type;
    std::string name;
    std::uint64_t rawSize, storedSize; ///< of its bytes, and as it is compressed
    std::uint64_t offset;              ///< in the file
};

struct ArchiveInfo {
    std::vector<ArchiveItemInfo> items; ///< in the order of the file
    std::uint64_t fileBytes = 0;
    std::uint64_t deadBytes = 0; ///< of items that no longer belong to the document, and of older lists of contents
    std::uint32_t commitNumber = 0;
};

/// What a save came to.
struct ArchiveSaveCounts {
    std::uint64_t itemsAdded = 0;   ///< that the document did not have
    std::uint64_t bytesWritten = 0; ///< to the file, the list of contents included
};

/// A save in progress. Giving it up without `Archive::CloseSession` leaves the document as it was.
class RASTER_API ArchiveSessionHandle {
public:
    ArchiveSessionHandle() noexcept;
    explicit ArchiveSessionHandle(Counted<ArchiveSession> openSession) noexcept;
    ArchiveSessionHandle(ArchiveSessionHandle &&) noexcept;
    ArchiveSessionHandle & operator=(ArchiveSessionHandle &&) noexcept;
    ~ArchiveSessionHandle();

    ArchiveSession * operator->() const noexcept;
    ArchiveSession & operator*() const noexcept;
    explicit operator bool() const noexcept;

private:
    Counted<ArchiveSession> session;
};

/// A document on disk: named streams, and items that they refer to, each loaded when somebody needs it. A save appends
/// what has changed and commits it in one step, so that a crash at any instant leaves the old document or the new one.
/// Threads: any number may read and load; one saves.
class RASTER_API Archive final : public FileStore {
public:
    using CreateResult = Counted<Archive>; ///< what makes or opens a document gives it, never null

    /// A document that is not on disk until its first save has been committed. What lies at the path when
    /// that begins is replaced then; what somebody else has put there since stays, and the save fails as `Changed`.
    /// @param disk  null is the system's.
    static CreateResult Create(std::string path, IDTag archiveTag, Counted<ArchiveDisk> disk = nullptr);
    /// Opens a document in its last whole state. Reads its list of contents and no item. Throws `ArchiveError`.
    /// @param archiveTag  the kind of document that is expected; no tag takes any.
    static CreateResult Open(std::string path, IDTag archiveTag, Counted<ArchiveDisk> disk = nullptr);
    ~Archive() override;

    std::string const & GetPath() const { return path; }
    IDTag GetArchiveTag() const { return tag; }
    ArchiveInfo GetInfo() const;
    bool HasStream(std::string const & name) const;
    /// A stream over the bytes that were stored under the name; null if there are none. Throws `ArchiveError` if they
    /// are damaged.
    Counted<InStreamSeekable> OpenStream(std::string const & name) const;

    /// The holder of an item that is not there, or is damaged, is one whose loads fail.
    Counted<DelayLoadHolder> GetHolder(ItemID id, FileStoreItemType const & type) override;
    Counted<SharedSerialisable> LoadSharedObject(ItemID id, int depth) override;
    Counted<SharedSerialisable> LoadReferredObject(ItemID id, int depth, SharedObjectReference & reference) override;
    void BeginLoading() noexcept override;
    void EndLoading() noexcept override;

    /// Begins a save, which keeps other savers out. Throws `ArchiveError`, of the kind `Changed` if somebody else has
    /// saved the document since it was opened.
    ArchiveSessionHandle CreateSession(ArchiveSaveMode mode = ArchiveSaveMode::Update);
    /// Commits. On success the items that were stored are no longer dirty, unless they were changed meanwhile, and can
    /// be loaded from here; items of this document that the save left out are no longer part of it.
    /// Throws `ArchiveError`; `Unknown` says that the disk did not confirm the last step. Save again then.
    ArchiveSaveCounts CloseSession(ArchiveSessionHandle session);

private:
    friend class ArchiveSession;
    friend class ArchiveItemSource;
    struct HolderTable;

    Archive(std::string archivePath, IDTag archiveTag, Counted<ArchiveDisk> archiveDisk,
            Counted<ArchiveSnapshot const> opened);

    Counted<ArchiveSnapshot const> GetSnapshot() const;
    Counted<ArchiveSnapshot const> GetSnapshotWith(ItemID id) const;
    Counted<SharedSerialisable> FindSharedObject(ArchiveSnapshot const * current, ItemID id, int depth);
    Counted<SharedSerialisable> ReadSharedObject(ArchiveSnapshot const & current, ArchiveLayout::Entry const & entry,
                                                 int depth, bool & hasReferences);
    void SetSnapshot(Counted<ArchiveSnapshot const> committed);
    /// Has all holders of the table load from the present snapshot's file, if their items are in it.
    void MoveHolders();
    /// Shared objects that whoever refers to them could not load, and has no reference to: it would not save them
    /// again.
    std::vector<ItemID> GetUnreadObjects() const;
    void ForgetUnreadObject(ItemID id);
    void ForgetHolder(ItemID id, DelayLoadHolder const & holder) const noexcept;
    void RememberHolder(ItemID id, DelayLoadHolder & holder);

    std::string const path;
    IDTag const tag;
    Counted<ArchiveDisk> const disk;
    mutable CriticalSectionSpin snapshotLock{LockRank::Leaf};
    Counted<ArchiveSnapshot const> snapshot; // guarded by snapshotLock; null before the first save
    Counted<ArchiveSnapshot const> previous; // guarded by snapshotLock; the one before the last save of this archive
    std::unique_ptr<HolderTable> const holders;
    std::atomic<std::uint32_t> unconfirmedCommit{0}; // of the last save whose last sync failed
    std::atomic<bool> isBestAppendedTo{false};       // to write it anew came to nothing
    std::atomic<bool> isNameUnconfirmed{false};      // the last save's, whose file took the place of another one
};
}
