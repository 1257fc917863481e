#include "kernel/FileStoreCompressionHint.h"

namespace Kernel {
FileStoreCompressionHint::~FileStoreCompressionHint() = default;

Counted<CompressionPredictorStrategy> CompressionPredictorStrategy::CreateForByteSize64kStriped(int sampleBytes) {
    bool const isKnown = sampleBytes == 1 || sampleBytes == 2 || sampleBytes == 4 || sampleBytes == 8;
    auto const predictor = isKnown ? static_cast<CompressionPredictor>(sampleBytes) : CompressionPredictor::None;
    return MakeCounted<CompressionPredictorStrategy>(predictor, CompressionStriping::Rows256);
}
}
