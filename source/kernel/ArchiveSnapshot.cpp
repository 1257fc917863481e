#include "kernel/ArchiveSnapshot.h"

#include "kernel/ArchiveError.h"
#include "kernel/ArchiveTags.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/ItemCodec.h"
#include "kernel/MemoryInStream.h"
#include "kernel/PredictedInStream.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace Kernel {
using namespace ArchiveLayout;

namespace {
std::vector<std::uint8_t> ReadUpTo(ArchiveFile const & file, std::uint64_t offset, std::uint64_t size) {
    std::vector<std::uint8_t> bytes(size);
    bytes.resize(file.Read(offset, bytes.data(), size));
    return bytes;
}

constexpr char const * cantDecompress = "its bytes can't be decompressed, or give another size";

std::string GetTagText(IDTag tag) { return tag.GetText().data(); }

// The index of a commit, from whichever of its two copies is whole.
// @param attempts  counts down with each copy that fits its checksum and holds nonsense, which no damage brings about.
std::optional<std::vector<Entry>> ReadIndex(ArchiveFile const & file, Footer const & footer, int & attempts) {
    for (auto const offset : {footer.indexOffset, footer.GetSecondIndexOffset()}) {
        auto const bytes = ReadUpTo(file, offset, footer.indexSize);
        if (bytes.size() != footer.indexSize || Hash64(bytes.data(), bytes.size()) != footer.indexHash)
            continue;
        if (attempts-- <= 0)
            return {};
        if (auto entries = DecodeIndex(bytes, footer.offset))
            return entries;
    }
    return {};
}
}

ArchiveSnapshot::ArchiveSnapshot(std::string snapshotPath, Counted<ArchiveFile const> openFile,
                                 Header const & itsHeader, Footer const & itsFooter, std::vector<Entry> itsEntries,
                                 std::uint32_t itsNewestFooter)
    : path(std::move(snapshotPath)), file(std::move(openFile)), header(itsHeader), footer(itsFooter),
      newestFooter(std::max(itsNewestFooter, itsFooter.commitNumber)), entries(std::move(itsEntries)) {
    byID.Reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!Find(entries[i].id))
            byID.Add(entries[i].id.commit, entries[i].id.number, i);
        if (entries[i].type == ArchiveTags::stream && !FindStream(entries[i].name))
            streamsByName.Add(Hash64(entries[i].name.data(), entries[i].name.size()), 0, i);
    }
}

std::optional<Footer> ArchiveSnapshot::FindFooter(ArchiveFile const & file, FileID const & id, std::uint64_t end) {
    // Backwards from the end: after a save that was cut off there may be anything behind the last footer. Mostly it is
    // right there, and a file may have any number of them, so the first look is a short one.
    std::uint64_t top = end / footerBytes * footerBytes;
    for (std::uint64_t window = footerBytes; top > headerBytes; window = std::min<std::uint64_t>(window * 4, 1 << 20)) {
        std::uint64_t const bottom = top > headerBytes + window ? top - window : headerBytes;
        auto const bytes = ReadUpTo(file, bottom, top - bottom);
        for (std::uint64_t offset = bytes.size() / footerBytes * footerBytes; offset >= footerBytes;) {
            offset -= footerBytes;
            if (auto footer = Footer::Decode(Bytes(bytes).subspan(offset, footerBytes), id.low, bottom + offset))
                return footer;
        }
        top = bottom;
    }
    return {};
}

std::optional<std::uint64_t> ArchiveSnapshot::FindFooterPlace(ArchiveFile const & file, std::uint64_t end) {
    std::uint64_t const size = file.GetSize().value_or(0);
    std::uint64_t budget = 4 * size + (4 << 20); // a hostile tail could have the same bytes looked at for ever
    constexpr std::uint64_t windowBytes = 1 << 20;
    std::vector<std::uint8_t> window;
    std::uint64_t windowEnd = end;
    for (auto at = end; at + footerBytes <= size; at += footerBytes) {
        if (at >= windowEnd) {
            window = ReadUpTo(file, at, std::min(size - at, windowBytes));
            windowEnd = at + windowBytes;
        }
        auto const offset = std::min<std::uint64_t>(at - (windowEnd - windowBytes), window.size());
        auto const begin = Bytes(window).subspan(offset); // none where the disk gave none
        auto const indexSize = GetIndexSize(begin);
        if (!indexSize || *indexSize > size - at)
            continue;
        auto const cost = *indexSize + std::min(size, GetIndexContentSize(begin));
        if (cost > budget)
            return at; // nothing that a save leaves looks like this
        budget -= cost;
        if (DecodeIndex(ReadUpTo(file, at, *indexSize), at)) {
            // The footer comes after both copies were synced.
            auto const place = Footer::GetOffset(at, *indexSize);
            return place + footerBytes <= size ? std::optional(place) : std::nullopt;
        }
    }
    return {};
}

