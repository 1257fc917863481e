/// The bytes of a document file; docs/document-format.md describes them. Everything is little-endian, every byte lies
/// under a checksum or is zero.
#pragma once

#include "kernel/IDTag.h"
#include "kernel/ItemID.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Kernel::ArchiveLayout {
using Bytes = std::span<std::uint8_t const>;

inline constexpr std::uint32_t containerVersion = 1;
inline constexpr std::uint64_t headerBytes = 64;
inline constexpr std::uint64_t footerBytes = 64;
inline constexpr std::uint64_t itemAlignment = 16;
inline constexpr std::uint64_t itemHeaderBytes = 96; ///< without name and references
/// The two copies of an index lie at least so far apart,
inline constexpr std::uint64_t indexDistance = 65536;
/// and the footer so far behind the second: what damages the one leaves the other.
inline constexpr std::uint64_t footerDistance = 4096;
inline constexpr std::uint32_t longestName = 4096;
inline constexpr std::uint32_t mostReferences = 1 << 24;

enum class Codec : std::uint16_t { Raw = 0, Zstd = 1 };

constexpr std::uint64_t AlignUp(std::uint64_t offset, std::uint64_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

/// Whether compressed bytes can give so many: a block of four bytes gives 128 KiB at most.
constexpr bool CanGive(std::uint64_t compressedSize, std::uint64_t size) { return size / 32768 <= compressedSize; }

/// XXH3, 64 and 128 bits, seed 0.
std::uint64_t Hash64(void const * bytes, std::size_t size);
struct Hash128 {
    std::uint64_t low = 0, high = 0;
    bool operator==(Hash128 const &) const = default;
};
Hash128 GetHash128(void const * bytes, std::size_t size);

/// Names a file for ever, whatever is saved into it.
struct FileID {
    std::uint64_t low = 0, high = 0;
    bool operator==(FileID const &) const = default;
};

struct Header {
    std::uint32_t version = containerVersion;
    IDTag archiveTag;
    FileID fileID;

    std::array<std::uint8_t, headerBytes> Encode() const;
    /// Nothing if the bytes are no header, or damaged.
    static std::optional<Header> Decode(Bytes bytes);
};

/// What the bytes of a header say of the document's kind, whether they check or not.
IDTag GetArchiveTagAsFound(Bytes header);

struct ItemHeader {
    ItemID id;
    IDTag type;
    Codec codec = Codec::Raw;
    std::uint8_t sampleBytes = 0; ///< of the predictor; 0 is none
    std::uint64_t rawSize = 0, storedSize = 0;
    Hash128 rawHash;
    std::uint64_t storedHash = 0;
    std::string name;
    std::vector<ItemID> references;

    std::uint64_t GetEncodedSize() const { return itemHeaderBytes + name.size() + references.size() * 16; }
    void Encode(std::vector<std::uint8_t> & dest) const;
    /// How long the header is that begins with these bytes, by its own word; nothing if it is none.
    static std::optional<std::uint64_t> GetSize(Bytes begin);
    static std::optional<ItemHeader> Decode(Bytes bytes);
};

/// What the index knows of an item.
struct Entry {
    ItemID id;
    std::uint64_t offset = 0; ///< of its header
    std::uint64_t headerSize = 0;
    std::uint64_t storedSize = 0, rawSize = 0;
    std::uint64_t rawHash = 0; ///< the low half
    IDTag type;
    std::string name;

    std::uint64_t GetEnd() const { return offset + headerSize + storedSize; }
    /// Whether the item refers to others.
    bool HasReferences() const { return headerSize > itemHeaderBytes + name.size(); }
};

inline constexpr std::uint64_t indexHeaderBytes = 32;
/// The size of the block that begins with these bytes, by its own word; nothing if it is no index.
std::optional<std::uint64_t> GetIndexSize(Bytes begin);
/// The size that its entries have once they are decompressed, by its own word; 0 if the bytes are too few for one.
std::uint64_t GetIndexContentSize(Bytes begin);
/// The whole block as it stands in the file, its compressed entries included.
std::vector<std::uint8_t> EncodeIndex(std::vector<Entry> const & entries);
/// Nothing if it is damaged, or its entries are not in the order of the file, one behind another.
/// @param fileSize  entries must lie below it.
std::optional<std::vector<Entry>> DecodeIndex(Bytes bytes, std::uint64_t fileSize);

struct Footer {
    std::uint32_t commitNumber = 0;
    std::uint64_t fileID = 0; ///< the low half
    std::uint64_t offset = 0; ///< its own
    std::uint64_t indexOffset = 0, indexSize = 0, indexHash = 0;
    std::uint64_t previous = 0; ///< the footer of the commit before; 0 for the first

    /// Where the second copy of the index lies: shortly before the footer.
    std::uint64_t GetSecondIndexOffset() const { return offset - footerDistance - AlignUp(indexSize, footerBytes); }
    /// Where a footer stands whose index has its first copy there.
    static std::uint64_t GetOffset(std::uint64_t indexOffset, std::uint64_t indexSize) {
        auto const second = AlignUp(indexOffset + (indexSize > indexDistance ? indexSize : indexDistance), footerBytes);
        return second + AlignUp(indexSize, footerBytes) + footerDistance;
    }

    std::array<std::uint8_t, footerBytes> Encode() const;
    /// Nothing if the bytes are no footer, damaged, of another file, or not where they say that they are.
    static std::optional<Footer> Decode(Bytes bytes, std::uint64_t fileID, std::uint64_t offset);
};
}
