/// What documents do to the bytes of tiles, beside zstd alone at the same level on the same tiles: saving fresh ones,
/// what the predictor gains, and loading them. The tiles are those of the photographs in the folders photo, jpeg and
/// png of the one that RASTER_CORPUS names; without it, and for a smoke test, of pictures made here.
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "kernel/Dispatch.h"
#include "kernel/ItemCodec.h"
#include "kernel/kernels/PredictSamples.h"
#include "storage/DocumentParts.h"
#include "storage/SlabAllocator.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

namespace Raster {
namespace {
constexpr Kernel::IDTag archiveTag("Bnch"), tileTag("DatI");
constexpr std::size_t tileBytes = Tile::ByteCount;
constexpr int level = 1; // that tiles are stored with

struct Picture {
    std::string name;
    DynamicBitmap bitmap;
};

// Nothing for what is no picture, too small to show anything, or too large to be meant.
std::optional<Picture> ReadPicture(std::filesystem::path const & path) {
    try {
        DynamicFile file;
        if (!file.Create(path.c_str()) || file.GetWidth() < 256 || file.GetHeight() < 256 ||
            std::int64_t(file.GetWidth()) * file.GetHeight() > 64'000'000)
            return {};
        DynamicBitmap bitmap(file.GetWidth(), file.GetHeight(), file.GetFormat(), MipmapModeNone,
                             HardwareCachePolicy::Default);
        Draw(bitmap, file, nullptr, nullptr, 0, 0);
        bitmap.Scrub(nullptr); // tiles of one colour are not stored
        return Picture{path.filename().string(), bitmap};
    } catch (std::exception const &) {
        return {};
    }
}

std::vector<Picture> & GetPictures() {
    static std::vector<Picture> pictures = [] {
        PrepareDocuments();
        std::vector<Picture> read;
        char const * const corpus = std::getenv("RASTER_BENCHMARK_SMOKE") ? nullptr : std::getenv("RASTER_CORPUS");
        for (auto const * const folder : {"photo", "jpeg", "png"}) {
            std::error_code error;
            std::vector<std::filesystem::path> paths;
            if (corpus)
                for (auto const & entry :
                     std::filesystem::directory_iterator(std::filesystem::path(corpus) / folder, error))
                    paths.push_back(entry.path());
            std::sort(paths.begin(), paths.end());
            for (auto const & path : paths)
                if (auto picture = ReadPicture(path))
                    read.push_back(*std::move(picture));
        }
        if (read.empty())
            for (std::uint32_t i = 0; i < 4; ++i)
                read.push_back({"made " + std::to_string(i), MakePicture(IsLarge() ? 3072 : 1024, i * 7919 + 1)});
        return read;
    }();
    return pictures;
}

bool IsStored(Tile const & tile) {
    return tile.IsAllocated() && !tile.IsZeroTileBuffer() && !tile.IsFullTileBuffer() && !tile.IsFullFloatTileBuffer();
}

template<class Function>
void ForEachStoredTile(Function && function) {
    for (auto & picture : GetPictures())
        ForEachTile(picture.bitmap, [&](Tile & tile) {
            if (IsStored(tile))
                function(tile, picture);
        });
}

Kernel::ArchiveLayout::Bytes GetBytes(ConstTileGuard const & guard) {
    return {reinterpret_cast<std::uint8_t const *>(guard.GetBuffer()), tileBytes};
}

std::vector<DynamicBitmap> GetLayers() {
    std::vector<DynamicBitmap> layers;
    for (auto const & picture : GetPictures())
        layers.push_back(picture.bitmap);
    return layers;
}

// In memory, if there is such a place: the disk is not what is measured.
std::filesystem::path GetQuickFolder() {
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
}

// Unchanged but for that: it is to be stored again.
void MakeFresh() {
    ForEachStoredTile([](Tile & tile, Picture &) { MutableTileGuard(tile).GetBuffer(); });
}

std::uint64_t GetStoredBytes(Kernel::Archive const & archive) {
    std::uint64_t bytes = 0;
    for (auto const & item : archive.GetInfo().items)
        bytes += item.type == tileTag ? item.storedSize : 0;
    return bytes;
}

// Goal: two threads are 1.7 times as fast as one. What two threads of zstd alone gain is the most that there is. On a
// machine that has other things to do, `serial_percent` tells more: the part of one thread's processor time that isn't
// spent in what threads share, which is compression.
void SaveFreshTiles(benchmark::State & state) {
    std::vector<ConstTileGuard> guards;
    ForEachStoredTile([&](Tile const & tile, Picture &) { guards.emplace_back(tile); });
    auto const rawBytes = static_cast<double>(guards.size() * tileBytes);
    std::vector<std::size_t> sizes(guards.size());
    auto const compressAll = [&](unsigned threads) {
        Kernel::Dispatch::SetThreadCount(threads);
        constexpr std::size_t run = 16;
        Kernel::Dispatch::ParallelFor((guards.size() + run - 1) / run, [&](std::uint64_t part) {
            std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx *)> const context(ZSTD_createCCtx(), ZSTD_freeCCtx);
            std::vector<std::uint8_t> dest(ZSTD_compressBound(tileBytes));
            for (auto i = part * run; i < std::min((part + 1) * run, guards.size()); ++i)
                sizes[i] = std::min(tileBytes, ZSTD_compressCCtx(context.get(), dest.data(), dest.size(),
                                                                 guards[i].GetBuffer(), tileBytes, level));
        });
    };
    std::vector<int> sampleBytes;
    ForEachStoredTile([&](Tile const &, Picture & picture) {
        sampleBytes.push_back(picture.bitmap.GetCore()->GetPlane(0).GetSampleSize());
    });
    auto const encodeAll = [&] {
        for (std::size_t i = 0; i < guards.size(); ++i) {
            Kernel::FileStoreCompressionHintGeneral const hint(
                level, static_cast<Kernel::CompressionPredictor>(sampleBytes[i]), Kernel::CompressionStriping::Rows256);
            benchmark::DoNotOptimize(Kernel::ItemCodec::Encode(GetBytes(guards[i]), &hint));
        }
    };
    TemporaryFolder const folder(GetQuickFolder());
    DiskCounts counts;
    auto const layers = GetLayers();
    double sync = 0, write = std::numeric_limits<double>::max();
    std::uint64_t stored = 0;
    auto const saveAll = [&](unsigned threads) {
        Kernel::Dispatch::SetThreadCount(threads);
        auto const archive =
            Kernel::Archive::Create(folder.GetPath("fresh.doc"), archiveTag, Kernel::MakeCounted<CountingDisk>(counts));
        SaveLayers(*archive, layers);
        stored = GetStoredBytes(*archive);
    };
    Fastest zstd[2], save[2], encode;
    for (auto _ : state)
        for (unsigned threads = 1; threads <= 2; ++threads) {
            zstd[threads - 1].Measure([&] { compressAll(threads); });
            if (threads == 1)
                encode.Measure(encodeAll);
            guards.clear(); // who writes a tile that somebody reads gets a copy
            MakeFresh();
            counts.Clear();
            auto const seconds = save[threads - 1].Measure([&] { saveAll(threads); });
            if (threads == 2)
                state.SetIterationTime(seconds);
            sync = std::max(sync, counts.syncSeconds);
            write = std::min(write, counts.writeSeconds);
            ForEachStoredTile([&](Tile const & tile, Picture &) { guards.emplace_back(tile); });
        }
    std::uint64_t zstdBytes = 0;
    for (auto const size : sizes)
        zstdBytes += size;
    state.counters["raw_MB"] = rawBytes / 1e6;
    state.counters["MBps_1"] = rawBytes / 1e6 / save[0].wall;
    state.counters["MBps_2"] = rawBytes / 1e6 / save[1].wall;
    state.counters["gain_of_2"] = save[0].wall / save[1].wall;
    state.counters["zstd_MBps_1"] = rawBytes / 1e6 / zstd[0].wall;
    state.counters["zstd_gain_of_2"] = zstd[0].wall / zstd[1].wall;
    state.counters["percent_stored"] = static_cast<double>(stored) / rawBytes * 100;
    state.counters["zstd_percent"] = static_cast<double>(zstdBytes) / rawBytes * 100;
    state.counters["serial_percent"] = (1 - encode.processor / save[0].processor) * 100;
    state.counters["write_ms"] = write * 1e3;
    state.counters["sync_ms"] = sync * 1e3;
    Kernel::Dispatch::SetThreadCount(0);
}

struct Sizes {
    std::uint64_t raw = 0, plain = 0, predicted = 0;

