#include "kernel/ItemCodec.h"

#include "kernel/PropertyStream.h"

#include <zstd.h>

#include <algorithm>
#include <new>
#include <utility>

namespace Kernel::ItemCodec {
namespace {
constexpr std::size_t blockBytes = 65536, rowBytes = 256;

template<class Sample>
void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted) {
    constexpr std::size_t planeBytes = blockBytes / sizeof(Sample), perRow = rowBytes / sizeof(Sample);
    for (std::size_t row = 0; row < blockBytes / rowBytes; ++row) {
        Sample before = 0;
        for (std::size_t i = 0; i < perRow; ++i) {
            auto const sample = PropertyStream::ReadAt<Sample>(raw + row * rowBytes + i * sizeof(Sample));
            auto const difference = static_cast<Sample>(sample - before);
            before = sample;
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                predicted[plane * planeBytes + row * perRow + i] = static_cast<std::uint8_t>(difference >> 8 * plane);
        }
    }
}

template<class Sample>
void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw) {
    constexpr std::size_t planeBytes = blockBytes / sizeof(Sample), perRow = rowBytes / sizeof(Sample);
    for (std::size_t row = 0; row < blockBytes / rowBytes; ++row) {
        Sample sample = 0;
        for (std::size_t i = 0; i < perRow; ++i) {
            Sample difference = 0;
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                difference = static_cast<Sample>(difference | Sample(predicted[plane * planeBytes + row * perRow + i])
                                                                  << 8 * plane);
            sample = static_cast<Sample>(sample + difference);
            PropertyStream::WriteAt(raw + row * rowBytes + i * sizeof(Sample), sample);
        }
    }
}

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

std::vector<std::uint8_t> Compress(ArchiveLayout::Bytes raw, int level) {
    std::vector<std::uint8_t> stored(ZSTD_compressBound(raw.size()));
    std::size_t const size =
        ZSTD_compressCCtx(GetCompressor(), stored.data(), stored.size(), raw.data(), raw.size(), level);
    if (ZSTD_isError(size))
        throw std::bad_alloc(); // with room enough nothing else can fail
    stored.resize(size);
    return stored;
}
}

void Predict(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return PredictSamples<std::uint8_t>(raw, predicted);
    case 2:
        return PredictSamples<std::uint16_t>(raw, predicted);
    case 4:
        return PredictSamples<std::uint32_t>(raw, predicted);
    case 8:
        return PredictSamples<std::uint64_t>(raw, predicted);
    }
}

void Restore(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return RestoreSamples<std::uint8_t>(predicted, raw);
    case 2:
        return RestoreSamples<std::uint16_t>(predicted, raw);
    case 4:
        return RestoreSamples<std::uint32_t>(predicted, raw);
    case 8:
        return RestoreSamples<std::uint64_t>(predicted, raw);
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
        std::vector<std::uint8_t> predicted(blockBytes);
        Predict(raw.data(), predicted.data(), sampleBytes);
        consider(Compress(predicted, hint->GetLevel()), sampleBytes);
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
    bool const isKnown = sampleBytes == 1 || sampleBytes == 2 || sampleBytes == 4 || sampleBytes == 8;
    auto const predicted = isKnown && rawSize == blockBytes ? Decompress(stored, rawSize) : std::nullopt;
    if (!predicted)
        return {};
    std::vector<std::uint8_t> raw(blockBytes);
    Restore(predicted->data(), raw.data(), sampleBytes);
    return raw;
}
}
