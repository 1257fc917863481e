#include "kernel/ArchiveSession.h"

#include "kernel/ArchiveItemSource.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"
#include "kernel/Dispatch.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/ItemCodec.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/PropertyStream.h"
#include "kernel/ScopedLock.h"
#include "kernel/SharedObjectReference.h"
#include "kernel/SharedSerialisable.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace Kernel {
using namespace ArchiveLayout;

namespace {
constexpr std::uint64_t batchBytes = 16 << 20;
constexpr std::uint64_t leastDeadBytes = 16 << 20; // below that a file is never written anew
constexpr std::uint32_t lastNumber = 0xffffffff;   // of a commit
constexpr int mostOfOneHash = 8; // of different content with one hash there is more only in a file that was made so
constexpr FileStoreCompressionHintGeneral const * noHint = nullptr;

// Of streams and shared objects: small, and read whenever the document is opened.
FileStoreCompressionHintGeneral GetStreamHint() { return FileStoreCompressionHintGeneral(3); }

std::uint64_t GetRandom() {
    std::uint64_t number = 0;
    while (number == 0)
        if (getrandom(&number, sizeof number, 0) != sizeof number)
            throw ArchiveError(ArchiveError::Kind::WriteFailed, "the system gives no random numbers");
    return number;
}

[[noreturn]] void Fail(ArchiveError::Kind kind, std::string const & path, char const * what) {
    throw ArchiveError(kind, path + ": " + what);
}

[[noreturn]] void FailOccupied(std::string const & path) {
    Fail(ArchiveError::Kind::Changed, path, "another program has saved a file there; nothing was saved");
}

[[noreturn]] void FailWrite(std::string const & path, char const * what) {
    std::string const reason = errno != 0 ? std::string(": ") + std::strerror(errno) : std::string();
    throw ArchiveError(ArchiveError::Kind::WriteFailed, path + ": " + what + reason + "; nothing was saved");
}
}

ArchiveSession::ArchiveSession(Counted<Archive> sessionArchive, ArchiveSaveMode mode)
    : archive(std::move(sessionArchive)), base(archive->GetSnapshot()), commitID(GetRandom()) {
    auto const dead = base ? base->GetDeadBytes() : 0;
    bool const isMostlyDead = dead > leastDeadBytes && dead > base->GetEnd() / 2;
    bool const hasNumbersLeft = GetLastNumber() != lastNumber; // a new file counts from 1 again
    // A file whose name the disk did not confirm gets it anew: what is appended to it would go with it.
    bool const hasName = !archive->isNameUnconfirmed;
    bool const canUpdate = base && mode == ArchiveSaveMode::Update && hasNumbersLeft && hasName;
    isOwnWish = canUpdate && isMostlyDead && !archive->isBestAppendedTo;
    isUpdate = canUpdate && !isOwnWish;
    if (base) {
        auto const count = base->GetEntries().size();
        entries.reserve(count);
        entryByID.Reserve(count);
        hashes.reserve(count);
        itemByHash.Reserve(count);
        for (auto const & entry : base->GetEntries())
            RememberHash(entry.rawHash, entry.id);
    }
    try {
        isOwnWish ? OpenAnewOrForUpdate() : isUpdate ? OpenForUpdate() : OpenAnew();
    } catch (...) {
        Undo();
        throw;
    }
}

ArchiveSession::~ArchiveSession() {
    for (auto const & each : taken) // of a save that failed: its bytes go
        each.item->GetState().MarkAsTaken(0);
    Undo();
}

// Of the latest commit that is known of.
std::uint32_t ArchiveSession::GetLastNumber() const {
    return std::max(base ? base->GetNewestFooter() : 0, archive->unconfirmedCommit.load());
}

namespace {
bool HasFooter(ArchiveFile const & file, Footer const & footer) {
    std::array<std::uint8_t, footerBytes> bytes{};
    return file.Read(footer.offset, bytes.data(), bytes.size()) == bytes.size() && bytes == footer.Encode();
}
}

