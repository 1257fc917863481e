// Writes bitmaps as documents keep them, with their items, into a folder.
#include "FuzzTarget.h"
#include "SeedFolder.h"
#include "files/PNGMaker.h"
#include "storage/BitmapStore.h"

#include "colour/ICCManager.h"
#include "kernel/FileStoreOut.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"
#include "storage/BitmapCore.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstring>

using namespace Raster;
using Kernel::Counted;
using Kernel::MakeCounted;

namespace {
/// Collects items in the form that a run takes.
class ItemCollector final : public Kernel::FileStoreOut {
public:
    Kernel::ItemID StoreItem(Kernel::DelayLoadHolder & holder, Kernel::FileStoreOutPathGenerator const &,
                             Kernel::FileStoreCompressionHint const * hint) override {
        Kernel::DelayLoadHolder::TempLoadItem const temp(&holder);
        auto const bytes = MakeCounted<Kernel::MemoryOutStream>();
        temp.GetItem()->Save(*bytes, *this);
        Fuzz::StoredItem item;
        bool const isTile = &holder.GetItemType() == &Data::GetItemType();
        item.type = isTile ? Fuzz::StoredItem::Tile : Fuzz::StoredItem::File;
        item.stored = bytes->TakeData();
        auto encoded = Kernel::ItemCodec::Encode(item.stored, hint);
        if (encoded.codec != Kernel::ArchiveLayout::Codec::Raw) {
            item.codec = static_cast<std::uint8_t>(encoded.codec);
            item.sampleBytes = encoded.sampleBytes;
            item.stored = std::move(encoded.bytes);
        }
        items.push_back(std::move(item));
        return {1, items.size()};
    }
    Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const & object) override {
        auto const bytes = dynamic_cast<ICCProfile const &>(object).GetRawData();
        items.push_back({Fuzz::StoredItem::Profile, 0, 0, 0, {bytes.begin(), bytes.end()}});
        return {1, items.size()};
    }

    std::vector<Fuzz::StoredItem> items;
};

std::vector<std::uint8_t> BytesOf(DynamicBitmap const & bitmap) {
    Counted<DynamicBitmap> const copy(bitmap.Clone()); // a pending one stays so
    copy->ForceDelayLoad(nullptr);
    auto & core = *copy->GetCore();
    std::vector<std::uint8_t> bytes;
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i) {
            ConstTileGuard const guard(core.GetPlane(plane).GetTile(i));
            auto const * const first = reinterpret_cast<std::uint8_t const *>(guard.GetBuffer());
            bytes.insert(bytes.end(), first, first + Tile::ByteCount);
        }
    return bytes;
}

// A seed of which nothing is loaded leads nowhere.
void ExpectComesBack(Fuzz::Bytes const & seed, DynamicBitmap const & bitmap, bool withLevels) {
    Fuzz::Input input(seed.data(), seed.size());
    auto const properties = input.TakeBytes(input.Take<std::uint32_t>());
    auto const store = MakeCounted<Fuzz::BitmapStore>(input);
    auto const stream = MakeCounted<Kernel::MemoryInStream>(properties.data(), properties.size());
    DynamicBitmap loaded;
    Fuzz::Expect(loaded.Load(*Kernel::InSerialiserFile::ParseWithChecks(*stream, *store, false), *store, 1));
    Fuzz::Expect(loaded.IsPendingDelayLoad() == static_cast<bool>(bitmap.GetBackingData()));
    auto const bytes = BytesOf(loaded);
    Fuzz::Expect(bytes == BytesOf(bitmap));
    Fuzz::Expect(std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; }));
    Fuzz::Expect(static_cast<bool>(loaded.GetMipmap(1)) == withLevels);
}

void Save(Fuzz::SeedFolder const & folder, std::string const & name, DynamicBitmap const & bitmap, unsigned flags) {
    auto const properties = MakeCounted<Kernel::MemoryOutStream>();
    auto const store = MakeCounted<ItemCollector>();
    store->AddStrategy(MakeCounted<RasterSerialisationStrategy>(std::vector<int>{0}, flags));
    Kernel::OutSerialiserFile serialiser(*properties, *store, "DyBm", 1);
    bitmap.Save(serialiser);
    serialiser.Close();
    Fuzz::Output out;
    auto const bytes = properties->TakeData();
    out.Put(std::uint32_t(bytes.size())).PutAll(bytes);
    for (auto const & item : store->items)
        item.Put(out);
    ExpectComesBack(out.GetBytes(), bitmap, (flags & RasterSerialisationStrategy::SaveMipmaps) != 0);
    folder.Save(name, out.GetBytes());
}

// Tiles of every kind, in turn.
void Fill(BitmapCore & bitmap) {
    unsigned kind = 0;
    for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < bitmap.GetPlane(plane).GetTileCount(); ++i) {
            auto & tile = bitmap.GetPlane(plane).GetTile(i);
            switch (kind++ % 4) {
            case 0:
                tile.IncrementRefCountMutable();
                std::memset(tile.GetMutableBuffer(), 1 + plane, Tile::ByteCount / 2);
                tile.DecrementRefCountMutable();
                break;
            case 1:
                tile = *Tile::GetFullTile();
                break;
            case 2:
                tile = *Tile::GetZeroTile();
                break;
            }
        }
}

void SaveByReference(Fuzz::SeedFolder const & folder) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 20;
    auto const png = MakePNG(recipe);
    auto const file = MakeCounted<CompressedRasterData>();
    file->CopyFrom(png.data(), png.size());
    auto const holder = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    for (bool const isLoaded : {false, true}) {
        DynamicBitmap bitmap(20, 20, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
        bitmap.SetBackingData(holder, ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB));
        bitmap.GetCore()->SetPendingBacking(holder);
        if (isLoaded)
            bitmap.ForceDelayLoad(nullptr);
        Save(folder, isLoaded ? "loaded" : "pending", bitmap, RasterSerialisationStrategy::AllowByReference);
    }
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        RegisterStoredClasses();
        Tile::InitStaticTiles();
        for (auto const format : {RGBA8, IA16, CMYKA8, A8, AF}) {
            DynamicBitmap bitmap(300, 260, format, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
            Fill(*bitmap.GetCore());
            auto const name = "format" + std::to_string(int(format));
            Save(folder, name, bitmap, 0);
            Save(folder, name + "-levels", bitmap, RasterSerialisationStrategy::SaveMipmaps);
        }
        SaveByReference(folder);
    });
}
