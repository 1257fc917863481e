/// What tests of bitmaps in documents need: a document in memory, a decoder whose "files" are three bytes long,
/// pictures with tiles of every kind, and ways to look at what was stored.
#pragma once

#include "kernel/Abort.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryDisk.h"
#include "kernel/OutSerialiser.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StorageEnvironment.h"
#include "storage/StoredClasses.h"
#include "storage/TileGuard.h"

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Raster {
class DocumentTest : public StorageTest {
protected:
    static constexpr char const * path = "picture.doc";
    using Bytes = std::vector<std::uint8_t>;
    using Holder = Kernel::Counted<Kernel::DelayLoadHolder>;

    DocumentTest() : codecBefore(SetCompressedDataCodec(&testCodec)) {
        RegisterStoredClasses();
        decodes = inversions = conversions = 0;
    }
    ~DocumentTest() override { SetCompressedDataCodec(codecBefore); }

    // A "file" is its width and height in units of 4 pixels, and a seed of its pixels.
    static void Decode(Kernel::Counted<CompressedRasterData const> const & data, DynamicBitmap & bitmap,
                       Kernel::Consolidated<ICCProfile> &, DecodeProblems &, bool * abort) {
        ++decodes;
        if (data->GetSize() != 3 || Kernel::IsAborted(abort))
            return;
        bitmap = MakeBitmap(data->GetData()[0] * 4, data->GetData()[1] * 4, RGBA8);
        FillWith(bitmap, data->GetData()[2]);
    }
    static void Invert(DynamicBitmap & bitmap, bool *) {
        ++inversions;
        FillAll(bitmap, 200);
    }
    static void Convert(DynamicBitmap & dest, DynamicBitmap const &, Kernel::Consolidated<ICCProfile> const &,
                        Kernel::Consolidated<ICCProfile> const &, bool *) {
        ++conversions;
        FillAll(dest, 100);
    }
    static inline CompressedDataCodec const testCodec{Decode, Invert, Convert};
    static inline std::atomic<int> decodes{0}, inversions{0}, conversions{0};

    static DynamicBitmap MakeBitmap(int width, int height, Format format, MipmapMode mode = MipmapModeOnDemandDefault) {
        return DynamicBitmap(width, height, format, mode, HardwareCachePolicy::Default);
    }
    static Holder MakeFileHolder(Bytes const & bytes) {
        auto const file = Kernel::MakeCounted<CompressedRasterData>();
        file->CopyFrom(bytes.data(), bytes.size());
        return Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    }
    /// 600 by 600 pixels that are still in their file.
    static DynamicBitmap MakePending(std::uint8_t seed) {
        auto bitmap = MakeBitmap(600, 600, RGBA8);
        bitmap.GetCore()->SetPendingBacking(MakeFileHolder({150, 150, seed}));
        return bitmap;
    }

    template<class Function>
    static void ForEachTile(BitmapCore const & bitmap, Function && function) {
        auto & core = const_cast<BitmapCore &>(bitmap);
        for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
            for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i)
                function(core.GetPlane(plane).GetTile(i), plane, i);
    }
    static Tile & GetTile(DynamicBitmap & bitmap, int plane, std::size_t i) {
        return bitmap.GetCore()->GetPlane(plane).GetTile(i);
    }

    static void FillTile(Tile & tile, unsigned seed) {
        MutableTileGuard const guard(tile);
        std::mt19937 random(seed);
        auto * const words = guard.GetBuffer();
        for (std::size_t i = 0; i < Tile::ByteCount / 4; ++i)
            words[i] = static_cast<unsigned>(i / 3) * 0x01010101u + random() % 3;
    }
    /// Tiles of every kind: empty, zero, full, and with bytes of their own.
    static void FillWith(BitmapCore & bitmap, unsigned seed) {
        ForEachTile(bitmap, [&](Tile & tile, int plane, std::size_t i) {
            switch ((seed + i + static_cast<unsigned>(plane)) % 5) {
            case 0:
                break;
            case 1:
                tile = *Tile::GetZeroTile();
                break;
            case 2:
                tile = *Tile::GetFullTile();
                break;
            default:
                FillTile(tile, seed * 1000 + static_cast<unsigned>(plane) * 100 + static_cast<unsigned>(i));
            }
        });
    }
    static void FillWith(DynamicBitmap & bitmap, unsigned seed) { FillWith(*bitmap.GetCore(), seed); }
    /// Every tile has bytes of its own.
    static void FillAll(DynamicBitmap & bitmap, unsigned seed) {
        ForEachTile(*bitmap.GetCore(), [&](Tile & tile, int plane, std::size_t i) {
            FillTile(tile, seed * 1000 + static_cast<unsigned>(plane) * 100 + static_cast<unsigned>(i));
        });
    }

    static Bytes BytesOf(Tile const & tile) {
        ConstTileGuard const guard(tile);
        auto const * const first = reinterpret_cast<std::uint8_t const *>(guard.GetBuffer());
        return Bytes(first, first + Tile::ByteCount);
    }
    static std::vector<Bytes> BytesOf(BitmapCore const & bitmap) {
        std::vector<Bytes> bytes;
        ForEachTile(bitmap, [&](Tile & tile, int, std::size_t) { bytes.push_back(BytesOf(tile)); });
        return bytes;
    }
    static std::vector<Bytes> BytesOf(DynamicBitmap const & bitmap) { return BytesOf(*bitmap.GetCore()); }
    static std::vector<bool> AllocationOf(BitmapCore const & bitmap) {
        std::vector<bool> allocated;
        ForEachTile(bitmap, [&](Tile & tile, int, std::size_t) { allocated.push_back(tile.IsAllocated()); });
        return allocated;
    }

    using Archive = Kernel::Archive;
    using Document = Kernel::Counted<Archive>;
    Document Create(char const * name = path) const { return Archive::Create(name, "Test", disk); }
    Document Open(char const * name = path) const { return Archive::Open(name, "Test", disk); }

    /// What the next saves do.
    void Allow(unsigned flags, std::vector<int> sizes = {}) {
        strategy = Kernel::MakeCounted<RasterSerialisationStrategy>(std::move(sizes), flags);
    }
    void AllowNothing() { strategy.Reset(); }

    using Mode = Kernel::ArchiveSaveMode;
    using Write = std::function<void(Kernel::ArchiveSession &)>;
    std::uint64_t SaveWith(Document const & document, Write const & write, Mode mode = Mode::Update) const {
        auto session = document->CreateSession(mode);
        if (strategy)
            session->AddStrategy(strategy);
        write(*session);
        return document->CloseSession(std::move(session)).itemsAdded;
    }
    /// @return how many items that added.
    std::uint64_t Save(Document const & document, Kernel::Serialisable const & object, Mode mode = Mode::Update) const {
        return SaveWith(
            document, [&](auto & session) { session.StoreObject("Bitmap.dat", object); }, mode);
    }
    std::uint64_t SaveBoth(Document const & document, DynamicBitmap const & first, DynamicBitmap const & second) const {
        return SaveWith(document, [&](auto & session) {
            session.StoreObject("Bitmap.dat", first);
            session.StoreObject("Other.dat", second);
        });
    }

    /// A typed bitmap among the properties of a stream.
    static void StoreInline(Kernel::ArchiveSession & session, std::string const & stream, BitmapCore const & bitmap) {
        session.StoreProperties(stream, "Test", 1, [&](Kernel::OutSerialiser & out) { bitmap.SaveInline(out); });
    }
    /// Tells a store which items an object refers to, and writes nothing.
    class Enumerator final : public Kernel::OutSerialiser {
    public:
        explicit Enumerator(Kernel::FileStoreOut & out) : OutSerialiser(Kind::PathsOnly, out) {}
        void Close() override {}
        std::uint64_t written = 0;

    protected:
        void WriteOut(void const *, std::uint64_t size) override { written += size; }
    };

    /// What `write` writes in place of a bitmap's properties.
    void SaveProperties(Document const & document, std::function<void(Kernel::OutSerialiser &)> const & write) const {
        SaveWith(document, [&](auto & session) { session.StoreProperties("Bitmap.dat", "DyBm", 1, write); });
    }

    static auto Parse(Document const & document, char const * stream = "Bitmap.dat") {
        return Kernel::InSerialiserFile::ParseWithChecks(*document->OpenStream(stream), *document, false);
    }
    static DynamicBitmap Load(Document const & document, char const * stream = "Bitmap.dat") {
        auto const parsed = Parse(document, stream);
        DynamicBitmap bitmap;
        EXPECT_TRUE(bitmap.Load(*parsed, *document, parsed->GetRootVersion()));
        return bitmap;
    }
    static bool HasProperty(Document const & document, Kernel::IDTag tag) { return Parse(document)->HasProperty(tag); }
    static Bytes LoadStates(Document const & document, Kernel::IDTag tag) {
        Bytes states;
        Parse(document)->LoadTypeArrayI(tag, Kernel::PropType::UInt8, 1, states);
        return states;
    }
    /// How many items of a kind the document has.
    static std::size_t CountItems(Document const & document, Kernel::IDTag type) {
        std::size_t count = 0;
        for (auto const & item : document->GetInfo().items)
            count += item.type == type;
        return count;
    }

    Kernel::Counted<MemoryDisk> disk = Kernel::MakeCounted<MemoryDisk>();

    CompressedDataCodec const * const codecBefore; ///< that of the library

private:
    Kernel::Counted<RasterSerialisationStrategy> strategy;
};
}