/// The document's file, locked and found to be as it was when it was opened.
Counted<ArchiveFile> ArchiveSession::LockBase() const {
    auto const & path = archive->GetPath();
    auto const opened = archive->disk->OpenToUpdate(path);
    if (!opened)
        FailWrite(path, "can't be opened to be saved");
    if (!opened->Lock())
        Fail(ArchiveError::Kind::Busy, path, "another program is saving it");
    std::array<std::uint8_t, headerBytes> bytes{};
    auto const itsHeader =
        opened->Read(0, bytes.data(), bytes.size()) == bytes.size() ? Header::Decode(bytes) : std::nullopt;
    auto const size = opened->GetSize();
    bool isSame = opened->IsAt(path) && itsHeader && itsHeader->fileID == base->GetHeader().fileID && size;
    isSame = isSame && HasFooter(*opened, base->GetFooter());
    if (isSame) {
        // A footer behind the one that was read is another program's save, unless it is known: its list of contents was
        // damaged when this document was opened, or it is our own that the disk did not confirm. Then it is cut off,
        // with the rest of what is behind the last whole state.
        auto const footer = ArchiveSnapshot::FindFooter(*opened, itsHeader->fileID, *size);
        isSame = footer && footer->commitNumber <= GetLastNumber() && footer->offset >= base->GetFooter().offset;
    }
    if (!isSame)
        Fail(ArchiveError::Kind::Changed, path, "changed by another program since it was opened; nothing was saved");
    return opened;
}

void ArchiveSession::OpenForUpdate() {
    file = LockBase();
    header = base->GetHeader();
    isOpen = true;
}

// Before the first byte is written. A save that could not begin never does: it has no place to write to.
void ArchiveSession::Begin() {
    if (refusal)
        std::rethrow_exception(refusal);
    if (!base || std::exchange(hasBegun, true))
        return;
    try {
        FindStart();
    } catch (...) {
        refusal = std::current_exception();
        throw;
    }
}

// Now that it is known what to do with damage.
void ArchiveSession::FindStart() {
    // Our own last save, if the disk did not confirm it, is what is saved now.
    bool const isBeforeDamage = archive->unconfirmedCommit <= base->GetNewestFooter() && base->IsFollowedByDamage();
    if (isBeforeDamage && !keepsDamaged)
        Fail(ArchiveError::Kind::Damaged, archive->GetPath(),
             "its last save is damaged, and what is whole of that would be lost by another one; nothing was saved");
    if (!isUpdate)
        return;
    auto const size = file->GetSize();
    if (!size)
        FailWrite(archive->GetPath(), "its size can't be had");
    start = isBeforeDamage ? *size : base->GetEnd();
    position = AlignUp(start, footerBytes);
    // Synced before anything is written there: a footer that was cut off must not come back over it.
    if (*size != start && !(file->Truncate(start) && file->Sync()))
        FailWrite(archive->GetPath(), "what an earlier save left unfinished can't be removed");
}

/// What lies where a new document is to be, locked; null if that is nothing, and then nothing is to be replaced.
Counted<ArchiveFile> ArchiveSession::LockTarget() {
    auto const & path = archive->GetPath();
    auto const opened = archive->disk->OpenToUpdate(path);
    if (!opened) {
        if (errno != ENOENT) // a file that may not be written, a folder, a pipe: nothing that a document takes away
            FailWrite(path, "can't be opened to be replaced");
        target = ArchiveTarget::OnlyFree;
        return {};
    }
    if (!opened->Lock())
        Fail(ArchiveError::Kind::Busy, path, "another program is saving it");
    if (!opened->IsAt(path)) // who held the lock has put another one there
        FailOccupied(path);
    return opened;
}

void ArchiveSession::OpenAnew() {
    // A document that is replaced by another one is kept from others too, so that no save of theirs is lost unseen.
    locked = base ? LockBase() : LockTarget();
    file = archive->disk->CreateBeside(archive->GetPath(), temporaryPath);
    if (!file)
        FailWrite(archive->GetPath(), "no file can be made beside it");
    isOpen = true;
    header = Header{containerVersion, archive->GetArchiveTag(), {GetRandom(), GetRandom()}};
    auto const bytes = header.Encode();
    Append({bytes.begin(), bytes.end()});
}

// Where no file can be made beside it, or has no room there, a document can still be saved.
void ArchiveSession::OpenAnewOrForUpdate() {
    try {
        OpenAnew();
        auto const room = file->GetFreeBytes();
        if (!room || *room >= base->GetEnd() - base->GetDeadBytes() + batchBytes)
            return;
    } catch (ArchiveError const & error) {
        if (error.GetKind() != ArchiveError::Kind::WriteFailed)
            throw;
    }
    Undo();
    locked.Reset(); // whose lock is taken again
    isOwnWish = false;
    isUpdate = true;
    position = bytesWritten = 0;
    OpenForUpdate();
}

