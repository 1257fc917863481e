#include "kernel/HashAccumulator.h"

#include <xxhash.h>

namespace Kernel {
void HashAccumulator::AddToHash(void const * data, std::size_t size) { hash = XXH3_64bits_withSeed(data, size, hash); }

void HashAccumulator::AddToHash(double value) {
    double const canonical = value == 0 ? 0.0 : value;
    AddToHash(&canonical, sizeof canonical);
}
}
