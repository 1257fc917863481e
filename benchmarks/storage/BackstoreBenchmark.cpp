// Work on more tiles than memory may hold, against a replay of the same slot writes and reads with plain calls, and
// what the limit lets the process take meanwhile, as a curve. RASTER_BENCHMARK_LIMIT is the limit in mebibytes. Unless
// it is given it is 128, or 32 where RASTER_BENCHMARK_SMOKE is set: all pixels together are then well above what the
// process may take, so the bound means something.

#include "storage/BackstoreFile.h"
#include "storage/Block.h"
#include "storage/CompareTimes.h"
#include "storage/ResidentMemory.h"
#include "storage/SlabAllocator.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace Raster {
namespace {
constexpr std::size_t bytes = 65536;

struct SlotAccess {
    bool isWrite;
    off_t offset;
};
std::vector<SlotAccess> accesses;

ssize_t RecordRead(int file, void * buffer, size_t count, off_t offset) {
    accesses.push_back({false, offset});
    return pread(file, buffer, count, offset);
}

ssize_t RecordWrite(int file, void const * buffer, size_t count, off_t offset) {
    accesses.push_back({true, offset});
    return pwrite(file, buffer, count, offset);
}

std::uint64_t GetLimitMebibytes() {
    char const * const text = std::getenv("RASTER_BENCHMARK_LIMIT");
    return text ? std::strtoull(text, nullptr, 10) : std::getenv("RASTER_BENCHMARK_SMOKE") ? 32 : 128;
}

/// What the resident set has grown by since the start, looked at a thousand times.
class ResidentCurve {
public:
    explicit ResidentCurve(std::size_t allSteps) : steps(allSteps), begin(GetResidentBytes()) {}

    void Step() {
        if (++step % (steps / 1000 + 1) == 0)
            grown.push_back(static_cast<double>(GetResidentBytes()) - static_cast<double>(begin));
    }
    double GetHighest() const { return *std::max_element(grown.begin(), grown.end()); }
    void Print(double bound) const {
        constexpr std::size_t lines = 24;
        std::fprintf(stderr, "Resident set above the start, of at most %.1f MiB:\n", bound / 1048576);
        for (std::size_t line = 1; line <= lines; ++line) {
            auto const value = grown[grown.size() * line / lines - 1];
            std::string const bar(static_cast<std::size_t>(std::max(0.0, 60 * value / bound)), '#');
            std::fprintf(stderr, "  %3zu %% %7.1f MiB %s\n", line * 100 / lines, value / 1048576, bar.c_str());
        }
    }

private:
    std::size_t steps, step = 0, begin;
    std::vector<double> grown;
};

/// What the limit promises: itself, what is pinned, 64 MiB, and 512 bytes a tile. One tile is pinned at a time.
double GetBound(std::uint64_t limitMebibytes, std::size_t tiles) {
    return static_cast<double>((limitMebibytes << 20) + bytes + (64 << 20) + 512 * tiles);
}

/// Fill, write at random, read everything back: the same for any limit.
std::uint64_t Work(std::vector<Tile> & tiles, ResidentCurve & curve) {
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        MutableTileGuard const session(tiles[i]);
        std::fill_n(session.GetBuffer(), bytes / 4, static_cast<unsigned int>(i + 1));
        curve.Step();
    }
    std::mt19937 random(1);
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        MutableTileGuard const session(tiles[random() % tiles.size()]);
        session.GetBuffer()[random() % (bytes / 4)] += 7;
        curve.Step();
    }
    std::uint64_t digest = 0;
    for (auto const & tile : tiles) {
        ConstTileGuard const session(tile);
        std::uint64_t sum = 0;
        for (std::size_t i = 0; i < bytes / 4; ++i)
            sum += session.GetBuffer()[i];
        digest = digest * 31 + sum;
        curve.Step();
    }
    return digest;
}

/// The digest and the seconds for `count` tiles.
std::pair<std::uint64_t, double> Run(std::size_t count, ResidentCurve & curve) {
    std::vector<Tile> tiles(count);
    auto const begin = std::chrono::steady_clock::now();
    auto const digest = Work(tiles, curve);
    return {digest, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count()};
}

double Replay(std::string const & path) {
    int const file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<unsigned char> buffer(bytes, 1);
    auto const begin = std::chrono::steady_clock::now();
    for (auto const & access : accesses) {
        auto const done = access.isWrite ? pwrite(file, buffer.data(), bytes, access.offset)
                                         : pread(file, buffer.data(), bytes, access.offset);
        benchmark::DoNotOptimize(done);
    }
    auto const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    close(file);
    unlink(path.c_str());
    return seconds;
}

// Ratio: the run on four times the limit, as a multiple of the time that it may take, which is replay / 0.7 plus the
// time of the same work without a limit. Below 1 is within.
void WorkOnFourTimesTheLimit(benchmark::State & state) {
    auto const limit = GetLimitMebibytes();
    auto const count = static_cast<std::size_t>(limit * 16 * 4);
    std::string folder = (std::filesystem::temp_directory_path() / "raster-benchmark-XXXXXX").string();
    if (!mkdtemp(folder.data())) {
        state.SkipWithError("no temporary folder");
        return;
    }
    Block::InitStaticBlock();
    Block::InitBackstore(folder.c_str());
    auto & ledger = MemoryManager::Instance();
    accesses.reserve(8 * count);
    for (auto _ : state) {
        ResidentCurve curve(3 * count), ignored(3 * count);
        ledger.SetDRAMLimit(limit);
        accesses.clear();
        BackstoreFile::Instance().SetFileFunctions(RecordRead, RecordWrite);
        auto const [digest, seconds] = Run(count, curve);
        BackstoreFile::Instance().SetFileFunctions(nullptr, nullptr);
        auto const replay = Replay(folder + "/replay");
        ledger.SetDRAMLimit(1 << 20);
        auto const [plainDigest, plainSeconds] = Run(count, ignored);
        auto const bound = GetBound(limit, count);
        curve.Print(bound);
        if (digest != plainDigest)
            state.SkipWithError("pixels were lost");
        if (curve.GetHighest() > bound)
            state.SkipWithError("the process took more than the limit promises");
        state.SetIterationTime(seconds);
        state.counters["seconds"] = seconds;
        state.counters["replay"] = replay;
        state.counters["unlimited"] = plainSeconds;
        state.counters["ratio"] = seconds / (replay / 0.7 + plainSeconds);
        state.counters["slot_accesses"] = static_cast<double>(accesses.size());
        state.counters["peak_MiB"] = curve.GetHighest() / 1048576;
        state.counters["bound_MiB"] = bound / 1048576;
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(WorkOnFourTimesTheLimit)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
}
}
