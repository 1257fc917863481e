/// What opening and saving cost in a document of many layers, whose tiles are all in the file: opening by the stored
/// tile, and a save after little has changed beside a plain copy of the file. RASTER_BENCHMARK_LARGE in the environment
/// makes it one of 50 layers and more than 1 GB, in the folder for temporary files, which takes twice that on the disk
/// and 2 GiB of memory; else it is a small one, whose figures are mostly those of what every save costs.
#include "kernel/Dispatch.h"
#include "storage/DocumentParts.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <optional>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Raster {
namespace {
constexpr Kernel::IDTag archiveTag("Bnch");

struct Shape {
    std::size_t layers;
    int side;
};
Shape GetShape() { return IsLarge() ? Shape{50, 3072} : Shape{4, 1280}; }

// The document, made once. Each layer takes its noise from another seed: equal tiles would be stored once.
std::string const & GetDocument() {
    static TemporaryFolder const folder;
    static std::string const path = [] {
        PrepareDocuments();
        std::vector<DynamicBitmap> layers;
        for (std::size_t i = 0; i < GetShape().layers; ++i)
            layers.push_back(MakePicture(GetShape().side, static_cast<std::uint32_t>(i * 7919 + 1)));
        auto const archive = Kernel::Archive::Create(folder.GetPath("large.doc"), archiveTag);
        SaveLayers(*archive, layers);
        return archive->GetPath();
    }();
    return path;
}

struct Opened {
    Kernel::Counted<Kernel::Archive> archive;
    std::vector<DynamicBitmap> layers;

    explicit Opened(Kernel::Counted<Kernel::ArchiveDisk> disk = nullptr)
        : archive(Kernel::Archive::Open(GetDocument(), archiveTag, std::move(disk))) {
        for (std::size_t i = 0; i < GetShape().layers; ++i)
            layers.push_back(LoadLayer(*archive, i));
    }
};

void ForgetCache(std::string const & path) {
    int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
    close(file);
}

// Goals for the large one: 2 microseconds and 200 bytes a tile, no pixel memory.
void OpenDocument(benchmark::State & state) {
    GetDocument();
    Kernel::Dispatch::SetThreadCount(1);
    DiskCounts counts;
    auto const disk = Kernel::MakeCounted<CountingDisk>(counts);
    Fastest warm, cold, close;
    std::size_t tiles = 0;
    auto const usage = MemoryManager::Instance().GetPlanarUsage(); // of the tiles of one colour
    for (auto _ : state) {
        std::optional<Opened> document;
        ForgetCache(GetDocument());
        cold.Measure([&] { document.emplace(disk); });
        close.Measure([&] { document.reset(); });
        counts.Clear();
        state.SetIterationTime(warm.Measure([&] { document.emplace(disk); }));
        if (MemoryManager::Instance().GetPlanarUsage() != usage)
            state.SkipWithError("opening took pixel memory");
        tiles = 0;
        for (auto & layer : document->layers)
            ForEachTile(layer, [&](Tile const & tile) { tiles += tile.IsPendingDelayLoad() ? 1 : 0; });
        if (counts.bytesRead > 200 * tiles && IsLarge())
            state.SkipWithError("opening read more than 200 bytes a tile");
    }
    auto const perTile = 1e6 / static_cast<double>(tiles);
    state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(GetDocument())) / 1e6;
    state.counters["tiles"] = static_cast<double>(tiles);
    state.counters["us_a_tile"] = warm.processor * perTile;
    state.counters["us_a_tile_wall"] = warm.wall * perTile;
    state.counters["us_a_tile_cold"] = cold.wall * perTile;
    state.counters["us_a_tile_close"] = close.processor * perTile;
    state.counters["bytes_a_tile"] = static_cast<double>(counts.bytesRead) / static_cast<double>(tiles);
    Kernel::Dispatch::SetThreadCount(0);
}

