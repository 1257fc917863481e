// What the test of tools/read-document works on.
//
//   SampleDocuments make FOLDER        documents in which everything is that a document can have
//   SampleDocuments describe FILE...   what the library says of each
//   SampleDocuments hashes             checksums of every length of input that is treated differently
#include "geometry/Spline.h"
#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/MetadataInterface.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/StoredClasses.h"
#include "storage/Tile.h"

#include <cinttypes>
#include <cstdio>
#include <string>

using namespace AlbumForTests;

namespace {
void FillTiles(Raster::DynamicBitmap & bitmap) {
    auto & core = *bitmap.GetCore();
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i) {
            auto & tile = core.GetPlane(plane).GetTile(i);
            if ((i + static_cast<std::size_t>(plane)) % 4 == 0)
                continue;
            if ((i + static_cast<std::size_t>(plane)) % 4 == 1) {
                tile = *Raster::Tile::GetZeroTile();
                continue;
            }
            auto const bytes = MakeBytes(static_cast<unsigned>(plane * 100) + static_cast<unsigned>(i));
            tile.IncrementRefCountMutable();
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t *>(tile.GetMutableBuffer()));
            tile.DecrementRefCountMutable();
        }
}

// One item for each predictor, one that can't be compressed, one that is not to be, and an empty one.
void SaveBlobs(OutSerialiser & serialiser) {
    auto const save = [&](IDTag tag, std::vector<std::uint8_t> bytes, FileStoreCompressionHint const * hint) {
        auto const holder = DelayLoadHolder::Create(Blob::GetType(), MakeBlob(std::move(bytes)));
        serialiser.SaveDelayLoadObject(tag, holder.Get(), FileStoreOutIndexedPathGenerator("", "b/"), hint);
    };
    for (int sampleBytes : {1, 2, 4, 8}) {
        // Samples that rise by a few at a time, which is what the predictor is for.
        std::vector<std::uint8_t> bytes(65536);
        std::mt19937 random(static_cast<unsigned>(sampleBytes));
        std::uint64_t sample = 0;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i % static_cast<std::size_t>(sampleBytes) == 0)
                sample += 0x0101010101 * (random() % 5) + random() % 3;
            bytes[i] = static_cast<std::uint8_t>(sample >> 8 * (i % static_cast<std::size_t>(sampleBytes)));
        }
        FileStoreCompressionHintGeneral const hint(3, static_cast<CompressionPredictor>(sampleBytes),
                                                   CompressionStriping::Rows256);
        save({'P', 'r', 'd', static_cast<char>('0' + sampleBytes)}, std::move(bytes), &hint);
    }
    std::vector<std::uint8_t> noise(5000);
    std::mt19937 random(7);
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<std::uint8_t>(random()); });
    FileStoreCompressionHintGeneral const plain(3);
    save("Nois", noise, &plain);
    save("RawB", MakeBytes(5, 70000), nullptr);
    save("Empt", {}, &plain);
}

void SavePictures(OutSerialiser & serialiser) {
    RectT<int> const rect{1, -2, 300, 400};
    serialiser.SaveType("Name", StringUtf8("A layer"));
    serialiser.SaveType("Rect", rect);
    serialiser.SaveType("Opac", 0.75);
    serialiser.SaveRawData("Raw ", "0123456789", 10);
    char name = '1';
    for (auto const format : {Raster::RGBA8, Raster::RGBA16, Raster::RGBAUF, Raster::IA8}) {
        Raster::DynamicBitmap bitmap(700, 300, format, Raster::MipmapModeNone, Raster::HardwareCachePolicy::Default);
        FillTiles(bitmap);
        serialiser.SaveObject({'L', 'a', 'y', name++}, bitmap);
    }
    auto const file = MakeCounted<Raster::CompressedRasterData>();
    auto const bytes = MakeBytes(9, 12345);
    file->CopyFrom(bytes.data(), bytes.size());
    auto const backing =
        DelayLoadHolder::Create(Raster::CompressedRasterData::GetTypeFileStoreItemType(), Counted<FileStoreItem>(file));
    serialiser.SaveDelayLoadObject("Bckg", backing.Get(), FileStoreOutIndexedPathGenerator("", "c/"), nullptr);
    SaveBlobs(serialiser);
    serialiser.SaveObject("Crve", *Geometry::Spline::GetDefaultProfile(4));
    MetadataInterface metadata;
    metadata.SetMetadataText("Author", "nobody");
    metadata.SetMetadataText("Name", "A \"layer\"");
    metadata.Save(serialiser);
}

// Three commits: what the second one changed is dead in the third.
void MakeAlbumDocument(std::string const & path) {
    auto const archive = Archive::Create(path, "Test");
    auto album = MakeAlbum(6);
    Save(archive, album);
    Change(album.blobs[2], MakeBytes(1000));
    Save(archive, album);
    album.blobs.pop_back();
    Change(album.blobs[2], MakeBytes(1001, 40000));
    Save(archive, album);
}

void MakePicturesDocument(std::string const & path) {
    auto const archive = Archive::Create(path, "Pict");
    auto session = archive->CreateSession();
    session->StoreProperties("Document.dat", "Docu", 3, SavePictures);
    std::string const note = "not a stream of properties";
    session->StoreStream("Notes/\xc3\xa9t\xc3\xa9", note.data(), note.size());
    archive->CloseSession(std::move(session));
}

void Describe(char const * path) {
    try {
        auto const archive = Archive::Open(path, IDTag());
        auto const info = archive->GetInfo();
        std::printf("archive %" PRIu64 " %" PRIu64 " %u %s\n", info.fileBytes, info.deadBytes, info.commitNumber,
                    archive->GetArchiveTag().GetText().data());
        for (auto const & item : info.items)
            std::printf("item %" PRIu64 " %s %" PRIu64 " %" PRIu64 " %016" PRIx64 ":%" PRIu64 " %s\n", item.offset,
                        item.type.GetText().data(), item.rawSize, item.storedSize, item.id.commit, item.id.number,
                        item.name.c_str());
    } catch (ArchiveError const &) {
        std::printf("closed\n");
    }
    try {
        auto const report = VerifyArchive(path);
        std::printf("verified %zu %" PRIu64 " %" PRIu64 "\n", report.problems.size(), report.itemsChecked,
                    report.unfinishedBytes);
    } catch (ArchiveError const &) {
        std::printf("refused\n");
    }
}

void PrintHashes() {
    std::vector<std::uint8_t> bytes(20000);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * i >> 3 ^ i);
    for (std::size_t size = 0; size <= bytes.size(); size += size < 300 ? 1 : size < 2200 ? 61 : 1777) {
        auto const wide = ArchiveLayout::GetHash128(bytes.data(), size);
        std::printf("%zu %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", size, ArchiveLayout::Hash64(bytes.data(), size),
                    wide.low, wide.high);
    }
}
}

int main(int count, char ** arguments) {
    std::string const command = count > 1 ? arguments[1] : "";
    if (command == "make" && count == 3) {
        Raster::RegisterStoredClasses();
        Raster::Tile::InitStaticTiles();
        MakeAlbumDocument(arguments[2] + std::string("/album.doc"));
        MakePicturesDocument(arguments[2] + std::string("/pictures.doc"));
    } else if (command == "describe") {
        for (int i = 2; i < count; ++i)
            Describe(arguments[i]);
    } else if (command == "hashes") {
        PrintHashes();
    } else {
        return 2;
    }
    return 0;
}
