// RecordDocument FILE: writes a document in which everything is that the format knows, for tests/data. See the page
// there before you record anew.
#include "storage/RecordedDocument.h"

#include "colour/ICCManager.h"
#include "colour/ICCProfileSet.h"
#include "geometry/Spline.h"
#include "kernel/Album.h"
#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/MetadataInterface.h"
#include "kernel/OutSerialiser.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"

#include <cstdio>
#include <exception>

using namespace Kernel;
using namespace RecordedDocument;

namespace {
struct Layer {
    char const * name;
    PointT<int> offset;
    float opacity;
    DynamicBitmap bitmap;
    Counted<DelayLoadHolder> placedFile;
    bool hasProfile;
};

ICCManager::Profile GetProfile() { return ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8); }

DynamicBitmap MakeBacked(Counted<DelayLoadHolder> const & file, bool isPending) {
    auto bitmap = DynamicBitmap(placedWidth, placedHeight, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    bitmap.GetCore()->SetPendingBacking(file);
    bitmap.SetBackingData(file, GetProfile());
    if (!isPending)
        bitmap.ForceDelayLoad(nullptr);
    return bitmap;
}

std::vector<Layer> MakeLayers() {
    auto const file = DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), MakePNG());
    auto painted = MakeBacked(file, false);
    PaintOn(painted);
    auto levels = MakeDrawn(300, 280, RGBA8, MipmapModeOnDemandDefault);
    levels.UpdateMipmaps(0, nullptr);
    return {{"By value, with levels", {0, 0}, 1, levels, {}, true},
            {"Sixteen bits", {10, -20}, 0.5f, MakeDrawn(150, 100, RGBA16), {}, false},
            {"gr\xc3\xbc\xc3\x9f Gott", {0, 0}, 1, MakeDrawn(70, 90, IA8), {}, false},
            {"Solid", {0, 0}, 0.25f, MakeSolid(), {}, false},
            {"Placed", {5, 5}, 1, MakeBacked(file, true), file, true},
            {"Placed and seen", {100, 5}, 1, MakeBacked(file, false), file, true},
            {"Placed and painted", {200, 5}, 0, painted, file, true}};
}

void SaveLayer(ArchiveSession & session, std::size_t number, Layer const & layer) {
    char name[32];
    std::snprintf(name, sizeof name, "Layer-%04zu.dat", number);
    session.StoreProperties(name, "Layr", 1, [&](OutSerialiser & out) {
        out.SaveType("Name", StringUtf8(layer.name));
        out.SaveType("Offs", layer.offset);
        out.SaveType("Opac", layer.opacity);
        out.SaveType("Dpi ", 300.0);
        if (layer.hasProfile)
            out.SaveSharedObject("Prof", GetProfile().Get());
        out.SaveDelayLoadObject("File", layer.placedFile.Get(), FileStoreOutIndexedPathGenerator("", "c/"), nullptr);
        out.SaveObject("Bmap", layer.bitmap);
        // Levels may come to be filtered in another way: these are known by their checksum.
        if (auto const level = layer.bitmap.GetMipmap(1))
            out.SaveType("LvlC", GetChecksum(*level));
    });
}

void SaveRoot(OutSerialiser & out, std::size_t layerCount) {
    out.SaveType("Widt", 700);
    out.SaveType("Heig", 500);
    out.SaveType("Laye", static_cast<std::uint32_t>(layerCount));
    ICCManager::ICCProfileSet profiles;
    profiles.SetProfileForFormat(RGBA8, GetProfile());
    profiles.SetIntent(Intent::Saturation);
    profiles.SetBlackPointCompensation(true);
    if (!out.StartClassTestI("Prfs"))
        return;
    out.StartClassBeginI(profiles.GetClassProperties().GetClassUID(), profiles.GetClassProperties().GetSchemaVersion());
    profiles.Save(out);
    out.EndPropClassI();
}

