// Loads a bitmap out of a document: its properties, the blocks in them and the items that these refer to. What comes of
// it is looked at, drawn, saved by value and by reference, and must show the same when it is loaded again.
#include "DecodingLimit.h"
#include "FuzzTarget.h"
#include "storage/BitmapStore.h"

#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/Dispatch.h"
#include "kernel/FutureVersionException.h"
#include "kernel/MemoryDisk.h"
#include "kernel/OutStream.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "storage/BitmapCore.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"
#include "storage/TileGuard.h"

#include <memory>

using namespace Raster;
using Fuzz::Expect;
using Kernel::Counted;
using Kernel::MakeCounted;

namespace {
// A bitmap that is looked at, for speed. An empty one counts by its sides too: it may be inflated.
bool IsSmall(TileGrid const & grid) {
    return std::uint64_t(grid.tilesAcross + 1) * std::uint64_t(grid.tilesDown + 1) <= 64;
}

constexpr char const * stream = "Bitmap.dat";

Counted<DynamicBitmap> LoadBitmap(Kernel::InStream & properties, Kernel::FileStore & store) {
    try {
        auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(properties, store, false);
        auto bitmap = MakeCounted<DynamicBitmap>();
        return bitmap->Load(*parsed, store, parsed->GetRootVersion()) ? bitmap : nullptr;
    } catch (Kernel::PropertyStreamError const &) {
    } catch (Kernel::FutureVersionException const &) {
    }
    return {};
}

std::uint64_t HashTiles(BitmapCore & bitmap) {
    std::vector<std::uint64_t> hashes;
    for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < bitmap.GetPlane(plane).GetTileCount(); ++i) {
            auto const & tile = bitmap.GetPlane(plane).GetTile(i);
            tile.IncrementRefCountConst();
            hashes.push_back(Kernel::ArchiveLayout::Hash64(tile.GetConstBuffer(), Tile::ByteCount));
            tile.DecrementRefCountConst();
        }
    return Kernel::ArchiveLayout::Hash64(hashes.data(), hashes.size() * sizeof hashes[0]);
}

// Leaves a pending bitmap as it is.
std::uint64_t HashLoaded(DynamicBitmap const & bitmap) {
    Counted<DynamicBitmap> const copy(bitmap.Clone());
    copy->ForceDelayLoad(nullptr);
    return HashTiles(*copy->GetCore());
}

void LookAt(DynamicBitmap & bitmap) {
    bitmap.GetAllocatedBoundingBox();
    auto const box = bitmap.GetNonZeroBoundingBox();
    Expect(box.left >= 0 && box.right <= bitmap.GetWidth() && box.top >= 0 && box.bottom <= bitmap.GetHeight());
    bitmap.GetNonFullBoundingBox();
    bitmap.GetInverseAlphaBoundingBox();
    DynamicBitmap target(200, 200, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    Transfer(target, bitmap, nullptr, nullptr, nullptr);
    double const third[] = {3, 0, -20, 0, 3, -20};
    Transfer(target, bitmap, nullptr, nullptr, third); // reads a level
    bitmap.UpdateMipmaps(0, nullptr);
}

void ExpectSameAfterSave(DynamicBitmap const & bitmap, unsigned flags, std::uint64_t hash) {
    auto const archive = Kernel::Archive::Create("document", "Fuzz", MakeCounted<MemoryDisk>());
    try {
        auto session = archive->CreateSession();
        session->AddStrategy(MakeCounted<RasterSerialisationStrategy>(std::vector<int>{0}, flags));
        session->StoreObject(stream, bitmap);
        archive->CloseSession(std::move(session));
    } catch (Kernel::ArchiveError const &) { // an item can't be had
        return;
    } catch (Kernel::OutStream::WriteException const &) {
        return;
    }
    auto const again = LoadBitmap(*archive->OpenStream(stream), *archive);
    Expect(again && again->GetFormat() == bitmap.GetFormat() && again->GetWidth() == bitmap.GetWidth() &&
           again->GetHeight() == bitmap.GetHeight());
    again->ForceDelayLoad(nullptr);
    Expect(HashTiles(*again->GetCore()) == hash);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    RegisterStoredClasses();
    Fuzz::LimitDecoding();
    Kernel::Dispatch::SetThreadCount(1);
    Fuzz::Input input(data, size);
    auto const properties = input.TakeBytes(input.Take<std::uint32_t>());
    auto const store = MakeCounted<Fuzz::BitmapStore>(input);
    auto const bitmap = LoadBitmap(*MakeCounted<Kernel::MemoryInStream>(properties.data(), properties.size()), *store);
    auto * const core = bitmap ? bitmap->GetCore() : nullptr;
    if (!core || !IsSmall(core->GetGrid()))
        return 0;
    // One way in each run, for speed.
    auto const way = Kernel::ArchiveLayout::Hash64(data, size);
    if (way & 4)
        bitmap->InflateByPixels({1, 1, 300, 1}, (way & 8) != 0);
    if (way & 16)
        LookAt(*bitmap);
    ExpectSameAfterSave(*bitmap, way & 3, HashLoaded(*bitmap));
    return 0;
}
