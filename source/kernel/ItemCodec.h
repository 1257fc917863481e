/// How the bytes of one item are compressed, and what is done to samples first.
#pragma once

#include "kernel/ArchiveLayout.h"
#include "kernel/FileStoreCompressionHint.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Kernel::ItemCodec {
/// What the predictor works on: the size of a tile.
inline constexpr std::size_t blockBytes = 65536;

struct Encoded {
    ArchiveLayout::Codec codec = ArchiveLayout::Codec::Raw;
    std::uint8_t sampleBytes = 0;
    std::vector<std::uint8_t> bytes; ///< empty for `Raw`: the item's own bytes are what is stored
};

/// Whether an item may have so many bytes and be stored in so few. Beyond 4 MiB there may be 64 bytes for each one
/// stored: more than what documents hold ever has, and little enough that no small file takes much memory.
bool IsWithinRatio(std::uint64_t rawSize, std::uint64_t storedSize);

/// The smallest of the forms that the hint allows and that are within the ratio: predicted and compressed, compressed,
/// raw.
/// @param hint  null stores raw.
Encoded Encode(ArchiveLayout::Bytes raw, FileStoreCompressionHint const * hint);

/// @param rawSize  what the item says of itself.
/// @return nothing if the stored bytes don't give exactly that many.
std::optional<std::vector<std::uint8_t>> Decode(ArchiveLayout::Codec codec, std::uint8_t sampleBytes,
                                                ArchiveLayout::Bytes stored, std::uint64_t rawSize);

/// Whether an item is a block of a form that `DecompressBlock` knows.
bool IsCompressedBlock(ArchiveLayout::Codec codec, std::uint8_t sampleBytes, std::uint64_t rawSize);
/// The first half of `Decode` for such an item: what was predicted stays so.
/// @param dest  of `blockBytes`
/// @return false if the stored bytes don't give exactly that many.
bool DecompressBlock(ArchiveLayout::Bytes stored, std::uint8_t * dest);
}
