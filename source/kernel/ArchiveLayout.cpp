#include "kernel/ArchiveLayout.h"

#include "kernel/PropertyStream.h"

#include <xxhash.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>

namespace Kernel::ArchiveLayout {
using PropertyStream::ReadAt;
using PropertyStream::WriteAt;

namespace {
// The first byte is no text, and line ends show whether a transfer has changed them.
constexpr std::array<std::uint8_t, 8> headerMagic{0x89, 'R', 'D', 'O', 'C', '\r', '\n', 0x1a};
constexpr std::uint32_t itemMagic = 0x6d657449;     // "Item"
constexpr std::uint32_t indexMagic = 0x78646e49;    // "Indx"
constexpr std::uint32_t footerMagic = 0x746f6f46;   // "Foot"
constexpr std::uint64_t entryBytes = 6 * 8 + 3 * 4; // without the name
constexpr std::uint64_t mostEntries = std::uint64_t(1) << 28;
constexpr std::uint64_t mostIndexBytes = std::uint64_t(1) << 32;
constexpr std::size_t headerHashAt = 56, itemHashAt = 80, footerHashAt = 56;

template<class T>
void Put(std::vector<std::uint8_t> & dest, T value) {
    auto const bytes = ToStreamBytes(value);
    dest.insert(dest.end(), bytes.begin(), bytes.end());
}

// Columns instead of rows: equal and rising numbers stand together, which compresses well.
template<class Get>
void PutColumn(std::vector<std::uint8_t> & dest, std::vector<Entry> const & entries, Get const & get) {
    for (auto const & entry : entries)
        Put(dest, get(entry));
}

class ColumnReader {
public:
    explicit ColumnReader(Bytes bytes) : rest(bytes) {}

