#include "kernel/ItemCodec.h"

#include "kernel/kernels/PredictSamples.h"

#include <zstd.h>

#include <memory>
#include <new>
#include <utility>

namespace Kernel::ItemCodec {
namespace {
// A context for each thread: making one costs more than compressing a tile.
ZSTD_CCtx * GetCompressor() {
    struct Owner {
        ZSTD_CCtx * const context = ZSTD_createCCtx();
        ~Owner() { ZSTD_freeCCtx(context); }
    };
    thread_local Owner const owner;
    if (!owner.context)
        throw std::bad_alloc();
    return owner.context;
}

ZSTD_DCtx * GetDecompressor() {
    struct Owner {
        ZSTD_DCtx * const context = ZSTD_createDCtx();
        ~Owner() { ZSTD_freeDCtx(context); }
    };
    thread_local Owner const owner;
    if (!owner.context)
        throw std::bad_alloc();
    return owner.context;
}

// Compresses into memory that is neither cleared before nor kept larger than need be.
std::vector<std::uint8_t> Compress(ArchiveLayout::Bytes raw, int level) {
    std::size_t const most = ZSTD_compressBound(raw.size());
    std::unique_ptr<std::uint8_t[]> const stored(new std::uint8_t[most]);
    std::size_t const size = ZSTD_compressCCtx(GetCompressor(), stored.get(), most, raw.data(), raw.size(), level);
    if (ZSTD_isError(size))
        throw std::bad_alloc(); // with room enough nothing else can fail
    return {stored.get(), stored.get() + size};
}
}

bool IsWithinRatio(std::uint64_t rawSize, std::uint64_t storedSize) {
    constexpr std::uint64_t freeBytes = 4 << 20, mostRatio = 64;
    return ArchiveLayout::CanGive(storedSize, rawSize) &&
           (rawSize <= freeBytes || (rawSize - freeBytes + mostRatio - 1) / mostRatio <= storedSize);
}

Encoded Encode(ArchiveLayout::Bytes raw, FileStoreCompressionHint const * hint) {
    Encoded best;
    std::size_t bestSize = raw.size();
    if (!hint || raw.empty())
        return best;
    auto const consider = [&](std::vector<std::uint8_t> stored, std::uint8_t sampleBytes) {
        if (stored.size() >= bestSize || !IsWithinRatio(raw.size(), stored.size()))
            return;
        bestSize = stored.size();
        best = {ArchiveLayout::Codec::Zstd, sampleBytes, std::move(stored)};
    };
    if (hint->GetPredictor() != CompressionPredictor::None && hint->GetStriping() == CompressionStriping::Rows256 &&
        raw.size() == blockBytes) {
        auto const sampleBytes = static_cast<std::uint8_t>(hint->GetPredictor());
        std::unique_ptr<std::uint8_t[]> const predicted(new std::uint8_t[blockBytes]);
        PredictSamples(raw.data(), predicted.get(), sampleBytes);
        consider(Compress({predicted.get(), blockBytes}, hint->GetLevel()), sampleBytes);
    }
    consider(Compress(raw, hint->GetLevel()), 0);
    return best;
}

namespace {
std::optional<std::vector<std::uint8_t>> Decompress(ArchiveLayout::Bytes stored, std::uint64_t rawSize) {
    if (!IsWithinRatio(rawSize, stored.size()) || ZSTD_getFrameContentSize(stored.data(), stored.size()) != rawSize ||
        ZSTD_findFrameCompressedSize(stored.data(), stored.size()) != stored.size())
        return {};
    std::vector<std::uint8_t> raw(rawSize);
    std::size_t const size =
        ZSTD_decompressDCtx(GetDecompressor(), raw.data(), raw.size(), stored.data(), stored.size());
    return size == rawSize ? std::optional(std::move(raw)) : std::nullopt;
}
}

std::optional<std::vector<std::uint8_t>> Decode(ArchiveLayout::Codec codec, std::uint8_t sampleBytes,
                                                ArchiveLayout::Bytes stored, std::uint64_t rawSize) {
    if (codec == ArchiveLayout::Codec::Raw) {
        if (stored.size() != rawSize || sampleBytes != 0)
            return {};
        return std::vector<std::uint8_t>(stored.begin(), stored.end());
    }
    if (codec != ArchiveLayout::Codec::Zstd)
        return {};
    if (sampleBytes == 0)
        return Decompress(stored, rawSize);
    std::vector<std::uint8_t> predicted(blockBytes);
    if (!IsCompressedBlock(codec, sampleBytes, rawSize) || !DecompressBlock(stored, predicted.data()))
        return {};
    std::vector<std::uint8_t> raw(blockBytes);
    RestoreSamples(predicted.data(), raw.data(), sampleBytes);
    return raw;
}

bool IsCompressedBlock(ArchiveLayout::Codec codec, std::uint8_t sampleBytes, std::uint64_t rawSize) {
    bool const isKnown =
        sampleBytes == 0 || sampleBytes == 1 || sampleBytes == 2 || sampleBytes == 4 || sampleBytes == 8;
    return codec == ArchiveLayout::Codec::Zstd && isKnown && rawSize == blockBytes;
}

bool DecompressBlock(ArchiveLayout::Bytes stored, std::uint8_t * dest) {
    // One frame and nothing behind it, as for items of other sizes.
    return ZSTD_getFrameContentSize(stored.data(), stored.size()) == blockBytes &&
           ZSTD_findFrameCompressedSize(stored.data(), stored.size()) == stored.size() &&
           ZSTD_decompressDCtx(GetDecompressor(), dest, blockBytes, stored.data(), stored.size()) == blockBytes;
}
}