void ArchiveSession::Undo() noexcept {
    if (!std::exchange(isOpen, false))
        return;
    if (isOwnWish && hasBegun)
        archive->isBestAppendedTo = true;
    if (!isUpdate)
        archive->disk->Remove(temporaryPath);
    else if (start != 0)
        file->Truncate(start);
    file.Reset();
    locked.Reset();
}

void ArchiveSession::Append(std::vector<std::uint8_t> const & bytes) {
    errno = 0;
    if (!file->Write(position, bytes.data(), bytes.size()))
        FailWrite(archive->GetPath(), "writing failed");
    position += bytes.size();
    bytesWritten += bytes.size();
}

// A stream that is being written learns what it refers to.
ItemID ArchiveSession::Refer(ItemID id) {
    if (!references.empty())
        references.back().push_back(id);
    return id;
}

// What the stream that is complete refers to, each item once, in the order in which they came.
std::vector<ItemID> ArchiveSession::TakeReferences() {
    auto const all = std::move(references.back());
    references.pop_back();
    std::vector<ItemID> once;
    once.reserve(all.size());
    PositionTable seen;
    seen.Reserve(all.size());
    for (auto const & id : all)
        if (!seen.Find(id.commit, id.number, [&](std::size_t i) { return once[i] == id; })) {
            seen.Add(id.commit, id.number, once.size());
            once.push_back(id);
        }
    if (once.size() > mostReferences)
        Fail(ArchiveError::Kind::WriteFailed, archive->GetPath(), "one object of it refers to more than 2^24 others");
    return once;
}

template<class Write>
ItemID ArchiveSession::AddNestable(IDTag type, std::string const & name, Write const & write) {
    auto const stream = MakeCounted<MemoryOutStream>();
    references.emplace_back();
    try {
        write(*stream);
    } catch (...) {
        references.pop_back();
        throw;
    }
    Pending item;
    item.header.type = type;
    item.header.name = name.substr(0, longestName);
    item.header.references = TakeReferences();
    if (type == ArchiveTags::stream)
        KeepUnread(name, item.header.references);
    item.raw = stream->TakeData();
    item.hint = GetStreamHint();
    return AddItem(std::move(item));
}

// A document has one stream of a name.
void ArchiveSession::TakeStreamName(std::string const & name) {
    if (name.size() > longestName)
        throw std::length_error("the name of a stream is longer than 4096 bytes");
    if (!streamNames.insert(name).second)
        throw std::invalid_argument("a stream is stored twice in one save: " + name);
}

void ArchiveSession::StoreStream(std::string const & name, void const * bytes, std::uint64_t size) {
    TakeStreamName(name);
    AddNestable(ArchiveTags::stream, name, [&](OutStream & stream) { stream.WriteAll(bytes, size); });
}

void ArchiveSession::StoreObject(std::string const & name, Serialisable const & object) {
    auto const & properties = object.GetObjectClassProperties();
    StoreProperties(name, properties.GetClassUID(), properties.GetSchemaVersion(),
                    [&](OutSerialiser & serialiser) { object.Save(serialiser); });
}

void ArchiveSession::StoreProperties(std::string const & name, IDTag rootTag, unsigned short version,
                                     std::function<void(OutSerialiser &)> const & save) {
    TakeStreamName(name);
    AddNestable(ArchiveTags::stream, name, [&](OutStream & stream) {
        OutSerialiserFile serialiser(stream, *this, rootTag, version);
        save(serialiser);
        serialiser.Close();
    });
}

bool ArchiveSession::KeepStream(std::string const & name) {
    auto const * const entry = base ? base->FindStream(name) : nullptr;
    if (!entry)
        return false;
    TakeStreamName(name);
    KeepItem(*base, entry->id);
    return true;
}

void ArchiveSession::KeepEverything(ArchiveSnapshot const & source) {
    for (auto const & entry : source.GetEntries())
        KeepItem(source, entry.id);
}

// One that is stored again within itself has no end.
void ArchiveSession::CheckDepth() const {
    if (references.size() >= std::size_t(PropertyStream::deepest))
        Fail(ArchiveError::Kind::WriteFailed, archive->GetPath(), "items of it refer to each other too deeply");
}