    template<class T, class Set>
    void Read(std::vector<Entry> & entries, Set const & set) {
        for (auto & entry : entries) {
            set(entry, ReadAt<T>(rest.data()));
            rest = rest.subspan(sizeof(T));
        }
    }
    Bytes GetRest() const { return rest; }

private:
    Bytes rest;
};

// Whether an entry can be what it says it is.
bool IsPlausible(Entry const & entry, std::uint64_t fileSize) {
    return entry.offset % itemAlignment == 0 && entry.offset >= headerBytes && entry.headerSize >= itemHeaderBytes &&
           entry.offset <= fileSize && entry.headerSize <= fileSize - entry.offset &&
           entry.storedSize <= fileSize - entry.offset - entry.headerSize;
}
}

std::uint64_t Hash64(void const * bytes, std::size_t size) { return XXH3_64bits(bytes, size); }

Hash128 GetHash128(void const * bytes, std::size_t size) {
    auto const hash = XXH3_128bits(bytes, size);
    return {hash.low64, hash.high64};
}

std::array<std::uint8_t, headerBytes> Header::Encode() const {
    std::array<std::uint8_t, headerBytes> bytes{};
    std::copy(headerMagic.begin(), headerMagic.end(), bytes.begin());
    WriteAt(bytes.data() + 8, version);
    WriteAt(bytes.data() + 12, archiveTag.GetValue());
    WriteAt(bytes.data() + 16, fileID.low);
    WriteAt(bytes.data() + 24, fileID.high);
    WriteAt(bytes.data() + headerHashAt, Hash64(bytes.data(), headerHashAt));
    return bytes;
}

std::optional<Header> Header::Decode(Bytes bytes) {
    if (bytes.size() < headerBytes || !std::equal(headerMagic.begin(), headerMagic.end(), bytes.begin()) ||
        ReadAt<std::uint64_t>(bytes.data() + headerHashAt) != Hash64(bytes.data(), headerHashAt))
        return {};
    Header header;
    header.version = ReadAt<std::uint32_t>(bytes.data() + 8);
    header.archiveTag = IDTag::FromValue(ReadAt<std::uint32_t>(bytes.data() + 12));
    header.fileID = {ReadAt<std::uint64_t>(bytes.data() + 16), ReadAt<std::uint64_t>(bytes.data() + 24)};
    return header;
}

IDTag GetArchiveTagAsFound(Bytes header) {
    return header.size() < headerBytes ? IDTag() : IDTag::FromValue(ReadAt<std::uint32_t>(header.data() + 12));
}

//   0 magic      4 header size   8 id          24 type         28 codec   30 sample bytes   31 zero
//  32 raw size  40 stored size  48 raw hash   64 stored hash   72 length of the name   76 number of references
//  80 hash of everything in the header but this field          88 zero    96 name, then references
void ItemHeader::Encode(std::vector<std::uint8_t> & dest) const {
    std::size_t const begin = dest.size();
    dest.resize(begin + itemHeaderBytes);
    auto * const fixed = dest.data() + begin;
    WriteAt(fixed, itemMagic);
    WriteAt(fixed + 4, static_cast<std::uint32_t>(GetEncodedSize()));
    WriteAt(fixed + 8, id.commit);
    WriteAt(fixed + 16, id.number);
    WriteAt(fixed + 24, type.GetValue());
    WriteAt(fixed + 28, static_cast<std::uint16_t>(codec));
    fixed[30] = sampleBytes;
    WriteAt(fixed + 32, rawSize);
    WriteAt(fixed + 40, storedSize);
    WriteAt(fixed + 48, rawHash.low);
    WriteAt(fixed + 56, rawHash.high);
    WriteAt(fixed + 64, storedHash);
    WriteAt(fixed + 72, static_cast<std::uint32_t>(name.size()));
    WriteAt(fixed + 76, static_cast<std::uint32_t>(references.size()));
    dest.insert(dest.end(), name.begin(), name.end());
    for (auto const & reference : references) {
        Put(dest, reference.commit);
        Put(dest, reference.number);
    }
    WriteAt(dest.data() + begin + itemHashAt, Hash64(dest.data() + begin, dest.size() - begin));
}

std::optional<std::uint64_t> ItemHeader::GetSize(Bytes begin) {
    if (begin.size() < itemHeaderBytes || ReadAt<std::uint32_t>(begin.data()) != itemMagic)
        return {};
    std::uint64_t const size = ReadAt<std::uint32_t>(begin.data() + 4);
    auto const nameSize = ReadAt<std::uint32_t>(begin.data() + 72), count = ReadAt<std::uint32_t>(begin.data() + 76);
    if (nameSize > longestName || count > mostReferences ||
        size != itemHeaderBytes + nameSize + std::uint64_t(count) * 16)
        return {};
    return size;
}

std::optional<ItemHeader> ItemHeader::Decode(Bytes bytes) {
    auto const size = GetSize(bytes);
    if (!size || bytes.size() < *size)
        return {};
    std::vector<std::uint8_t> copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(*size));
    auto const hash = ReadAt<std::uint64_t>(copy.data() + itemHashAt);
    WriteAt(copy.data() + itemHashAt, std::uint64_t(0));
    if (hash != Hash64(copy.data(), copy.size()))
        return {};
    auto const * const fixed = copy.data();
    ItemHeader header;
    header.id = {ReadAt<std::uint64_t>(fixed + 8), ReadAt<std::uint64_t>(fixed + 16)};
    header.type = IDTag::FromValue(ReadAt<std::uint32_t>(fixed + 24));
    header.codec = static_cast<Codec>(ReadAt<std::uint16_t>(fixed + 28));
    header.sampleBytes = fixed[30];
    header.rawSize = ReadAt<std::uint64_t>(fixed + 32);
    header.storedSize = ReadAt<std::uint64_t>(fixed + 40);
    header.rawHash = {ReadAt<std::uint64_t>(fixed + 48), ReadAt<std::uint64_t>(fixed + 56)};
    header.storedHash = ReadAt<std::uint64_t>(fixed + 64);
    auto const nameSize = ReadAt<std::uint32_t>(fixed + 72), count = ReadAt<std::uint32_t>(fixed + 76);
    header.name.assign(reinterpret_cast<char const *>(fixed + itemHeaderBytes), nameSize);
    for (std::uint32_t i = 0; i < count; ++i) {
        auto const * const reference = fixed + itemHeaderBytes + nameSize + std::size_t(i) * 16;
        header.references.push_back({ReadAt<std::uint64_t>(reference), ReadAt<std::uint64_t>(reference + 8)});
    }
    return header;
}

