// A document with pixels, damaged at random: damage is found, does no harm, and takes nothing with it that is whole.
#include "colour/ICCManager.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/Dispatch.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryDisk.h"
#include "kernel/OutSerialiser.h"
#include "storage/BitmapCore.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace Raster;
using Kernel::Archive;
using Kernel::Counted;
using Kernel::MakeCounted;

namespace {
constexpr char const * path = "picture.doc";

// Of each kind of damage: 10,000 together where that takes a minute; a share where code is checked while it runs.
#if defined(RASTER_SANITIZED)
constexpr unsigned caseCount = 20;
#elif !defined(NDEBUG)
constexpr unsigned caseCount = 100;
#else
constexpr unsigned caseCount = 1667;
#endif

enum class Damage { Byte, Bits, Sector, Noise, Swap, Cut };
constexpr std::array<char const *, 6> damageNames{"Byte",           "BitsHereAndThere", "LostSector",
                                                  "FourKiBOfNoise", "BlocksSwapped",    "CutOff"};

struct Layer {
    std::string name;
    DynamicBitmap bitmap;
};
using TileBytes = std::array<std::uint8_t, Tile::ByteCount>;

TileBytes GetBytes(Tile const & tile) {
    TileBytes bytes;
    ConstTileGuard const session(tile);
    std::memcpy(bytes.data(), session.GetBuffer(), bytes.size());
    return bytes;
}

void Paint(DynamicBitmap & bitmap, unsigned seed, std::size_t first, std::size_t count) {
    auto & core = *bitmap.GetCore();
    std::mt19937 random(seed);
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (std::size_t i = first; i < std::min(first + count, core.GetPlane(plane).GetTileCount()); ++i) {
            MutableTileGuard const session(core.GetPlane(plane).GetTile(i));
            auto * const bytes = reinterpret_cast<std::uint8_t *>(session.GetBuffer());
            std::uint8_t value = 0;
            for (std::size_t k = 0; k < Tile::ByteCount; ++k)
                bytes[k] = value = static_cast<std::uint8_t>(k % 16 == 0 ? random() : value + 1);
        }
}

/// A picture that stays the file it came as, with a profile: items of the other kinds.
Layer MakePlaced() {
    Layer placed{"Placed", {300, 200, RGBA8, MipmapModeNone, HardwareCachePolicy::Default}};
    std::mt19937 random(5);
    std::vector<std::uint8_t> bytes(20000);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    auto const file = MakeCounted<CompressedRasterData>();
    file->CopyFrom(bytes.data(), bytes.size());
    auto const holder = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    placed.bitmap.SetBackingData(holder, ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8));
    placed.bitmap.GetCore()->SetPendingBacking(holder);
    return placed;
}

void Save(Counted<Archive> const & archive, std::vector<Layer> const & layers, Layer const & placed) {
    auto session = archive->CreateSession();
    session->AddStrategy(
        MakeCounted<RasterSerialisationStrategy>(std::vector<int>(), RasterSerialisationStrategy::AllowByReference));
    for (auto const & layer : layers)
        session->StoreObject(layer.name, layer.bitmap);
    session->StoreObject(placed.name, placed.bitmap);
    archive->CloseSession(std::move(session));
}

/// A layer as a document has it; without pixels if it has none.
DynamicBitmap Load(Counted<Archive> const & archive, std::string const & name) {
    DynamicBitmap bitmap;
    try {
        if (auto const stream = archive->OpenStream(name))
            bitmap.Load(*Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false), *archive, 1);
    } catch (std::runtime_error const &) {
    }
    return bitmap;
}