ItemID ArchiveSession::StoreSharedObject(SharedSerialisable const & object) {
    Counted<SharedSerialisable const> const key(&object);
    auto const found = storedShared.find(key);
    if (found != storedShared.end())
        return Refer(found->second);
    CheckDepth();
    auto const & properties = object.GetObjectClassProperties();
    auto const id = AddNestable(ArchiveTags::sharedObject, "s/" + std::to_string(itemsAdded), [&](OutStream & stream) {
        OutSerialiserFile serialiser(stream, *this, properties.GetClassUID(), properties.GetSchemaVersion());
        object.Save(serialiser);
        serialiser.Close();
    });
    storedShared.emplace(key, id);
    return Refer(id);
}

ItemID ArchiveSession::KeepReferredObject(SharedObjectReference const & reference) {
    auto const id = reference.GetID();
    // An id is the same item wherever it lies: what lies here already is not looked for elsewhere.
    auto const * const entry = base ? base->Find(id) : nullptr;
    if (entry) {
        if (entry->type != ArchiveTags::sharedObject || (!keepsDamaged && !IsWhole(*base->GetFile(), *entry)))
            FailUnread();
        return Refer(KeepItem(*base, id));
    }
    auto const source = DynamicCast<ArchiveItemSource const>(reference.GetSource());
    bool const isWhole = source && source->GetEntry() && IsWhole(source->GetFile(), *source->GetEntry());
    if (!keepsDamaged && !isWhole)
        FailUnread();
    return Refer(source ? KeepSource(*source) : id);
}

bool ArchiveSession::IsWhole(ArchiveFile const & place, Entry const & entry) const {
    try {
        ArchiveItemReader(place, archive->GetPath()).ReadRaw(entry);
        return true;
    } catch (ArchiveError const &) {
        return false;
    }
}

ItemID ArchiveSession::StoreItem(DelayLoadHolder & holder, FileStoreOutPathGenerator const & itemPath,
                                 FileStoreCompressionHint const * hint) {
    auto const address = reinterpret_cast<std::uintptr_t>(&holder);
    auto const found =
        storedHolderByAddress.Find(address, 0, [&](std::size_t i) { return storedHolders[i].address == address; });
    Counted<FileStoreItem> item;
    Counted<ArchiveItemSource const> source;
    {
        ScopedLock const guard(holder);
        source = DynamicCast<ArchiveItemSource const>(holder.GetSource());
        if (source || holder.LoadItemI())
            item = holder.GetItem();
    }
    if (found && storedHolders[*found].holder && !HasChangedSince(storedHolders[*found], item.Get()))
        return Refer(storedHolders[*found].id);
    StoredHolder stored{address, Counted<DelayLoadHolder>(&holder), {}, 0};
    if (source && (!item || item->GetState().CanShare())) {
        stored.id = KeepSource(*source);
    } else if (item) {
        stored.id = TakeItem(holder, *item, itemPath, hint);
        taken.back().stored = found.value_or(storedHolders.size());
        stored.generation = taken.back().generation;
    } else {
        Fail(ArchiveError::Kind::Damaged, archive->GetPath(),
             "an item that belongs into it can't be loaded; nothing was saved");
    }
    auto const id = stored.id;
    if (found) {
        storedHolders[*found] = std::move(stored);
    } else {
        storedHolderByAddress.Add(address, 0, storedHolders.size());
        storedHolders.push_back(std::move(stored));
    }
    return Refer(id);
}

// An object that is stored twice in a save may change in between: each stream has it as it was then.
bool ArchiveSession::HasChangedSince(StoredHolder const & stored, FileStoreItem const * item) {
    if (!item)
        return false;
    auto const & state = item->GetState();
    return stored.generation == 0 ? !state.CanShare() : state.GetDirtyGeneration() != stored.generation;
}

// Whoever stores one object after the other and keeps none is not to find them all in memory in the end. What only this
// session has is of no further use: its bytes have been taken, and nobody is left to load it again.
void ArchiveSession::LetGoOfUnused() {
    if (takenBytes < batchBytes) // so that looking at all of them is done seldom
        return;
    takenBytes = 0;
    std::erase_if(taken, [&](Taken const & each) {
        // The holder is in two lists here, the item in one of them and in the holder.
        bool const isWanted = each.holder->GetCount() > 2 || each.item->GetCount() > 2;
        if (!isWanted)
            storedHolders[each.stored].holder.Reset();
        return !isWanted;
    });
}