//  0 magic   4 zero   8 raw size   16 stored size   24 hash of the compressed bytes   32 compressed:
//  number of entries 8, then for all entries each of: id (commit, then number), offset, header size (4), stored size,
//  raw size, raw hash, type (4), length of the name (4); then the names
std::vector<std::uint8_t> EncodeIndex(std::vector<Entry> const & entries) {
    std::vector<std::uint8_t> raw;
    raw.reserve(sizeof(std::uint64_t) + entries.size() * (entryBytes + 8));
    Put(raw, std::uint64_t(entries.size()));
    PutColumn(raw, entries, [](Entry const & entry) { return entry.id.commit; });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.id.number; });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.offset; });
    PutColumn(raw, entries, [](Entry const & entry) { return static_cast<std::uint32_t>(entry.headerSize); });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.storedSize; });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.rawSize; });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.rawHash; });
    PutColumn(raw, entries, [](Entry const & entry) { return entry.type.GetValue(); });
    PutColumn(raw, entries, [](Entry const & entry) { return static_cast<std::uint32_t>(entry.name.size()); });
    for (auto const & entry : entries)
        raw.insert(raw.end(), entry.name.begin(), entry.name.end());

    std::vector<std::uint8_t> block(indexHeaderBytes + ZSTD_compressBound(raw.size()));
    std::size_t const stored =
        ZSTD_compress(block.data() + indexHeaderBytes, block.size() - indexHeaderBytes, raw.data(), raw.size(), 1);
    if (ZSTD_isError(stored))
        throw std::bad_alloc(); // the only reason there is
    block.resize(indexHeaderBytes + stored);
    WriteAt(block.data(), indexMagic);
    WriteAt(block.data() + 4, std::uint32_t(0));
    WriteAt(block.data() + 8, std::uint64_t(raw.size()));
    WriteAt(block.data() + 16, std::uint64_t(stored));
    WriteAt(block.data() + 24, Hash64(block.data() + indexHeaderBytes, stored));
    return block;
}

std::optional<std::uint64_t> GetIndexSize(Bytes begin) {
    if (begin.size() < indexHeaderBytes || ReadAt<std::uint32_t>(begin.data()) != indexMagic)
        return {};
    auto const stored = ReadAt<std::uint64_t>(begin.data() + 16);
    return stored <= mostIndexBytes ? std::optional(indexHeaderBytes + stored) : std::nullopt;
}

std::uint64_t GetIndexContentSize(Bytes begin) {
    return begin.size() < indexHeaderBytes ? 0 : ReadAt<std::uint64_t>(begin.data() + 8);
}

