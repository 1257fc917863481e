/// What a fuzz target defines: one run on bytes that may be anything. libFuzzer calls it, and so does Replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

/// @return 0, always. Crashes, hangs and large allocations are the failures; refusing the bytes is none.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size);