    void Add(Sizes const & other) {
        raw += other.raw;
        plain += other.plain;
        predicted += other.predicted;
    }
    double GetGainPercent() const {
        return plain == 0 ? 0 : (1 - static_cast<double>(predicted) / static_cast<double>(plain)) * 100;
    }
    void Print(char const * name) const {
        std::fprintf(stderr, "  %-40.40s %8.2f MB %6.1f %% %6.1f %% %6.1f %%\n", name, static_cast<double>(raw) / 1e6,
                     static_cast<double>(plain) / static_cast<double>(raw) * 100,
                     static_cast<double>(predicted) / static_cast<double>(raw) * 100, GetGainPercent());
    }
};

Sizes GetSizes(Tile const & tile, int sampleBytes) {
    using namespace Kernel;
    ConstTileGuard const guard(tile);
    auto const raw = GetBytes(guard);
    auto const getSize = [&](CompressionPredictor predictor) {
        FileStoreCompressionHintGeneral const hint(level, predictor, CompressionStriping::Rows256);
        auto const encoded = ItemCodec::Encode(raw, &hint);
        return encoded.codec == ArchiveLayout::Codec::Raw ? raw.size() : encoded.bytes.size();
    };
    return {raw.size(), getSize(CompressionPredictor::None), getSize(static_cast<CompressionPredictor>(sampleBytes))};
}

// Goal: a gain of 15 % over all photographs, and a loss for none.
void PredictPhotographs(benchmark::State & state) {
    Sizes sum;
    double least = 100;
    for (auto _ : state) {
        Fastest time;
        state.SetIterationTime(time.Measure([&] {
            std::fprintf(stderr, "  %-40s %11s %8s %8s %8s\n", "picture", "tiles", "plain", "stored", "gain");
            for (auto & picture : GetPictures()) {
                Sizes sizes;
                int const sampleBytes = picture.bitmap.GetCore()->GetPlane(0).GetSampleSize();
                ForEachTile(picture.bitmap, [&](Tile const & tile) {
                    if (IsStored(tile))
                        sizes.Add(GetSizes(tile, sampleBytes));
                });
                if (sizes.raw == 0)
                    continue;
                sizes.Print(picture.name.c_str());
                least = std::min(least, sizes.GetGainPercent());
                sum.Add(sizes);
            }
            sum.Print("all");
        }));
    }
    if (least < 0)
        state.SkipWithError("a picture got larger by the predictor");
    state.counters["gain_percent"] = sum.GetGainPercent();
    state.counters["least_gain_percent"] = least;
}

/// A tile as it lies in the file.
struct StoredTile {
    std::uint64_t offset;
    std::size_t headerBytes, storedBytes;
    int codec = 0, sampleBytes = 0;
    std::vector<std::uint8_t> bytes; ///< without the header
};

std::vector<StoredTile> ReadStoredTiles(Kernel::Archive const & archive, int file) {
    std::vector<StoredTile> tiles;
    for (auto const & item : archive.GetInfo().items) {
        if (item.type != tileTag)
            continue;
        constexpr std::size_t fixedBytes = 96, codecAt = 28, sampleAt = 30;
        StoredTile tile{item.offset, fixedBytes + item.name.size(), item.storedSize, 0, 0, {}};
        std::vector<std::uint8_t> bytes(tile.headerBytes + tile.storedBytes);
        if (pread(file, bytes.data(), bytes.size(), static_cast<off_t>(tile.offset)) !=
            static_cast<ssize_t>(bytes.size()))
            std::abort();
        tile.codec = bytes[codecAt];
        tile.sampleBytes = bytes[sampleAt];
        tile.bytes.assign(bytes.begin() + static_cast<std::ptrdiff_t>(tile.headerBytes), bytes.end());
        tiles.push_back(std::move(tile));
    }
    return tiles;
}

/// What loading must do at the least, step by step, over all tiles.
class LoadingSteps {
public:
    LoadingSteps(std::vector<StoredTile> storedTiles, int openFile) : tiles(std::move(storedTiles)), file(openFile) {}
    ~LoadingSteps() { ZSTD_freeDCtx(context); }

