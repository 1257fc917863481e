#include "kernel/Archive.h"

#include "kernel/ArchiveItemSource.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"
#include "kernel/ClassRegistry.h"
#include "kernel/FileStoreItem.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/ScopedLock.h"
#include "kernel/SharedObjectReference.h"
#include "kernel/SharedSerialisable.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Kernel {
namespace {
// The shared objects that this thread is loading: one that is met again within itself has no end.
thread_local std::vector<ItemID> loadingShared;

// Keeps one copy of the bytes: objects that are being loaded may be 64 deep.
// @param hasReferences  receives whether anything in it refers to an item, whatever its header says.
Counted<InSerialiserFile const> ParseItem(ArchiveItemReader const & reader, ArchiveLayout::Entry const & entry,
                                          FileStore & store, int depth, bool & hasReferences) {
    auto const raw = reader.ReadRaw(entry);
    hasReferences = !InSerialiserFile::FindReferences(raw).empty();
    auto const stream = MakeCounted<MemoryInStream>(raw.data(), raw.size());
    return InSerialiserFile::ParseWithChecks(*stream, store, /*acceptFutureVersions=*/false, 0xffff, depth);
}

bool IsBeingLoaded(ItemID id) {
    return std::find(loadingShared.begin(), loadingShared.end(), id) != loadingShared.end();
}

struct LoadingShared {
    explicit LoadingShared(ItemID id) { loadingShared.push_back(id); }
    ~LoadingShared() { loadingShared.pop_back(); }
};
}

/// The holders that load from this document, by item. The table holds no count: a holder takes itself out.
struct Archive::HolderTable {
    // A listed holder may be in its destructor, which waits in ForgetHolder, and the way to a virtual base then changes
    // under the reader: so the base is found once, while the holder is whole.
    struct Listed {
        DelayLoadHolder * holder = nullptr;
        Countable const * counter = nullptr;

        Listed() = default;
        explicit Listed(DelayLoadHolder & listed) : holder(&listed), counter(&listed) {}
        /// Null if it is about to go.
        Counted<DelayLoadHolder> Hold() const {
            return counter && counter->RetainIfHeld() ? Counted<DelayLoadHolder>::Adopt(holder) : nullptr;
        }
    };

    CriticalSectionSpin lock{LockRank::Leaf};
    std::unordered_map<ItemID, Listed> byID;
    // Shared objects that were loaded; null could not be. Null, and one that refers to items and so may hold this
    // archive in the end, by a holder, is kept only while somebody loads: long enough that none is loaded for every
    // path to it.
    std::unordered_map<ItemID, Counted<SharedSerialisable>> shared, sharedWhileLoading;
    std::size_t loading = 0;           // serialisers that read from this archive
    std::unordered_set<ItemID> unread; // shared objects that somebody asked for in vain

    Counted<SharedSerialisable> const * FindShared(ItemID id) const {
        for (auto const * const table : {&shared, &sharedWhileLoading})
            if (auto const found = table->find(id); found != table->end())
                return &found->second;
        return nullptr;
    }
};

ArchiveSessionHandle::ArchiveSessionHandle() noexcept = default;
ArchiveSessionHandle::ArchiveSessionHandle(Counted<ArchiveSession> openSession) noexcept
    : session(std::move(openSession)) {}
ArchiveSessionHandle::ArchiveSessionHandle(ArchiveSessionHandle &&) noexcept = default;
ArchiveSessionHandle & ArchiveSessionHandle::operator=(ArchiveSessionHandle &&) noexcept = default;
ArchiveSessionHandle::~ArchiveSessionHandle() = default;
ArchiveSession * ArchiveSessionHandle::operator->() const noexcept { return session.Get(); }
ArchiveSession & ArchiveSessionHandle::operator*() const noexcept { return *session; }
ArchiveSessionHandle::operator bool() const noexcept { return static_cast<bool>(session); }

Archive::Archive(std::string archivePath, IDTag archiveTag, Counted<ArchiveDisk> archiveDisk,
                 Counted<ArchiveSnapshot const> opened)
    : path(std::move(archivePath)), tag(archiveTag),
      disk(archiveDisk ? std::move(archiveDisk) : ArchiveDisk::GetSystem()), snapshot(std::move(opened)),
      holders(std::make_unique<HolderTable>()) {}

Archive::~Archive() = default;

