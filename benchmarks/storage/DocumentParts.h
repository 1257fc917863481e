/// What the benchmarks of documents share: a folder of their own, pictures, layers of a document, and a disk that
/// counts.
#pragma once

#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/InSerialiserFile.h"
#include "pixel/MemoryManager.h"
#include "storage/Block.h"
#include "storage/DynamicBitmap.h"
#include "storage/StoredClasses.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Raster {
inline bool IsLarge() { return std::getenv("RASTER_BENCHMARK_LARGE") && !std::getenv("RASTER_BENCHMARK_SMOKE"); }

/// What is the least that some work takes: interruptions only ever add.
struct Fastest {
    double wall = std::numeric_limits<double>::max(), processor = wall; ///< seconds

    template<class Work>
    double Measure(Work && work) {
        double const wallBefore = GetSeconds(CLOCK_MONOTONIC), processorBefore = GetSeconds(CLOCK_PROCESS_CPUTIME_ID);
        work();
        processor = std::min(processor, GetSeconds(CLOCK_PROCESS_CPUTIME_ID) - processorBefore);
        double const took = GetSeconds(CLOCK_MONOTONIC) - wallBefore;
        wall = std::min(wall, took);
        return took;
    }
    static double GetSeconds(clockid_t clock) {
        timespec time;
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }
};

/// Goes with all that is in it.
class TemporaryFolder {
public:
    explicit TemporaryFolder(std::filesystem::path const & where = std::filesystem::temp_directory_path()) {
        std::string pattern = (where / "raster-benchmark-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            std::abort();
        path = pattern;
    }
    TemporaryFolder(TemporaryFolder const &) = delete;
    TemporaryFolder & operator=(TemporaryFolder const &) = delete;
    ~TemporaryFolder() {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }
    std::string GetPath(std::string const & name) const { return (path / name).string(); }

private:
    std::filesystem::path path;
};

struct DiskCounts {
    std::atomic<std::uint64_t> bytesRead{0}, bytesWritten{0};
    double writeSeconds = 0, syncSeconds = 0;

    void Clear() {
        bytesRead = bytesWritten = 0;
        writeSeconds = syncSeconds = 0;
    }
};

/// The system's disk, with everything counted that goes through it. The counts outlive it.
class CountingDisk final : public Kernel::ArchiveDisk {
public:
    explicit CountingDisk(DiskCounts & diskCounts) : counts(diskCounts) {}

    Kernel::Counted<Kernel::ArchiveFile> OpenToRead(std::string const & path) override {
        return Wrap(disk->OpenToRead(path));
    }
    Kernel::Counted<Kernel::ArchiveFile> OpenToUpdate(std::string const & path) override {
        return Wrap(disk->OpenToUpdate(path));
    }
    Kernel::Counted<Kernel::ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override {
        return Wrap(disk->CreateBeside(path, temporaryPath));
    }
    Kernel::ArchiveReplaced Replace(Kernel::ArchiveFile & file, std::string const & temporaryPath,
                                    std::string const & path, Kernel::ArchiveTarget target) override {
        return Time(counts.syncSeconds, [&] {
            return disk->Replace(*static_cast<CountingFile &>(file).file, temporaryPath, path, target);
        });
    }
    void Remove(std::string const & temporaryPath) override { disk->Remove(temporaryPath); }

private:
    template<class Work>
    static std::invoke_result_t<Work> Time(double & seconds, Work && work) {
        double const before = Fastest::GetSeconds(CLOCK_MONOTONIC);
        auto const result = work();
        seconds += Fastest::GetSeconds(CLOCK_MONOTONIC) - before;
        return result;
    }

    struct CountingFile final : public Kernel::ArchiveFile {
        CountingFile(Kernel::Counted<Kernel::ArchiveFile> systemFile, DiskCounts & diskCounts)
            : file(std::move(systemFile)), counts(diskCounts) {}

        std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
            auto const got = file->Read(offset, dest, size);
            counts.bytesRead += got;
            return got;
        }
        std::optional<std::uint64_t> GetSize() const override { return file->GetSize(); }
        bool Write(std::uint64_t offset, void const * bytes, std::uint64_t size) override {
            counts.bytesWritten += size;
            return Time(counts.writeSeconds, [&] { return file->Write(offset, bytes, size); });
        }
        bool Truncate(std::uint64_t size) override { return file->Truncate(size); }
        bool Sync() override {
            return Time(counts.syncSeconds, [&] { return file->Sync(); });
        }
        bool Lock() override { return file->Lock(); }
        void Unlock() override { file->Unlock(); }
        bool IsAt(std::string const & path) const override { return file->IsAt(path); }

        Kernel::Counted<Kernel::ArchiveFile> const file;
        DiskCounts & counts;
    };

    Kernel::Counted<Kernel::ArchiveFile> Wrap(Kernel::Counted<Kernel::ArchiveFile> file) const {
        return file ? Kernel::Counted<Kernel::ArchiveFile>(new CountingFile(std::move(file), counts)) : file;
    }

    Kernel::Counted<Kernel::ArchiveDisk> const disk = Kernel::ArchiveDisk::GetSystem();
    DiskCounts & counts;
};

inline void PrepareDocuments() {
    RegisterStoredClasses();
    Block::InitStaticBlock();
    Tile::InitStaticTiles();
    MemoryManager::Instance().SetDRAMLimit(1 << 20);
}

template<class Function>
void ForEachTile(DynamicBitmap & bitmap, Function && function) {
    auto & core = *bitmap.GetCore();
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i)
            function(core.GetPlane(plane).GetTile(i));
}

/// Something like a photograph with a soft mask, square, of four channels of bytes: slopes under grain.
inline DynamicBitmap MakePicture(int side, std::uint32_t seed) {
    DynamicBitmap bitmap(side, side, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    std::uint32_t noise = seed;
    ForEachTile(bitmap, [&](Tile & tile) {
        MutableTileGuard const guard(tile);
        auto * const bytes = reinterpret_cast<std::uint8_t *>(guard.GetBuffer());
        int const slope = static_cast<int>(noise >> 8 & 3), base = static_cast<int>(noise >> 12 & 63);
        for (int y = 0; y < 256; ++y)
            for (int x = 0; x < 256; ++x) {
                noise = noise * 1664525u + 1013904223u;
                int const grain = static_cast<int>((noise >> 28) + (noise >> 24 & 15)) / 2;
                bytes[y * 256 + x] = static_cast<std::uint8_t>(base + (slope * x + y) / 4 + grain);
            }
    });
    return bitmap;
}

inline std::string GetLayerName(std::size_t index) {
    std::string name("Layer-");
    return name += std::to_string(index);
}

/// Reads no pixel.
inline DynamicBitmap LoadLayer(Kernel::Archive & archive, std::size_t index) {
    DynamicBitmap bitmap;
    auto const stream = archive.OpenStream(GetLayerName(index));
    auto const properties = Kernel::InSerialiserFile::ParseWithChecks(*stream, archive, false);
    bitmap.Load(*properties, archive, properties->GetRootVersion());
    return bitmap;
}

inline Kernel::ArchiveSaveCounts SaveLayers(Kernel::Archive & archive, std::vector<DynamicBitmap> const & layers) {
    auto session = archive.CreateSession();
    for (std::size_t i = 0; i < layers.size(); ++i)
        session->StoreObject(GetLayerName(i), layers[i]);
    return archive.CloseSession(std::move(session));
}
}