class DamagedDocument : public testing::TestWithParam<Damage> {
protected:
    DamagedDocument() {
        RegisterStoredClasses();
        Tile::InitStaticTiles();
        layers.push_back({"Layer-1", {300, 200, RGBA8, MipmapModeNone, HardwareCachePolicy::Default}});
        layers.push_back({"Layer-2", {100, 100, RGBA16, MipmapModeNone, HardwareCachePolicy::Default}});
        layers.push_back({"Layer-3", {500, 200, A8, MipmapModeNone, HardwareCachePolicy::Default}});
        auto const disk = MakeCounted<MemoryDisk>();
        auto const archive = Archive::Create(path, "Pict", disk);
        for (unsigned i = 0; i < 3; ++i)
            Paint(layers[i].bitmap, i, 0, 100);
        auto const placed = MakePlaced();
        auto const save = [&] {
            Save(archive, layers, placed);
            whole = disk->GetFiles().at(path);
            ends.push_back(whole.size());
        };
        save();
        for (unsigned i = 0; i < 3; ++i) { // a history: items of older commits, dead ones, several lists
            Paint(layers[0].bitmap, 10 + i, i, 1);
            save();
        }
        entries = archive->GetInfo().items;
        for (auto const & layer : layers) {
            pixels += GetPixelCount(layer);
            auto & tiles = expected.emplace_back();
            auto const & core = *layer.bitmap.GetCore();
            for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
                for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i)
                    tiles.push_back(GetBytes(core.GetPlane(plane).GetTile(i)));
        }
    }

    static std::uint64_t GetPixelCount(Layer const & layer) {
        return static_cast<std::uint64_t>(layer.bitmap.GetWidth()) *
               static_cast<std::uint64_t>(layer.bitmap.GetHeight());
    }

    /// How many pixels of a layer are as they were in all of their channels.
    std::uint64_t CountPixels(std::size_t index, DynamicBitmap const & bitmap) const {
        auto const & core = *layers[index].bitmap.GetCore();
        if (bitmap.GetFormat() != layers[index].bitmap.GetFormat() || bitmap.GetWidth() != core.GetWidth() ||
            bitmap.GetHeight() != core.GetHeight())
            return 0;
        auto const & grid = core.GetGrid();
        std::size_t const tileCount = core.GetPlane(0).GetTileCount();
        std::uint64_t count = 0;
        for (int row = 0; row < grid.tilesDown; ++row)
            for (int column = 0; column < grid.tilesAcross; ++column) {
                std::size_t const i = grid.GetIndex(column, row);
                bool isSame = true;
                for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
                    isSame = isSame && GetBytes(bitmap.GetCore()->GetPlane(plane).GetTile(i)) ==
                                           expected[index][static_cast<std::size_t>(plane) * tileCount + i];
                int const width = std::min(grid.tileWidth, core.GetWidth() - column * grid.tileWidth);
                int const height = std::min(Tile::Height, core.GetHeight() - row * Tile::Height);
                count += isSame ? static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) : 0;
            }
        return count;
    }

    std::uint64_t CountPixels(Counted<Archive> const & archive) const {
        std::uint64_t count = 0;
        for (std::size_t i = 0; i < layers.size(); ++i)
            count += CountPixels(i, Load(archive, layers[i].name));
        auto const placed = Load(archive, "Placed");
        Kernel::DelayLoadHolder::TempLoadItem const file(placed.GetBackingData().Get());
        auto const * const found = file.GetItemAs<CompressedRasterData>();
        EXPECT_TRUE(!found || found->GetSize() == 20000) << "a damaged file is none";
        return count;
    }

    std::vector<std::uint8_t> DoDamage(Damage damage, std::mt19937 & random) const {
        auto bytes = whole;
        auto const at = random() % bytes.size();
        auto const from = [&](std::size_t alignment, std::size_t size) {
            return std::min(at / alignment * alignment, bytes.size() - size);
        };
        switch (damage) {
        case Damage::Byte:
            bytes[at] = static_cast<std::uint8_t>(random());
            break;
        case Damage::Bits:
            for (unsigned i = 0; i < 1 + random() % 8; ++i)
                bytes[random() % bytes.size()] ^= static_cast<std::uint8_t>(1u << random() % 8);
            break;
        case Damage::Sector:
            std::memset(bytes.data() + from(512, 512), 0, 512);
            break;
        case Damage::Noise:
            for (std::size_t i = 0; i < 4096; ++i)
                bytes[from(512, 4096) + i] = static_cast<std::uint8_t>(random());
            break;
        case Damage::Swap: {
            auto const other = std::min(random() % bytes.size() / 4096 * 4096, bytes.size() - 4096);
            std::swap_ranges(bytes.begin() + static_cast<std::ptrdiff_t>(other),
                             bytes.begin() + static_cast<std::ptrdiff_t>(other) + 4096,
                             bytes.begin() + static_cast<std::ptrdiff_t>(from(4096, 4096)));
            break;
        }
        case Damage::Cut:
            bytes.resize(at);
            break;
        }
        return bytes;
    }

    bool IsWhole(Kernel::ArchiveItemInfo const & item, std::vector<std::uint8_t> const & damaged) const {
        // Up to the next item, or to the list: nothing but padding lies there.
        auto const size = sizes.at(item.id);
        return item.offset + size <= damaged.size() &&
               std::memcmp(damaged.data() + item.offset, whole.data() + item.offset, size) == 0;
    }

    /// Salvages a damaged document, and holds that nothing that is whole is lost.
    std::uint64_t CountSalvagedPixels(std::vector<std::uint8_t> const & damaged, Counted<MemoryDisk> const & disk,
                                      std::uint64_t number) const {
        auto const isWhole = [&](Kernel::ArchiveItemInfo const & item) { return IsWhole(item, damaged); };
        try {
            Kernel::SalvageArchive(path, "saved.doc", nullptr, nullptr, nullptr, disk, "Pict");
        } catch (Kernel::ArchiveError const & error) {
            EXPECT_TRUE(std::none_of(entries.begin(), entries.end(), isWhole))
                << "case " << number << ": " << error.what();
            return 0;
        }
        auto const saved = Archive::Open("saved.doc", "Pict", disk);
        auto const items = saved->GetInfo().items;
        for (auto const & item : entries) {
            // Where the end of the file is gone, the later of two streams of one name is the one that stands behind: an
            // older state of it may have been put there.
            bool const mayBeOlder = GetParam() == Damage::Swap && item.type == Kernel::IDTag("Strm");
            bool const isSaved = std::any_of(items.begin(), items.end(), [&](auto const & one) {
                return one.id == item.id || (mayBeOlder && one.name == item.name);
            });
            EXPECT_TRUE(isSaved || !isWhole(item)) << "case " << number << ": " << item.name << " is whole";
        }
        if (number % 5 == 0) { // the most work
            for (auto const & problem : Kernel::VerifyArchive("saved.doc", nullptr, nullptr, nullptr, disk).problems)
                EXPECT_NE(problem.what.find("missing"), std::string::npos) << "case " << number << ": " << problem.what;
        }
        return CountPixels(saved);
    }

    /// A file that ends early can look like an older document behind which a save wasn't finished. It must be one.
    bool IsOlderState(std::vector<std::uint8_t> const & damaged, std::uint64_t unfinishedBytes) const {
        auto const next = std::upper_bound(ends.begin(), ends.end(), damaged.size());
        return next != ends.begin() && damaged.size() - next[-1] == unfinishedBytes;
    }

    void FindSizes() {
        auto const disk = MakeCounted<MemoryDisk>(MemoryDisk::Files{{path, whole}});
        auto const snapshot = Kernel::ArchiveSnapshot::Open(path, disk->OpenToRead(path), "Pict");
        for (auto const & entry : snapshot->GetEntries())
            sizes[entry.id] = entry.headerSize + entry.storedSize;
    }

    std::vector<Layer> layers;
    std::vector<std::vector<TileBytes>> expected; // by layer
    std::vector<std::uint8_t> whole;
    std::vector<std::uint64_t> ends; // of each save
    std::vector<Kernel::ArchiveItemInfo> entries;
    std::map<Kernel::ItemID, std::uint64_t> sizes; // in the file, with the header
    std::uint64_t pixels = 0;
};
}

