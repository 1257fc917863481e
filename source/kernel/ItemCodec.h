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

/// The smallest of the forms that the hint allows: predicted and compressed, compressed, raw.
/// @param hint  null stores raw.
Encoded Encode(ArchiveLayout::Bytes raw, FileStoreCompressionHint const * hint);

/// @param rawSize  what the item says of itself. Memory is taken as bytes come, not for what is only claimed.
/// @return nothing if the stored bytes don't give exactly that many.
std::optional<std::vector<std::uint8_t>> Decode(ArchiveLayout::Codec codec, std::uint8_t sampleBytes,
                                                ArchiveLayout::Bytes stored, std::uint64_t rawSize);
}