// Waits for a program to end. @return whether it succeeded
bool RunProgram(std::vector<std::string> words) {
    std::vector<char *> arguments;
    for (auto & word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t process = 0;
    int status = 0;
    return posix_spawnp(&process, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0 &&
           waitpid(process, &status, 0) == process && status == 0;
}

bool CopyAndSync(std::string const & from, std::string const & to) {
    return RunProgram({"cp", "--reflink=never", from, to}) && RunProgram({"sync", to});
}

// A round brush of 24 pixels along 200 pixels, across the corner of four tiles.
void PaintStroke(BitmapCore & bitmap, int value) {
    constexpr int left = 156, right = 356, y = 250, radius = 12;
    for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane)
        for (int row = 0; row < 2; ++row)
            for (int column = 0; column < 2; ++column) {
                MutableTileGuard const guard(bitmap.GetPlane(plane).GetTile(column, row));
                auto * const bytes = reinterpret_cast<std::uint8_t *>(guard.GetBuffer());
                for (int i = 0; i < 65536; ++i) {
                    int const x = column * 256 + i % 256, dy = row * 256 + i / 256 - y;
                    int const dx = x < left ? left - x : x > right ? x - right : 0;
                    if (dx * dx + dy * dy <= radius * radius)
                        bytes[i] = static_cast<std::uint8_t>((bytes[i] + value * (plane + 3)) / 2);
                }
            }
}

// The stroke for 0, else so many tiles, in turn from each plane.
void Touch(BitmapCore & bitmap, std::int64_t count, int value) {
    if (count == 0)
        return PaintStroke(bitmap, value);
    for (std::int64_t i = 0; i < count; ++i) {
        auto const planes = bitmap.GetPlaneCount();
        MutableTileGuard const guard(
            bitmap.GetPlane(static_cast<int>(i % planes)).GetTile(static_cast<std::size_t>(i / planes)));
        guard.GetBuffer()[i] = static_cast<unsigned int>(value * 977 + i);
    }
}

// A program may know which layers have changed, or store all of them.
enum class Knows { WhatChanged, Nothing };
std::uint64_t Save(Opened & document, std::size_t changed, Knows knows) {
    if (knows == Knows::Nothing)
        return SaveLayers(*document.archive, document.layers).bytesWritten;
    auto session = document.archive->CreateSession();
    for (std::size_t i = 0; i < document.layers.size(); ++i)
        if (i != changed)
            session->KeepStream(GetLayerName(i));
        else
            session->StoreObject(GetLayerName(i), document.layers[i]);
    return document.archive->CloseSession(std::move(session)).bytesWritten;
}

// Goals for the large one: a stroke writes less than 8 MB and takes less than 5 % of a copy.
void SaveTouchedTiles(benchmark::State & state) {
    DiskCounts counts;
    Opened document(Kernel::MakeCounted<CountingDisk>(counts));
    auto const layer = GetShape().layers / 2;
    Fastest copy, known, all;
    std::uint64_t bytes = 0, allBytes = 0;
    double sync = std::numeric_limits<double>::max();
    static int value = 0;
    for (auto _ : state) {
        auto const other = GetDocument() + ".copy";
        copy.Measure([&] {
            if (!CopyAndSync(GetDocument(), other))
                state.SkipWithError("the document can't be copied");
        });
        std::filesystem::remove(other);
        Touch(*document.layers[layer].GetCore(), state.range(0), ++value);
        counts.Clear();
        state.SetIterationTime(known.Measure([&] { bytes = Save(document, layer, Knows::WhatChanged); }));
        sync = std::min(sync, counts.syncSeconds);
        Touch(*document.layers[layer].GetCore(), state.range(0), ++value);
        all.Measure([&] { allBytes = Save(document, layer, Knows::Nothing); });
    }
    if (state.range(0) == 0 && std::max(bytes, allBytes) >= 8000000)
        state.SkipWithError("a stroke writes 8 MB or more");
    state.counters["MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["MB_all"] = static_cast<double>(allBytes) / 1e6;
    state.counters["ms"] = known.wall * 1e3;
    state.counters["ms_all"] = all.wall * 1e3;
    state.counters["ms_processor"] = known.processor * 1e3;
    state.counters["ms_all_processor"] = all.processor * 1e3;
    state.counters["ms_sync"] = sync * 1e3;
    state.counters["ms_copy"] = copy.wall * 1e3;
    state.counters["percent"] = known.wall / copy.wall * 100;
    state.counters["percent_all"] = all.wall / copy.wall * 100;
}

// What a save costs that has nothing to say: two lists of contents, and what keeps them apart.
void SaveNothing(benchmark::State & state) {
    TemporaryFolder const folder;
    PrepareDocuments();
    auto const small = Kernel::Archive::Create(folder.GetPath("small.doc"), archiveTag);
    std::vector<DynamicBitmap> const layer{MakePicture(256, 1)};
    SaveLayers(*small, layer);
    Opened document;
    std::uint64_t ofSmall = 0, ofLarge = 0;
    for (auto _ : state) {
        ofSmall = SaveLayers(*small, layer).bytesWritten;
        auto const begin = Fastest::GetSeconds(CLOCK_MONOTONIC);
        ofLarge = SaveLayers(*document.archive, document.layers).bytesWritten;
        state.SetIterationTime(Fastest::GetSeconds(CLOCK_MONOTONIC) - begin);
    }
    auto const items = document.archive->GetInfo().items.size();
    state.counters["bytes_of_one_tile_document"] = static_cast<double>(ofSmall);
    state.counters["bytes"] = static_cast<double>(ofLarge);
    state.counters["bytes_an_item"] = static_cast<double>(ofLarge) / 2 / static_cast<double>(items);
}

BENCHMARK(OpenDocument)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(SaveTouchedTiles)
    ->ArgName("tiles")
    ->Arg(0)
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(SaveNothing)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
}
}