    void Measure() {
        read.Measure([&] {
            for (auto const & tile : tiles)
                benchmark::DoNotOptimize(
                    pread(file, buffer.data(), tile.headerBytes + tile.storedBytes, static_cast<off_t>(tile.offset)));
        });
        checksum.Measure([&] {
            for (auto const & tile : tiles)
                benchmark::DoNotOptimize(Kernel::ArchiveLayout::Hash64(tile.bytes.data(), tile.bytes.size()));
        });
        zstd.Measure([&] { Decompress(all.data(), tileBytes); });
        zstdInCache.Measure([&] { Decompress(buffer.data(), 0); });
        std::vector<std::uint8_t> restored(tileBytes);
        restore.Measure([&] {
            for (auto const & tile : tiles) {
                Kernel::RestoreSamples(buffer.data(), restored.data(), tile.sampleBytes);
                benchmark::ClobberMemory();
            }
        });
        std::vector<unsigned int *> buffers;
        restoreToFresh.Measure([&] {
            for (auto const & tile : tiles) {
                buffers.push_back(SlabAllocator::Instance().Allocate(SlabAllocator::Content::Overwritten));
                Kernel::RestoreSamples(buffer.data(), reinterpret_cast<std::uint8_t *>(buffers.back()),
                                       tile.sampleBytes);
            }
        });
        for (auto * const taken : buffers)
            SlabAllocator::Instance().Free(taken);
    }