TEST_P(DamagedDocument, IsFoundReadAndSalvaged) {
    FindSizes();
    auto const damage = GetParam();
    std::atomic<std::uint64_t> read{0}, saved{0};
    Kernel::Dispatch::ParallelFor(caseCount, [&](std::uint64_t number) {
        std::mt19937 random(static_cast<unsigned>(number));
        auto damaged = whole;
        while (damaged == whole) // it hit zeros, or put there what was there
            damaged = DoDamage(damage, random);
        auto const disk = MakeCounted<MemoryDisk>(MemoryDisk::Files{{path, damaged}});

        bool isFound = false;
        try {
            auto const report = Kernel::VerifyArchive(path, nullptr, nullptr, nullptr, disk);
            isFound = !report.problems.empty();
            isFound |= damage == Damage::Cut && IsOlderState(damaged, report.unfinishedBytes);
        } catch (Kernel::ArchiveError const &) {
            isFound = true;
        }
        EXPECT_TRUE(isFound) << "case " << number;
        try {
            read += CountPixels(Archive::Open(path, "Pict", disk));
        } catch (Kernel::ArchiveError const &) {
        }
        saved += CountSalvagedPixels(damaged, disk, number);
    });
    auto const share = [&](std::uint64_t part) {
        return 100.0 * static_cast<double>(part) / static_cast<double>(caseCount * pixels);
    };
    char text[100];
    std::snprintf(text, sizeof text, "%.2f %% of the pixels read in place, %.2f %% salvaged", share(read),
                  share(saved));
    std::printf("%u cases: %s\n", caseCount, text);
    RecordProperty("Pixels", text);
    EXPECT_GE(saved, read) << "more can be salvaged than is shown in place";
    if (damage != Damage::Cut) {
        EXPECT_GT(saved, caseCount * pixels * 7 / 10);
    }
}

INSTANTIATE_TEST_SUITE_P(, DamagedDocument,
                         testing::Values(Damage::Byte, Damage::Bits, Damage::Sector, Damage::Noise, Damage::Swap,
                                         Damage::Cut),
                         [](auto const & kind) { return damageNames[static_cast<std::size_t>(kind.param)]; });