bool ArchiveSnapshot::IsFollowedByDamage() const {
    if (newestFooter > footer.commitNumber)
        return true; // its lists of contents are damaged
    auto const place = FindFooterPlace(*file, GetEnd());
    if (!place)
        return false;
    // Zeros are what a power cut leaves of a footer that was never synced.
    auto const bytes = ReadUpTo(*file, *place, footerBytes);
    return std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
}

Counted<ArchiveSnapshot const> ArchiveSnapshot::Open(std::string const & path, Counted<ArchiveFile const> file,
                                                     IDTag archiveTag) {
    auto const header = Header::Decode(ReadUpTo(*file, 0, headerBytes));
    if (!header)
        throw ArchiveError(ArchiveError::Kind::NotArchive, path + ": not a document, or its first bytes are damaged");
    if (header->version > containerVersion)
        throw ArchiveError(ArchiveError::Kind::Future, path + ": written by a later version of this program");
    if (archiveTag != IDTag() && header->archiveTag != archiveTag)
        throw ArchiveError(ArchiveError::Kind::NotArchive,
                           path + ": a document of another kind, " + GetTagText(header->archiveTag));
    auto const size = file->GetSize();
    std::uint32_t newest = 0;
    int attempts = 16; // each may cost as much memory as the file is long
    for (auto end = size.value_or(0); auto const footer = FindFooter(*file, header->fileID, end);) {
        newest = std::max(newest, footer->commitNumber);
        if (auto entries = ReadIndex(*file, *footer, attempts)) {
            auto opened = MakeCounted<ArchiveSnapshot>(path, file, *header, *footer, std::move(*entries), newest);
            if (opened->byID.GetCount() ==
                opened->entries.size()) { // else an id comes twice, and nobody knows what it is
                if (opened->GetEnd() < size.value_or(0))
                    Trace("%1: behind the last save that is whole there is more, of one that was cut off or damaged "
                          "since\n",
                          path.c_str());
                return opened;
            }
        }
        // Neither copy of the index is whole: take the commit before. Looking further on than there would be of no use,
        // and would let a hostile file have the same bytes checked for many footers.
        end = footer->previous == 0 ? 0 : footer->previous + footerBytes;
    }
    throw ArchiveError(ArchiveError::Kind::Damaged, path + ": no list of contents in it is whole");
}

Entry const * ArchiveSnapshot::Find(ItemID id) const {
    auto const found = byID.Find(id.commit, id.number, [&](std::size_t i) { return entries[i].id == id; });
    return found ? &entries[*found] : nullptr;
}

Entry const * ArchiveSnapshot::FindStream(std::string const & name) const {
    auto const found =
        streamsByName.Find(Hash64(name.data(), name.size()), 0, [&](std::size_t i) { return entries[i].name == name; });
    return found ? &entries[*found] : nullptr;
}

// Entries stand in the order of the file: whatever lies between them belongs to nobody.
std::uint64_t ArchiveSnapshot::GetDeadBytes() const {
    std::uint64_t bytes = 0, end = headerBytes;
    for (auto const & entry : entries) {
        bytes += entry.offset - std::min(end, entry.offset);
        end = AlignUp(entry.GetEnd(), itemAlignment);
    }
    return bytes + footer.indexOffset - std::min(AlignUp(end, footerBytes), footer.indexOffset);
}

void ArchiveItemReader::FailDamaged(Entry const & entry, char const * what) const {
    throw ArchiveError(ArchiveError::Kind::Damaged, path + ": item " + entry.name + " of type " +
                                                        GetTagText(entry.type) + " at " + std::to_string(entry.offset) +
                                                        " is damaged: " + what);
}

// The header that the bytes begin with, which must be that of the entry.
ItemHeader ArchiveItemReader::DecodeHeader(Entry const & entry, Bytes bytes) const {
    auto decoded = ItemHeader::Decode(bytes);
    if (!decoded || decoded->GetEncodedSize() != entry.headerSize)
        FailDamaged(entry, "its header does not fit its checksum");
    if (decoded->id != entry.id || decoded->type != entry.type || decoded->rawSize != entry.rawSize ||
        decoded->storedSize != entry.storedSize || decoded->rawHash.low != entry.rawHash || decoded->name != entry.name)
        FailDamaged(entry, "its header is that of another item");
    return *std::move(decoded);
}