std::optional<std::vector<Entry>> DecodeIndex(Bytes bytes, std::uint64_t fileSize) {
    if (bytes.size() < indexHeaderBytes || ReadAt<std::uint32_t>(bytes.data()) != indexMagic)
        return {};
    auto const rawSize = ReadAt<std::uint64_t>(bytes.data() + 8), storedSize = ReadAt<std::uint64_t>(bytes.data() + 16);
    auto const stored = bytes.subspan(indexHeaderBytes);
    // No entry is without an item, whose header takes more of the file than the entry: that bounds what is allocated.
    static_assert(entryBytes <= itemHeaderBytes);
    std::uint64_t const most = std::min(mostIndexBytes, 8 + fileSize);
    if (storedSize != stored.size() || rawSize < 8 || rawSize > most || !CanGive(storedSize, rawSize) ||
        ReadAt<std::uint64_t>(bytes.data() + 24) != Hash64(stored.data(), stored.size()) ||
        ZSTD_getFrameContentSize(stored.data(), stored.size()) != rawSize)
        return {};
    std::vector<std::uint8_t> raw(rawSize);
    if (ZSTD_decompress(raw.data(), raw.size(), stored.data(), stored.size()) != raw.size())
        return {};
    auto const count = ReadAt<std::uint64_t>(raw.data());
    if (count > mostEntries || count > (raw.size() - 8) / entryBytes)
        return {};
    std::vector<Entry> entries(count);
    ColumnReader reader(Bytes(raw).subspan(8));
    std::vector<std::uint32_t> nameSizes;
    nameSizes.reserve(count);
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.id.commit = value; });
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.id.number = value; });
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.offset = value; });
    reader.Read<std::uint32_t>(entries, [](Entry & entry, auto value) { entry.headerSize = value; });
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.storedSize = value; });
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.rawSize = value; });
    reader.Read<std::uint64_t>(entries, [](Entry & entry, auto value) { entry.rawHash = value; });
    reader.Read<std::uint32_t>(entries, [](Entry & entry, auto value) { entry.type = IDTag::FromValue(value); });
    reader.Read<std::uint32_t>(entries, [&](Entry &, auto value) { nameSizes.push_back(value); });
    auto names = reader.GetRest();
    std::uint64_t end = headerBytes;
    for (std::size_t i = 0; i < count; ++i) {
        if (nameSizes[i] > longestName || nameSizes[i] > names.size() || !IsPlausible(entries[i], fileSize) ||
            entries[i].offset < end || entries[i].headerSize < itemHeaderBytes + nameSizes[i])
            return {};
        end = entries[i].GetEnd();
        entries[i].name.assign(reinterpret_cast<char const *>(names.data()), nameSizes[i]);
        names = names.subspan(nameSizes[i]);
    }
    if (!names.empty())
        return {};
    return entries;
}

//  0 magic   4 commit number   8 file id   16 own offset   24 index offset   32 index size   40 previous footer
// 48 hash of the index         56 hash of these fields
std::array<std::uint8_t, footerBytes> Footer::Encode() const {
    std::array<std::uint8_t, footerBytes> bytes{};
    WriteAt(bytes.data(), footerMagic);
    WriteAt(bytes.data() + 4, commitNumber);
    WriteAt(bytes.data() + 8, fileID);
    WriteAt(bytes.data() + 16, offset);
    WriteAt(bytes.data() + 24, indexOffset);
    WriteAt(bytes.data() + 32, indexSize);
    WriteAt(bytes.data() + 40, previous);
    WriteAt(bytes.data() + 48, indexHash);
    WriteAt(bytes.data() + footerHashAt, Hash64(bytes.data(), footerHashAt));
    return bytes;
}

std::optional<Footer> Footer::Decode(Bytes bytes, std::uint64_t fileID, std::uint64_t offset) {
    if (bytes.size() < footerBytes || ReadAt<std::uint32_t>(bytes.data()) != footerMagic ||
        ReadAt<std::uint64_t>(bytes.data() + footerHashAt) != Hash64(bytes.data(), footerHashAt))
        return {};
    Footer footer;
    footer.commitNumber = ReadAt<std::uint32_t>(bytes.data() + 4);
    footer.fileID = ReadAt<std::uint64_t>(bytes.data() + 8);
    footer.offset = ReadAt<std::uint64_t>(bytes.data() + 16);
    footer.indexOffset = ReadAt<std::uint64_t>(bytes.data() + 24);
    footer.indexSize = ReadAt<std::uint64_t>(bytes.data() + 32);
    footer.previous = ReadAt<std::uint64_t>(bytes.data() + 40);
    footer.indexHash = ReadAt<std::uint64_t>(bytes.data() + 48);
    bool const fits = footer.fileID == fileID && footer.offset == offset && footer.indexOffset >= headerBytes &&
                      footer.indexOffset <= offset && footer.indexSize <= offset - footer.indexOffset &&
                      AlignUp(footer.indexSize, footerBytes) + footerDistance <= offset - footer.indexOffset &&
                      (footer.previous == 0 || footer.previous < footer.indexOffset);
    return fits ? std::optional(footer) : std::nullopt;
}
}
