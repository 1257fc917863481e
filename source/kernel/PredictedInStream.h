#pragma once

#include "kernel/InStream.h"

#include <cstdint>
#include <vector>

namespace Kernel {
/// The 65536 bytes of an item whose prediction is at hand. Who reads them in one go, as tiles do, gets them restored
/// where they are to lie, without a copy on the way.
class PredictedInStream final : public InStreamSeekable {
public:
    /// @param predictedBytes  65536, which the caller keeps alive and unchanged
    /// @param sampleSize  1, 2, 4 or 8
    PredictedInStream(std::uint8_t const * predictedBytes, int sampleSize) noexcept
        : predicted(predictedBytes), sampleBytes(sampleSize) {}

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override;
    bool Seek(SeekOrigin origin, std::int64_t offset) override;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t size) override;

private:
    std::uint8_t const * predicted; // not owned
    int sampleBytes;
    std::uint64_t position = 0;
    std::vector<std::uint8_t> restored; // empty until a part is asked for
};
}
