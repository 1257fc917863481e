#include "kernel/PredictedInStream.h"

#include "kernel/ItemCodec.h"
#include "kernel/kernels/PredictSamples.h"

#include <algorithm>
#include <cstring>

namespace Kernel {
using ItemCodec::blockBytes;

std::uint64_t PredictedInStream::GetSize() const { return blockBytes; }

bool PredictedInStream::Seek(SeekOrigin origin, std::int64_t offset) {
    auto const target = ResolveSeek(origin, offset, position, blockBytes);
    position = target.value_or(position);
    return target.has_value();
}

std::uint64_t PredictedInStream::ReadI(void * dest, std::uint64_t size) {
    auto const count = std::min<std::uint64_t>(size, blockBytes - position);
    if (count == blockBytes) {
        RestoreSamples(predicted, static_cast<std::uint8_t *>(dest), sampleBytes);
    } else if (count != 0) {
        if (restored.empty()) {
            restored.resize(blockBytes);
            RestoreSamples(predicted, restored.data(), sampleBytes);
        }
        std::memcpy(dest, restored.data() + position, count);
    }
    position += count;
    return count;
}
}
