#include "kernel/TableHash.h"

#include <sys/random.h>
#include <xxhash.h>

#include <array>
#include <chrono>

namespace Kernel {
namespace {
std::uint64_t MakeSeed() noexcept {
    std::uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != sizeof seed) // shortly after the machine was started
        seed = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    return seed;
}
}

std::size_t GetTableHash(std::uint64_t first, std::uint64_t second) noexcept {
    static std::uint64_t const seed = MakeSeed();
    std::array const key{first, second};
    return static_cast<std::size_t>(XXH3_64bits_withSeed(key.data(), sizeof key, seed));
}
}
