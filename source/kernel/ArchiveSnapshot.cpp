#include "kernel/ArchiveSnapshot.h"

#include "kernel/ArchiveError.h"
#include "kernel/ArchiveTags.h"
#include "kernel/ItemCodec.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <utility>

namespace Kernel {
using namespace ArchiveLayout;

namespace {
std::vector<std::uint8_t> ReadUpTo(ArchiveFile const & file, std::uint64_t offset, std::uint64_t size) {
    std::vector<std::uint8_t> bytes(size);
    bytes.resize(file.Read(offset, bytes.data(), size));
    return bytes;
}

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
    byID.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        byID.emplace(entries[i].id, i);
        if (entries[i].type == ArchiveTags::stream)
            streams.push_back(i);
    }
    std::stable_sort(streams.begin(), streams.end(),
                     [&](std::size_t a, std::size_t b) { return entries[a].name < entries[b].name; });
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
            if (opened->byID.size() == opened->entries.size()) { // else an id comes twice, and nobody knows what it is
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
    auto const found = byID.find(id);
    return found == byID.end() ? nullptr : &entries[found->second];
}

Entry const * ArchiveSnapshot::FindStream(std::string const & name) const {
    auto const found =
        std::lower_bound(streams.begin(), streams.end(), name,
                         [&](std::size_t i, std::string const & wanted) { return entries[i].name < wanted; });
    return found == streams.end() || entries[*found].name != name ? nullptr : &entries[*found];
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

std::vector<std::uint8_t> ArchiveItemReader::ReadUnchecked(Entry const & entry) const {
    return ReadUpTo(file, entry.offset, entry.headerSize + entry.storedSize);
}

ArchiveItemReader::Stored ArchiveItemReader::ReadStored(Entry const & entry) const {
    auto bytes = ReadUnchecked(entry);
    auto decoded = DecodeHeader(entry, bytes);
    if (bytes.size() != entry.headerSize + entry.storedSize)
        FailDamaged(entry, "the file is too short");
    Stored stored{std::move(decoded), std::move(bytes), {}};
    stored.payload = Bytes(stored.bytes).subspan(entry.headerSize);
    if (Hash64(stored.payload.data(), stored.payload.size()) != stored.header.storedHash)
        FailDamaged(entry, "its bytes do not fit their checksum");
    return stored;
}

std::vector<std::uint8_t> ArchiveItemReader::ReadRaw(Entry const & entry, bool checkRaw) const {
    auto const stored = ReadStored(entry);
    auto raw = ItemCodec::Decode(stored.header.codec, stored.header.sampleBytes, stored.payload, entry.rawSize);
    if (!raw)
        FailDamaged(entry, "its bytes can't be decompressed, or give another size");
    if (checkRaw && GetHash128(raw->data(), raw->size()) != stored.header.rawHash)
        FailDamaged(entry, "its content does not fit its checksum");
    return *std::move(raw);
}
}
