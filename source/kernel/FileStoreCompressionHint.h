#pragma once

#include "kernel/Countable.h"
#include "kernel/SerialisationStrategy.h"

#include <cstdint>

namespace Kernel {
/// How samples are made easier to compress: each is replaced by its difference from the one before in its row. The
/// value is the size of a sample in bytes.
enum class CompressionPredictor : std::uint8_t { None = 0, Bytes1 = 1, Bytes2 = 2, Bytes4 = 4, Bytes8 = 8 };
/// Where the rows of an item begin.
enum class CompressionStriping : std::uint8_t {
    None = 0,
    Rows256 = 1 ///< 65536 bytes in rows of 256
};

/// What is known of an item's content that helps to compress it.
class RASTER_API FileStoreCompressionHint : public virtual Countable {
public:
    ~FileStoreCompressionHint() override;

    virtual int GetLevel() const noexcept = 0; ///< 1 is fast; more takes longer for less
    virtual CompressionPredictor GetPredictor() const noexcept = 0;
    virtual CompressionStriping GetStriping() const noexcept = 0;
};

class RASTER_API FileStoreCompressionHintGeneral final : public FileStoreCompressionHint {
public:
    explicit FileStoreCompressionHintGeneral(int compressionLevel,
                                             CompressionPredictor samplePredictor = CompressionPredictor::None,
                                             CompressionStriping rowStriping = CompressionStriping::None) noexcept
        : level(compressionLevel), predictor(samplePredictor), striping(rowStriping) {}

    int GetLevel() const noexcept override { return level; }
    CompressionPredictor GetPredictor() const noexcept override { return predictor; }
    CompressionStriping GetStriping() const noexcept override { return striping; }

private:
    int level;
    CompressionPredictor predictor;
    CompressionStriping striping;
};

/// Tells the blocks that are saved under it what their bytes are.
class RASTER_API CompressionPredictorStrategy final : public SerialisationStrategy {
public:
    /// For 64 KiB in rows of 256 bytes.
    /// @param sampleBytes  1, 2, 4 or 8; anything else predicts nothing.
    static Counted<CompressionPredictorStrategy> CreateForByteSize64kStriped(int sampleBytes);

    CompressionPredictorStrategy(CompressionPredictor samplePredictor, CompressionStriping rowStriping) noexcept
        : predictor(samplePredictor), striping(rowStriping) {}

    CompressionPredictor GetPredictor() const noexcept { return predictor; }
    CompressionStriping GetStriping() const noexcept { return striping; }

private:
    CompressionPredictor predictor;
    CompressionStriping striping;
};
}