// The bytes are taken now; what is written to the item after this keeps it dirty.
ItemID ArchiveSession::TakeItem(DelayLoadHolder & holder, FileStoreItem & item,
                                FileStoreOutPathGenerator const & itemPath, FileStoreCompressionHint const * hint) {
    CheckDepth();
    auto const generation = item.GetState().GetDirtyGeneration();
    auto const stream = MakeCounted<MemoryOutStream>(TakeSpare());
    references.emplace_back();
    try {
        item.Save(*stream, *this);
    } catch (...) {
        references.pop_back();
        throw;
    }
    item.GetState().MarkAsTaken(generation);
    Pending added;
    added.header.type = holder.GetItemType().GetTag();
    added.header.name = itemPath.GetPath(itemsAdded).substr(0, longestName);
    added.header.references = TakeReferences();
    added.raw = stream->TakeData();
    takenBytes += added.raw.size();
    if (hint)
        added.hint.emplace(hint->GetLevel(), hint->GetPredictor(), hint->GetStriping());
    auto const id = AddItem(std::move(added));
    taken.push_back({Counted<DelayLoadHolder>(&holder), Counted<FileStoreItem>(&item), generation, id, 0});
    return id;
}

// An item that lies in a document already, unchanged, with everything that it refers to.
ItemID ArchiveSession::KeepItem(ArchiveSnapshot const & source, ItemID id, Content content) {
    std::vector<ItemID> waiting{id};
    while (!waiting.empty()) {
        auto const next = waiting.back();
        waiting.pop_back();
        if (FindEntry(next))
            continue;
        // An id is the same item wherever it lies: what came from another document once is not copied again.
        auto const * const inBase = isUpdate ? base->Find(next) : nullptr;
        auto const & place = inBase ? *base : source;
        if (auto const * const entry = inBase ? inBase : source.Find(next)) {
            if (next != id && entry->type == ArchiveTags::stream)
                continue; // no reference leads to a stream: an old one would come back beside the new one of its name
            auto const further = GetReferences(place, *entry, next == id ? content : Content::Unknown);
            KeepEntry(*place.GetFile(), place.GetPath(), *entry);
            waiting.insert(waiting.end(), further.begin(), further.end());
        } else if (!keepsDamaged)
            FailMissing(source.GetPath());
    }
    return id;
}

// The same for what a holder stands for, which may have left its document since.
ItemID ArchiveSession::KeepSource(ArchiveItemSource const & source) {
    auto const id = source.GetID();
    if (source.GetSnapshot())
        return KeepItem(*source.GetSnapshot(), id);
    if (FindEntry(id))
        return id;
    if (isUpdate && base->Find(id))
        return KeepItem(*base, id);
    if (source.GetEntry())
        KeepEntry(source.GetFile(), source.GetPath(), *source.GetEntry());
    else if (!keepsDamaged)
        FailMissing(source.GetPath());
    return id;
}

void ArchiveSession::FailMissing(std::string const & path) const {
    Fail(ArchiveError::Kind::Damaged, path, "an item that belongs to the document is missing; nothing was saved");
}

std::vector<ItemID> ArchiveSession::GetReferences(ArchiveSnapshot const & source, Entry const & entry,
                                                  Content content) const {
    std::vector<ItemID> needed;
    auto const reader = source.GetReader();
    try {
        if (entry.HasReferences())
            needed = reader.ReadHeader(entry).references;
    } catch (ArchiveError const &) {
        if (!keepsDamaged)
            throw;
    }
    if (content == Content::Kept || (entry.type != ArchiveTags::stream && entry.type != ArchiveTags::sharedObject))
        return needed;
    // A header that lacks something its content needs is a mistake of whoever wrote it, and no reason to lose that.
    // Mostly both name the same items in the same order.
    std::size_t next = 0;
    auto const listed = needed.size();
    try {
        for (auto const & id : ArchiveItemReader::FindReferences(entry, reader.ReadRaw(entry)))
            if (next < listed && needed[next] == id)
                ++next;
            else if (source.Find(id))
                needed.push_back(id);
    } catch (ArchiveError const &) { // what the header says is all that is known of it
    }
    return needed;
}

