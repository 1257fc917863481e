/// What a fuzz target defines: one run on bytes that may be anything. libFuzzer calls it, and so does Replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// @return 0, always. Crashes, hangs and large allocations are the failures; refusing the bytes is none.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size);

namespace Fuzz {
/// Says what holds whatever the bytes are.
inline void Expect(bool isTrue) {
    if (!isTrue)
        std::abort();
}
}
