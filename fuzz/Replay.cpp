// Runs a fuzz target without libFuzzer: on every file of the folders that it is given, on beginnings of it, and on
// copies with damaged bytes. The damage is the same each time, so that a failure comes back.
#include "FuzzTarget.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

namespace {
using Bytes = std::vector<std::uint8_t>;

#ifdef RASTER_SANITIZED
constexpr int cutCount = 16, damagedCount = 48;
#else
constexpr int cutCount = 32, damagedCount = 96;
#endif

// An exact copy, so that a read behind its end is one behind the end of an allocation.
void Run(std::uint8_t const * data, std::size_t size) {
    Bytes const exact(data, data + size);
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void RunDamaged(Bytes const & seed, std::mt19937 & random) {
    if (seed.empty())
        return;
    for (int i = 0; i < cutCount; ++i)
        Run(seed.data(), random() % seed.size());
    for (int i = 0; i < damagedCount; ++i) {
        Bytes damaged = seed;
        for (unsigned changes = 1 + random() % 4; changes != 0; --changes)
            damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
        Run(damaged.data(), damaged.size());
    }
}

Bytes Load(std::filesystem::path const & path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
}

int main(int argc, char ** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i]))
            for (auto const & entry : std::filesystem::directory_iterator(argv[i]))
                files.push_back(entry.path());
        else
            files.emplace_back(argv[i]);
    }
    std::sort(files.begin(), files.end());
    std::mt19937 random(1);
    LLVMFuzzerTestOneInput(nullptr, 0);
    for (auto const & path : files) {
        Bytes const seed = Load(path);
        Run(seed.data(), seed.size());
        RunDamaged(seed, random);
    }
    std::printf("%zu seeds\n", files.size());
    return files.empty() ? 1 : 0; // without seeds nothing was tried
}