void ArchiveSession::KeepEntry(ArchiveFile const & from, std::string const & path, Entry const & entry) {
    if (isUpdate && &from == base->GetFile().Get())
        return AddEntry(entry); // its bytes stay where they are
    ArchiveItemReader const reader(from, path);
    std::vector<std::uint8_t> bytes;
    try {
        bytes = reader.ReadStored(entry).bytes;
    } catch (ArchiveError const &) {
        if (!keepsDamaged)
            throw;
        bytes = reader.ReadUnchecked(entry);
        bytes.resize(entry.headerSize + entry.storedSize);
    }
    Flush(); // what was stored before comes before
    bytes.insert(bytes.begin(), AlignUp(position, itemAlignment) - position, std::uint8_t(0));
    auto copy = entry;
    copy.offset = AlignUp(position, itemAlignment);
    Append(bytes);
    ++itemsAdded;
    AddEntry(std::move(copy));
}

Entry const * ArchiveSession::FindEntry(ItemID id) const {
    auto const found = entryByID.Find(id.commit, id.number, [&](std::size_t i) { return entries[i].id == id; });
    return found ? &entries[*found] : nullptr;
}

void ArchiveSession::AddEntry(Entry entry) {
    if (FindEntry(entry.id))
        return;
    entryByID.Add(entry.id.commit, entry.id.number, entries.size());
    entries.push_back(std::move(entry));
}

void ArchiveSession::RememberHash(std::uint64_t hash, ItemID id) {
    int known = 0;
    if (itemByHash.Find(hash, 0, [&](std::size_t i) { return hashes[i].first == hash && ++known == mostOfOneHash; }))
        return; // nobody would look at it
    itemByHash.Add(hash, 0, hashes.size());
    hashes.emplace_back(hash, id);
}

ItemID ArchiveSession::AddItem(Pending item) {
    item.header.rawSize = item.raw.size();
    item.header.rawHash = GetHash128(item.raw.data(), item.raw.size());
    if (auto const equal = FindEqual(item))
        return *equal;
    auto const id = item.header.id = {commitID, ++itemsAdded};
    RememberHash(item.header.rawHash.low, id);
    pendingBytes += item.raw.size();
    pending.push_back(std::move(item));
    if (pendingBytes >= batchBytes)
        Flush();
    return id;
}

/// An item with the same content, which then is part of the document and stands for this one too.
std::optional<ItemID> ArchiveSession::FindEqual(Pending const & item) {
    auto const hash = item.header.rawHash.low;
    if (item.header.type ==
        ArchiveTags::stream) { // of these, which may be equal but for their names, there may be many
        auto const * const entry = base ? base->FindStream(item.header.name) : nullptr;
        bool const isSame = entry && entry->rawHash == hash && IsEqual(item, entry->id);
        return isSame ? std::optional(KeepItem(*base, entry->id, Content::Kept)) : std::nullopt;
    }
    int attempts = mostOfOneHash;
    auto const found = itemByHash.Find(hash, 0, [&](std::size_t i) {
        return hashes[i].first == hash && attempts-- > 0 && IsEqual(item, hashes[i].second);
    });
    if (!found)
        return {};
    auto const id = hashes[*found].second;
    bool const isHere = FindEntry(id) || FindPending(id);
    return isHere ? id : KeepItem(*base, id);
}

ArchiveSession::Pending const * ArchiveSession::FindPending(ItemID id) const {
    auto const found =
        std::find_if(pending.begin(), pending.end(), [&](Pending const & other) { return other.header.id == id; });
    return found != pending.end() ? &*found : nullptr;
}

namespace {
bool AreSame(std::vector<ItemID> some, std::vector<ItemID> others) {
    if (some == others) // mostly in the same order too
        return true;
    std::sort(some.begin(), some.end());
    std::sort(others.begin(), others.end());
    return some == others;
}
}

// What is equal stands for the item in all that it does: content, and what its header has to stay with it, of which the
// content may say nothing.
bool ArchiveSession::IsEqual(Pending const & item, ItemID other) const {
    if (auto const * const waiting = FindPending(other)) {
        bool const isSameName = item.header.type != ArchiveTags::stream || waiting->header.name == item.header.name;
        return waiting->header.type == item.header.type && isSameName && waiting->raw == item.raw &&
               AreSame(waiting->header.references, item.header.references);
    }
    auto const * const known = FindEntry(other);
    auto const * const entry = known ? known : base ? base->Find(other) : nullptr;
    return entry && IsEqual(item, *entry, known ? *file : *base->GetFile());
}