Archive::CreateResult Archive::Create(std::string path, IDTag archiveTag, Counted<ArchiveDisk> disk) {
    return Counted<Archive>(new Archive(std::move(path), archiveTag, std::move(disk), nullptr));
}

Archive::CreateResult Archive::Open(std::string path, IDTag archiveTag, Counted<ArchiveDisk> disk) {
    if (!disk)
        disk = ArchiveDisk::GetSystem();
    auto const file = disk->OpenToRead(path);
    if (!file)
        throw ArchiveError(ArchiveError::Kind::NotFound, path + ": can't be opened: " + std::strerror(errno));
    auto opened = ArchiveSnapshot::Open(path, file, archiveTag);
    auto const tag = opened->GetHeader().archiveTag;
    return Counted<Archive>(new Archive(std::move(path), tag, std::move(disk), std::move(opened)));
}

Counted<ArchiveSnapshot const> Archive::GetSnapshot() const {
    ScopedLock const guard(snapshotLock);
    return snapshot;
}

// That in which an item lies: the present one, unless only the one before has it. A stream that was opened before a
// save may be parsed after it, and refers to what the save left out.
Counted<ArchiveSnapshot const> Archive::GetSnapshotWith(ItemID id) const {
    Counted<ArchiveSnapshot const> current, before;
    {
        ScopedLock const guard(snapshotLock);
        current = snapshot;
        before = previous;
    }
    return before && !current->Find(id) && before->Find(id) ? before : current;
}

void Archive::SetSnapshot(Counted<ArchiveSnapshot const> committed) {
    ScopedLock const guard(snapshotLock);
    std::swap(snapshot, committed);
    std::swap(previous, committed); // the oldest one goes after the lock
}

ArchiveInfo Archive::GetInfo() const {
    ArchiveInfo info;
    auto const current = GetSnapshot();
    if (!current)
        return info;
    info.fileBytes = current->GetEnd();
    info.commitNumber = current->GetFooter().commitNumber;
    info.deadBytes = current->GetDeadBytes();
    for (auto const & entry : current->GetEntries())
        info.items.push_back({entry.id, entry.type, entry.name, entry.rawSize, entry.storedSize, entry.offset});
    return info;
}

bool Archive::HasStream(std::string const & name) const {
    auto const current = GetSnapshot();
    return current && current->FindStream(name);
}

Counted<InStreamSeekable> Archive::OpenStream(std::string const & name) const {
    auto const current = GetSnapshot();
    auto const * const entry = current ? current->FindStream(name) : nullptr;
    if (!entry)
        return {};
    auto const raw = current->GetReader().ReadRaw(*entry);
    return MakeCounted<DMemoryInStream>(DMemoryInStream::Block::CreateCopy(raw.data(), raw.size()));
}

Counted<DelayLoadHolder> Archive::GetHolder(ItemID id, FileStoreItemType const & type) {
    auto const current = GetSnapshotWith(id);
    auto const * const entry = current ? current->Find(id) : nullptr;
    if (!id || (entry && entry->type != type.GetTag()))
        return {};
    auto made = DelayLoadHolder::CreateFromSource(type, MakeCounted<ArchiveItemSource>(this, current, id));
    made->MarkAsListed();
    Counted<DelayLoadHolder> found; // a holder that isn't taken goes after the lock, since it asks for the lock itself
    {
        ScopedLock const guard(holders->lock);
        auto & place = holders->byID[id];
        found = place.Hold();
        if (!found)
            place = HolderTable::Listed(*made);
    }
    if (!found)
        return made;
    return &found->GetItemType() == &type ? found : Counted<DelayLoadHolder>();
}

void Archive::ForgetHolder(ItemID id, DelayLoadHolder const & holder) const noexcept {
    ScopedLock const guard(holders->lock);
    auto const found = holders->byID.find(id);
    if (found != holders->byID.end() && found->second.holder == &holder)
        holders->byID.erase(found);
}

void Archive::RememberHolder(ItemID id, DelayLoadHolder & holder) {
    holder.MarkAsListed();
    Counted<DelayLoadHolder> present; // goes after the lock, for which it asks
    ScopedLock const guard(holders->lock);
    auto & place = holders->byID[id];
    present = place.Hold();
    if (!present)
        place = HolderTable::Listed(holder);
}