    Fastest read, checksum, zstd, zstdInCache, restore, restoreToFresh;

private:
    void Decompress(std::uint8_t * dest, std::size_t step) {
        for (auto const & tile : tiles) {
            if (tile.codec != 0)
                benchmark::DoNotOptimize(
                    ZSTD_decompressDCtx(context, dest, tileBytes, tile.bytes.data(), tile.bytes.size()));
            dest += step;
        }
    }

    std::vector<StoredTile> const tiles;
    int const file;
    ZSTD_DCtx * const context = ZSTD_createDCtx();
    std::vector<std::uint8_t> all = std::vector<std::uint8_t>(tiles.size() * tileBytes, std::uint8_t(1));
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(2 * tileBytes);
};

// Goal: 0.7 of the speed of zstd alone, by processor time of one thread. zstd decompresses from memory into memory
// that is there already and holds all tiles, as its own benchmark does; also into one buffer over and over, which stays
// in the cache, as loading does. Loading takes memory of the system then: `us_memory` is what restoring takes longer
// there than in the cache. `recycled` is the same with each tile let go before the next.
void LoadTiles(benchmark::State & state) {
    TemporaryFolder const folder(GetQuickFolder());
    auto const path = folder.GetPath("load.doc");
    {
        MakeFresh();
        SaveLayers(*Kernel::Archive::Create(path, archiveTag), GetLayers());
    }
    Kernel::Dispatch::SetThreadCount(1);
    auto const archive = Kernel::Archive::Open(path, archiveTag);
    int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    auto stored = ReadStoredTiles(*archive, file);
    auto const count = static_cast<double>(stored.size());
    LoadingSteps steps(std::move(stored), file);
    Fastest load, recycled;
    auto const loadAll = [&](bool keeps) {
        std::vector<DynamicBitmap> layers;
        for (std::size_t i = 0; i < GetPictures().size(); ++i)
            layers.push_back(LoadLayer(*archive, i));
        return (keeps ? load : recycled).Measure([&] {
            for (auto & layer : layers)
                ForEachTile(layer, [&](Tile & tile) {
                    if (!tile.IsPendingDelayLoad())
                        return;
                    benchmark::DoNotOptimize(*ConstTileGuard(tile).GetBuffer());
                    if (!keeps)
                        tile.Unallocate();
                });
        });
    };
    for (auto _ : state) {
        steps.Measure();
        loadAll(/*keeps=*/false);
        state.SetIterationTime(loadAll(/*keeps=*/true));
    }
    close(file);
    auto const inMicroseconds = [&](double seconds) { return seconds * 1e6 / count; };
    auto const sum =
        steps.read.processor + steps.checksum.processor + steps.zstdInCache.processor + steps.restoreToFresh.processor;
    state.counters["tiles"] = count;
    state.counters["of_zstd_speed"] = steps.zstd.processor / load.processor;
    state.counters["of_zstd_speed_in_cache"] = steps.zstdInCache.processor / load.processor;
    state.counters["of_zstd_speed_recycled"] = steps.zstd.processor / recycled.processor;
    state.counters["us_a_tile"] = inMicroseconds(load.processor);
    state.counters["us_read"] = inMicroseconds(steps.read.processor);
    state.counters["us_checksum"] = inMicroseconds(steps.checksum.processor);
    state.counters["us_zstd"] = inMicroseconds(steps.zstd.processor);
    state.counters["us_zstd_in_cache"] = inMicroseconds(steps.zstdInCache.processor);
    state.counters["us_unpredict"] = inMicroseconds(steps.restore.processor);
    state.counters["us_memory"] = inMicroseconds(steps.restoreToFresh.processor - steps.restore.processor);
    state.counters["us_rest"] = inMicroseconds(load.processor - sum);
    state.counters["MBps"] = count * tileBytes / 1e6 / load.processor;
    Kernel::Dispatch::SetThreadCount(0);
}

BENCHMARK(SaveFreshTiles)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(PredictPhotographs)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(LoadTiles)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);
}
}