bool ArchiveSession::IsEqual(Pending const & item, Entry const & entry, ArchiveFile const & place) const {
    bool const isSameName = item.header.type != ArchiveTags::stream || entry.name == item.header.name;
    if (entry.type != item.header.type || entry.rawSize != item.raw.size() || !isSameName)
        return false;
    ArchiveItemReader const reader(place, archive->GetPath());
    try {
        auto const & needed = item.header.references;
        if ((!needed.empty() || entry.HasReferences()) && !AreSame(reader.ReadHeader(entry).references, needed))
            return false;
        return reader.ReadRaw(entry) == item.raw;
    } catch (ArchiveError const &) {
        return false; // a damaged one is no stand-in
    }
}

// Compresses what waits, side by side, and writes it in the order in which it came.
void ArchiveSession::Flush() {
    Begin();
    if (pending.empty())
        return;
    std::vector<ItemCodec::Encoded> encoded(pending.size());
    Dispatch::ParallelFor(pending.size(), [&](std::uint64_t i) { Compress(pending[i], encoded[i]); });
    std::uint64_t most = 0;
    for (auto const & item : pending)
        most += itemAlignment + item.header.GetEncodedSize() + item.header.storedSize;
    batch.clear();
    batch.reserve(most);
    std::vector<Entry> added;
    added.reserve(pending.size());
    for (std::size_t i = 0; i < pending.size(); ++i) {
        batch.resize(AlignUp(position + batch.size(), itemAlignment) - position);
        auto const & itemHeader = pending[i].header;
        added.push_back({itemHeader.id, position + batch.size(), itemHeader.GetEncodedSize(), itemHeader.storedSize,
                         itemHeader.rawSize, itemHeader.rawHash.low, itemHeader.type, itemHeader.name});
        itemHeader.Encode(batch);
        auto const & stored = encoded[i].codec == Codec::Raw ? pending[i].raw : encoded[i].bytes;
        batch.insert(batch.end(), stored.begin(), stored.end());
    }
    Append(batch);
    if (batch.capacity() > 2 * batchBytes) // that of a single large item
        batch = {};
    for (auto & item : pending)
        TakeBack(std::move(item));
    pending.clear();
    pendingBytes = 0;
    for (auto & entry : added)
        AddEntry(std::move(entry));
    LetGoOfUnused();
}

void ArchiveSession::Compress(Pending & item, ItemCodec::Encoded & encoded) const {
    encoded = ItemCodec::Encode(item.raw, item.hint ? &*item.hint : noHint);
    auto const & stored = encoded.codec == Codec::Raw ? item.raw : encoded.bytes;
    item.header.codec = encoded.codec;
    item.header.sampleBytes = encoded.sampleBytes;
    item.header.storedSize = stored.size();
    item.header.storedHash = Hash64(stored.data(), stored.size());
}

// Memory for the bytes of items, which the system would take back after each batch to give it out anew, page by page.
void ArchiveSession::TakeBack(Pending item) {
    if (item.raw.capacity() >= ItemCodec::blockBytes && item.raw.capacity() <= 2 * ItemCodec::blockBytes)
        spare.push_back(std::move(item.raw));
}

std::vector<std::uint8_t> ArchiveSession::TakeSpare() {
    if (spare.empty())
        return {};
    auto memory = std::move(spare.back());
    spare.pop_back();
    return memory;
}

// Whoever loads a shared object that can't be read, and keeps no reference to it, has none then, and so stores none. A
// stream that was stored anew lacks it; where damage is kept its header goes on naming the object.
void ArchiveSession::KeepUnread(std::string const & name, std::vector<ItemID> & stored) {
    auto const unread = archive->GetUnreadObjects();
    auto const * const entry = base && !unread.empty() ? base->FindStream(name) : nullptr;
    if (!entry)
        return;
    auto const contains = [](std::vector<ItemID> const & ids, ItemID id) {
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    };
    for (auto const & id : GetReferences(*base, *entry)) {
        if (!contains(unread, id) || contains(stored, id))
            continue;
        if (!keepsDamaged)
            FailUnread();
        if (base->Find(id))
            stored.push_back(KeepItem(*base, id));
    }
}

// The same for streams that were left out.
void ArchiveSession::KeepUnread() {
    for (auto const & id : archive->GetUnreadObjects()) {
        if (FindEntry(id))
            continue;
        if (!keepsDamaged)
            FailUnread();
        givenUp.push_back(id);
    }
}

