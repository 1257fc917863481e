/// How the bytes of one item are compressed, and what is done to samples first.
#pragma once

#include "kernel/ArchiveLayout.h"
#include "kernel/FileStoreCompressionHint.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Kernel::ItemCodec {
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

/// Replaces each sample by its difference from the one before in its row of 256 bytes, then gathers the first bytes of
/// all differences, the second ones, and so on. Both are blocks of 65536 bytes; `sampleBytes` is 1, 2, 4 or 8.
void Predict(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes);
/// The opposite.
void Restore(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes);
}