ItemHeader ArchiveItemReader::ReadHeader(Entry const & entry) const {
    return DecodeHeader(entry, ReadUpTo(file, entry.offset, entry.headerSize));
}

std::vector<ItemID> ArchiveItemReader::FindReferences(Entry const & entry, Bytes raw) {
    if (entry.type != ArchiveTags::stream && entry.type != ArchiveTags::sharedObject)
        return {};
    try {
        auto references = InSerialiserFile::FindReferences(raw);
        std::erase(references, ItemID());
        return references;
    } catch (PropertyStreamError const &) { // a program may store what it likes
    } catch (FutureVersionException const &) {
    }
    return {};
}

std::vector<std::uint8_t> ArchiveItemReader::ReadUnchecked(Entry const & entry) const {
    return ReadUpTo(file, entry.offset, entry.headerSize + entry.storedSize);
}

ArchiveItemReader::Stored ArchiveItemReader::ReadStored(Entry const & entry) const {
    auto bytes = ReadUnchecked(entry);
    auto checked = CheckStored(entry, bytes);
    Stored stored{std::move(checked), std::move(bytes), {}};
    stored.payload = Bytes(stored.bytes).subspan(entry.headerSize);
    return stored;
}

// Header and payload as they were read, fewer if the file has no more.
ItemHeader ArchiveItemReader::CheckStored(Entry const & entry, Bytes bytes) const {
    auto decoded = DecodeHeader(entry, bytes);
    if (bytes.size() != entry.headerSize + entry.storedSize)
        FailDamaged(entry, "the file is too short");
    auto const payload = bytes.subspan(entry.headerSize);
    if (Hash64(payload.data(), payload.size()) != decoded.storedHash)
        FailDamaged(entry, "its bytes do not fit their checksum");
    return decoded;
}

namespace {
// Of a tile on its way: as it is stored, and decompressed. Each thread keeps one for the next tile, since taking and
// clearing so much would cost as much as the checksum. An item that loads another while it is loaded takes a new one.
struct TileBuffers {
    static constexpr std::size_t storedBytes = ItemCodec::blockBytes + 4096;
    std::uint8_t stored[storedBytes], decompressed[ItemCodec::blockBytes];
};

class TakenBuffers {
public:
    TakenBuffers() : buffers(std::move(kept)) {
        if (!buffers)
            buffers.reset(new TileBuffers);
    }
    ~TakenBuffers() { kept = std::move(buffers); }
    TileBuffers * operator->() const { return buffers.get(); }

private:
    static thread_local std::unique_ptr<TileBuffers> kept;
    std::unique_ptr<TileBuffers> buffers;
};
thread_local std::unique_ptr<TileBuffers> TakenBuffers::kept;
}

void ArchiveItemReader::UseRawI(Entry const & entry, void * data, void (*use)(void *, InStreamSeekable &)) const {
    auto const size = entry.headerSize + entry.storedSize;
    if (entry.rawSize == ItemCodec::blockBytes && size <= TileBuffers::storedBytes) {
        TakenBuffers const buffers;
        Bytes const bytes(buffers->stored, file.Read(entry.offset, buffers->stored, size));
        auto const checked = CheckStored(entry, bytes);
        auto const payload = bytes.subspan(entry.headerSize);
        if (checked.codec == Codec::Raw && checked.sampleBytes == 0 && payload.size() == ItemCodec::blockBytes)
            return use(data, *MakeCounted<MemoryInStream>(payload.data(), payload.size()));
        if (ItemCodec::IsCompressedBlock(checked.codec, checked.sampleBytes, entry.rawSize)) {
            if (!ItemCodec::DecompressBlock(payload, buffers->decompressed))
                FailDamaged(entry, cantDecompress);
            if (checked.sampleBytes != 0)
                return use(data, *MakeCounted<PredictedInStream>(buffers->decompressed, checked.sampleBytes));
            return use(data, *MakeCounted<MemoryInStream>(buffers->decompressed, ItemCodec::blockBytes));
        }
    }
    auto const raw = ReadRaw(entry);
    use(data, *MakeCounted<MemoryInStream>(raw.data(), raw.size()));
}

std::vector<std::uint8_t> ArchiveItemReader::ReadRaw(Entry const & entry, bool checkRaw) const {
    auto const stored = ReadStored(entry);
    auto raw = ItemCodec::Decode(stored.header.codec, stored.header.sampleBytes, stored.payload, entry.rawSize);
    if (!raw)
        FailDamaged(entry, cantDecompress);
    if (checkRaw && GetHash128(raw->data(), raw->size()) != stored.header.rawHash)
        FailDamaged(entry, "its content does not fit its checksum");
    return *std::move(raw);
}
}