void ArchiveSession::FailUnread() const {
    Fail(ArchiveError::Kind::Damaged, archive->GetPath(),
         "an object that it refers to, such as a profile, can't be read; nothing was saved");
}

void ArchiveSession::Commit() {
    Flush();
    KeepUnread();
    std::sort(entries.begin(), entries.end(), [](Entry const & a, Entry const & b) { return a.offset < b.offset; });
    auto const index = EncodeIndex(entries);

    Footer footer;
    footer.fileID = header.fileID.low;
    auto const last = GetLastNumber();
    footer.commitNumber = last == lastNumber ? 1 : last + 1;
    footer.previous = isUpdate ? base->GetFooter().offset : 0;
    footer.indexOffset = AlignUp(position, footerBytes);
    footer.indexSize = index.size();
    footer.indexHash = Hash64(index.data(), index.size());
    footer.offset = Footer::GetOffset(footer.indexOffset, index.size());

    // From here to the footer: zeros, and the index twice.
    std::vector<std::uint8_t> tail(footer.offset - position);
    std::copy(index.begin(), index.end(), tail.begin() + static_cast<std::ptrdiff_t>(footer.indexOffset - position));
    std::copy(index.begin(), index.end(),
              tail.begin() + static_cast<std::ptrdiff_t>(footer.GetSecondIndexOffset() - position));
    Append(tail);
    errno = 0;
    if (!file->Sync())
        FailWrite(archive->GetPath(), "the disk did not take it");
    // Before the last step: behind it nothing may fail, or the next save would take this one for somebody else's.
    auto saved = MakeCounted<ArchiveSnapshot>(archive->GetPath(), isUpdate ? base->GetFile() : file, header, footer,
                                              std::move(entries));
    bool const isConfirmed = CommitFooter(footer);
    archive->SetSnapshot(std::move(saved));
    AfterCommit();
    if (!isConfirmed)
        Fail(ArchiveError::Kind::Unknown, archive->GetPath(),
             "saved, but the disk did not confirm its name: after a power cut the old document may be there. Save "
             "again");
}

/// @return false if the document is the new one, and may be the old one after a power cut.
bool ArchiveSession::CommitFooter(Footer const & footer) {
    auto const & path = archive->GetPath();
    auto const bytes = footer.Encode();
    Append({bytes.begin(), bytes.end()});
    errno = 0;
    bool const isSynced = file->Sync();
    if (isUpdate) {
        isOpen = false; // the footer may be on the disk by now: nothing is cut off any more
        if (!isSynced) {
            archive->unconfirmedCommit = footer.commitNumber;
            Fail(ArchiveError::Kind::Unknown, path,
                 "the disk did not confirm the last step; the document is the old or the new one. Save again");
        }
        file->Unlock();
        return true;
    }
    auto const replaced =
        isSynced ? archive->disk->Replace(*file, temporaryPath, path, target) : ArchiveReplaced::Failed;
    if (replaced == ArchiveReplaced::Occupied)
        FailOccupied(path);
    if (replaced == ArchiveReplaced::Failed)
        FailWrite(path, "it could not be put in the place of the old one");
    isOpen = false;
    archive->unconfirmedCommit = 0; // that was in the old file
    archive->isBestAppendedTo = false;
    archive->isNameUnconfirmed = replaced == ArchiveReplaced::Unconfirmed;
    file->Unlock();
    return replaced == ArchiveReplaced::Done;
}

// Holders whose items were taken load from here from now on.
void ArchiveSession::AfterCommit() {
    if (!isUpdate)
        archive->MoveHolders(); // else what is known of where items lie stays true
    auto const current = archive->GetSnapshot();
    storedHolders.clear();
    storedHolderByAddress.Clear();
    for (auto & [holder, item, generation, id, stored] : taken) {
        Counted<FileStoreItemSource const> before; // goes after the lock: it may be the last that has its document open
        ScopedLock const guard(*holder);
        before = holder->GetSource();
        holder->SetSource(MakeCounted<ArchiveItemSource>(archive, current, id));
        archive->RememberHolder(id, *holder);
        item->GetState().MarkAsStored(generation);
        item.Reset();
        // What nobody but the holder has can be loaded again when it is needed.
        if (holder->GetItemType().IsRecoverable() && holder->GetItem() && holder->GetItem()->GetCount() == 1)
            holder->DropItem();
    }
    taken.clear();
    for (auto const & id : givenUp)
        archive->ForgetUnreadObject(id);
}
}