// One property of each type, and what is unusual about items.
void SaveProperties(OutSerialiser & out) {
    out.SaveType("Ui8 ", std::uint8_t(200));
    out.SaveType("Ui16", std::uint16_t(60000));
    out.SaveType("Ui32", std::uint32_t(4000000000u));
    out.SaveType("Ui64", std::uint64_t(1) << 63);
    out.SaveType("In8 ", std::int8_t(-100));
    out.SaveType("In16", std::int16_t(-30000));
    out.SaveType("In32", -2000000000);
    out.SaveType("In64", std::int64_t(-1) << 62);
    out.SaveType("Flt ", 0.1f);
    out.SaveType("Dbl ", 0.1);
    out.SaveType("Bool", true);
    out.SaveType("Utf8", StringUtf8("\xe2\x82\xac"));
    out.SaveType("Ut16", StringUtf16(u"\u00e4\U0001f600"));
    out.SaveRawData("Raw ", "\0\1\2", 3);
    out.SaveType("PntI", PointT<int>{-1, 2});
    out.SaveType("Size", SizeT<int>{640, 480});
    out.SaveType("Rect", RectT<int>{-4, 3, 2, 1});
    out.SaveType("PntD", PointT<double>{-0.5, 1e300});
    std::uint8_t const values[] = {1, 0, 2, 0, 3, 0};
    out.SaveTypeArrayI("Arra", PropType::UInt16, values, 2, 3);
    out.SaveTypeI("Late", static_cast<PropType>(999), "of a type that comes later", 26);
    out.SaveObject("Crve", *Geometry::Spline::GetDefaultProfile(4));
    if (out.StartObjectArrayTestI("Crvs")) {
        out.StartObjectArrayBeginI(2);
        out.SaveObjectI(*Geometry::Spline::GetDefaultProfile(0));
        out.SaveObjectI(Geometry::Spline());
    }
    MetadataInterface metadata;
    metadata.SetMetadataText("Author", "nobody");
    metadata.Save(out);
    auto const saveBlob = [&](IDTag tag, std::vector<std::uint8_t> bytes, FileStoreCompressionHint const * hint) {
        auto const holder =
            DelayLoadHolder::Create(AlbumForTests::Blob::GetType(), AlbumForTests::MakeBlob(std::move(bytes)));
        out.SaveDelayLoadObject(tag, holder.Get(), FileStoreOutIndexedPathGenerator("", "b/"), hint);
    };
    FileStoreCompressionHintGeneral const plain(3),
        eight(3, CompressionPredictor::Bytes8, CompressionStriping::Rows256);
    std::vector<std::uint8_t> rising(65536);
    for (std::size_t i = 0; i < rising.size(); ++i)
        rising[i] = static_cast<std::uint8_t>((i / 8 * 0x10203040506u) >> 8 * (i % 8));
    saveBlob("Pred", rising, &eight);
    saveBlob("Cmpr", std::vector<std::uint8_t>(5000, 7), &plain);
    saveBlob("RawI", {1, 2, 3, 4, 5}, nullptr);
    saveBlob("Empt", {}, &plain);
}

void Save(Counted<Archive> const & archive, std::vector<Layer> const & layers) {
    auto session = archive->CreateSession();
    session->AddStrategy(MakeCounted<RasterSerialisationStrategy>(
        std::vector<int>{0},
        unsigned(RasterSerialisationStrategy::AllowByReference) | unsigned(RasterSerialisationStrategy::SaveMipmaps)));
    for (std::size_t i = 0; i < layers.size(); ++i)
        SaveLayer(*session, i + 1, layers[i]);
    session->StoreProperties("Document.dat", "RDoc", 1, [&](OutSerialiser & out) { SaveRoot(out, layers.size()); });
    session->StoreProperties("Types.dat", "Type", 7, SaveProperties);
    session->StoreStream("Notes/\xc3\xa9t\xc3\xa9", "not a stream of properties", 26);
    archive->CloseSession(std::move(session));
}
}

int main(int count, char ** arguments) {
    if (count != 2) {
        std::fputs("RecordDocument FILE\n", stderr);
        return 2;
    }
    try {
        RegisterStoredClasses();
        Tile::InitStaticTiles();
        auto const archive = Archive::Create(arguments[1], archiveTag);
        auto layers = MakeLayers();
        auto const last = layers.back();
        layers.pop_back();
        Save(archive, layers);
        layers.push_back(last);
        Save(archive, layers); // with a history, and something dead in it
        return 0;
    } catch (std::exception const & error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