void Archive::MoveHolders() {
    std::vector<std::pair<ItemID, Counted<DelayLoadHolder>>> held;
    {
        ScopedLock const guard(holders->lock);
        held.reserve(holders->byID.size());
        for (auto const & [id, listed] : holders->byID)
            if (auto holder = listed.Hold())
                held.emplace_back(id, std::move(holder));
    }
    auto const current = GetSnapshot();
    for (auto const & [id, holder] : held) {
        if (!current->Find(id))
            continue; // no longer part of the document, but its bytes can still be read where they were
        ScopedLock const guard(*holder);
        holder->MoveSource(MakeCounted<ArchiveItemSource>(this, current, id));
    }
}

Counted<SharedSerialisable> Archive::LoadSharedObject(ItemID id, int depth) {
    bool const isWithinItself = IsBeingLoaded(id);
    auto loaded = FindSharedObject(GetSnapshotWith(id).Get(), id, depth);
    if (!loaded && !isWithinItself) {
        ScopedLock const guard(holders->lock);
        holders->unread.insert(id);
    }
    return loaded;
}

Counted<SharedSerialisable> Archive::LoadReferredObject(ItemID id, int depth, SharedObjectReference & reference) {
    auto const current = GetSnapshotWith(id);
    // What is there and something else is no shared object that got lost.
    auto const * const entry = current ? current->Find(id) : nullptr;
    if (!entry || entry->type == ArchiveTags::sharedObject)
        reference = {id, MakeCounted<ArchiveItemSource>(this, current, id)};
    return FindSharedObject(current.Get(), id, depth);
}

Counted<SharedSerialisable> Archive::FindSharedObject(ArchiveSnapshot const * current, ItemID id, int depth) {
    auto const * const entry = current ? current->Find(id) : nullptr;
    if (!entry || entry->type != ArchiveTags::sharedObject || IsBeingLoaded(id))
        return {};
    {
        ScopedLock const guard(holders->lock);
        if (auto const * const known = holders->FindShared(id))
            return *known;
    }
    bool hasReferences = false;
    auto loaded = ReadSharedObject(*current, *entry, depth, hasReferences);
    ScopedLock const guard(holders->lock);
    if (auto const * const known = holders->FindShared(id))
        return *known; // another thread was faster, or this object was met within itself
    // One that could not be read is tried again, but not for every path that leads to it.
    if (loaded && !hasReferences)
        holders->shared.emplace(id, loaded);
    else if (holders->loading != 0)
        holders->sharedWhileLoading.emplace(id, loaded);
    return loaded;
}

std::vector<ItemID> Archive::GetUnreadObjects() const {
    ScopedLock const guard(holders->lock);
    return {holders->unread.begin(), holders->unread.end()};
}

void Archive::ForgetUnreadObject(ItemID id) {
    ScopedLock const guard(holders->lock);
    holders->unread.erase(id);
}

void Archive::BeginLoading() noexcept {
    ScopedLock const guard(holders->lock);
    ++holders->loading;
}

void Archive::EndLoading() noexcept {
    decltype(holders->sharedWhileLoading) dropped; // after the lock, which their holders ask for
    ScopedLock const guard(holders->lock);
    if (--holders->loading == 0)
        dropped.swap(holders->sharedWhileLoading);
}

Counted<SharedSerialisable> Archive::ReadSharedObject(ArchiveSnapshot const & current,
                                                      ArchiveLayout::Entry const & entry, int depth,
                                                      bool & hasReferences) {
    LoadingShared const loading(entry.id);
    try {
        auto const parsed = ParseItem(current.GetReader(), entry, *this, depth, hasReferences);
        auto const * const properties = ClassRegistry::Find(parsed->GetRootTag());
        auto object = DynamicCast<SharedSerialisable>(properties ? properties->CreateObject() : nullptr);
        if (object && object->Load(*parsed, *this, parsed->GetRootVersion()))
            return object;
        Trace("%1: shared object %2 can't be loaded\n", path.c_str(), entry.name.c_str());
    } catch (std::runtime_error const & error) {
        Trace("%1: shared object %2 can't be loaded: %3\n", path.c_str(), entry.name.c_str(), error.what());
    }
    return {};
}

ArchiveSessionHandle Archive::CreateSession(ArchiveSaveMode mode) {
    return ArchiveSessionHandle(Counted<ArchiveSession>(new ArchiveSession(this, mode)));
}

ArchiveSaveCounts Archive::CloseSession(ArchiveSessionHandle session) {
    session->Commit();
    return {session->itemsAdded, session->bytesWritten};
}
}
