// Real image files behind bitmaps: decoded when somebody needs the pixels, and a document keeps them as they are.
#include "colour/ICCManager.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "pixel/transfer/Invert.h"
#include "pixel/transfer/TransferManaged.h"
#include "storage/BitmapPixels.h"
#include "storage/DocumentEnvironment.h"

#include <tuple>

namespace Raster {
namespace {
using File = Kernel::Counted<CompressedRasterData>;

class PlacedFileTest : public DocumentTest {
protected:
    PlacedFileTest() {
        SetCompressedDataCodec(codecBefore);
        Allow(RasterSerialisationStrategy::AllowByReference);
    }

    static DynamicBitmap MakePicture(int width, int height) {
        auto bitmap = MakeBitmap(width, height, RGBA8, MipmapModeNone);
        // Nothing is wholly transparent: what can't be seen has no colour once it is decoded.
        ModelAccessor<RGBA8Bitmap> accessor(bitmap.GetTyped<RGBA8Tuple>());
        for (int y = 0; y < height; ++y) {
            accessor.SetToXY(0, y);
            for (int x = 0; x < width; ++x, accessor.Increment()) {
                auto pixel = MakePixel<RGBA8Tuple>(x, y, 5);
                pixel.channels[3] |= 1;
                accessor.Write(pixel);
            }
        }
        return bitmap;
    }
    static File Encode(DynamicBitmap const & bitmap, ICCManager::Profile const & profile = nullptr) {
        auto const data = Kernel::MakeCounted<CompressedRasterData>();
        ExportOptions options;
        options.SetICCProfile(profile);
        DynamicFile file;
        EXPECT_TRUE(file.Create(data, bitmap.GetWidth(), bitmap.GetHeight(), options, FileTypePNG, bitmap.GetFormat()));
        EXPECT_TRUE(Feed(file, bitmap, nullptr));
        return data;
    }
    static Holder Hold(File const & file) {
        return Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file);
    }
    static DynamicBitmap MakePendingOn(File const & file, int width, int height, Format format,
                                       ICCManager::Profile const & profile = nullptr) {
        auto bitmap = MakeBitmap(width, height, format, MipmapModeNone);
        auto const holder = Hold(file);
        bitmap.GetCore()->SetPendingBacking(holder);
        bitmap.SetBackingData(holder, profile);
        return bitmap;
    }
    static auto PixelsOf(DynamicBitmap const & bitmap) { return ReadAll(*bitmap.GetTyped<RGBA8Tuple>()); }
};
}

TEST_F(PlacedFileTest, GivesItsPixelsAndItsProfile) {
    auto const picture = MakePicture(300, 270);
    auto const profile =
        ICCManager::GetInstance().GetLinearRGBProfile(ICCManager::GetInstance().GetDefaultProfileForFormat(RGBA8));
    for (auto const & embedded : {profile, ICCManager::Profile()}) {
        auto const file = Encode(picture, embedded);
        EXPECT_FALSE(file->GetDecodedProfile()) << "not known before";
        auto const decoded = file->GetBitmapRepresentation(A8, 1, 1, nullptr);
        EXPECT_EQ(decoded->GetFormat(), RGBA8);
        EXPECT_EQ(PixelsOf(*decoded), PixelsOf(picture));
        if (embedded) {
            EXPECT_EQ(file->GetDecodedProfile(), embedded);
        }
    }
}

TEST_F(PlacedFileTest, InvertedFileShowsInverted) {
    auto picture = MakePicture(30, 20);
    auto const file = Encode(picture);
    file->SetInvert(true);
    Raster::Invert(picture, nullptr);
    EXPECT_EQ(PixelsOf(*file->GetBitmapRepresentation(RGBA8, 30, 20, nullptr)), PixelsOf(picture));
}

TEST_F(PlacedFileTest, AnotherSizeIsCutOrPaddedAtTheOriginAndNeverScaled) {
    auto const picture = MakePicture(300, 270);
    auto const file = Encode(picture);
    for (auto const & [width, height] :
         {std::pair(100, 50), std::pair(400, 300), std::pair(300, 100), std::pair(1, 1)}) {
        auto const bitmap = MakePendingOn(file, width, height, RGBA8);
        bitmap.ForceDelayLoad(nullptr);
        auto const all = PixelsOf(bitmap), original = PixelsOf(picture);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                bool const isInside = x < 300 && y < 270;
                ASSERT_EQ(all[std::size_t(y * width + x)],
                          isInside ? original[std::size_t(y * 300 + x)] : PixelOf<RGBA8Tuple>())
                    << x << ", " << y << " of " << width << " by " << height;
            }
    }
}

TEST_F(PlacedFileTest, AnotherFormatGoesThroughTheProfilesWhereBothAreKnown) {
    auto & manager = ICCManager::GetInstance();
    auto const sRGB = manager.GetDefaultProfileForFormat(RGBA8), linear = manager.GetLinearRGBProfile(sRGB);
    auto const picture = MakePicture(60, 40);
    auto const convert = [&](void * transform) {
        auto expected = MakeBitmap(60, 40, RGBA16, MipmapModeNone);
        TransferManaged(expected, picture, transform, nullptr);
        return BytesOf(expected);
    };
    auto const load = [&](ICCManager::Profile const & ofFile, ICCManager::Profile const & ofBitmap) {
        auto const bitmap = MakePendingOn(Encode(picture, ofFile), 60, 40, RGBA16, ofBitmap);
        bitmap.ForceDelayLoad(nullptr);
        return BytesOf(bitmap);
    };
    auto const plain = convert(nullptr);
    auto * const transform =
        manager.GetTransformForProfiles(RGBA8, linear, RGBA16, sRGB, Intent::RelativeColorimetric, true);
    ASSERT_NE(transform, nullptr);
    auto const managed = convert(transform);
    ASSERT_FALSE(plain == managed);
    EXPECT_TRUE(load(linear, sRGB) == managed);
    EXPECT_TRUE(load(linear, linear) == plain) << "the same on both sides";
    EXPECT_TRUE(load(linear, nullptr) == plain);
}

TEST_F(PlacedFileTest, DocumentKeepsItByteByByteUntilItIsPaintedOn) {
    auto const picture = MakePicture(500, 400);
    auto const file = Encode(picture);
    Bytes const original(file->GetData(), file->GetData() + file->GetSize());
    Save(Create(), MakePendingOn(file, 500, 400, RGBA8));
    auto const document = Open();
    auto loaded = Load(document);
    EXPECT_TRUE(loaded.IsPendingDelayLoad());
    {
        Kernel::DelayLoadHolder::TempLoadItem const item(loaded.GetBackingData().Get());
        auto const * const stored = item.GetItemAs<CompressedRasterData>();
        ASSERT_TRUE(stored);
        EXPECT_EQ(Bytes(stored->GetData(), stored->GetData() + stored->GetSize()), original);
    }
    loaded.ForceDelayLoad(nullptr);
    EXPECT_EQ(PixelsOf(loaded), PixelsOf(picture));
    EXPECT_LE(Save(document, loaded), 1u) << "the stream, with a byte for each tile";
    EXPECT_EQ(CountItems(document, "DatI"), 0u);
    Paint(*loaded.GetTyped<RGBA8Tuple>(), {10, 10, 20, 20}, 9);
    Save(document, loaded);
    EXPECT_EQ(CountItems(document, "Data"), 0u);
    EXPECT_EQ(PixelsOf(Load(Open())), PixelsOf(loaded));
}

// The empty picture of a file that nobody can decode is converted for a bitmap of another kind: still nothing.
TEST_F(PlacedFileTest, BrokenFileStaysBehindBitmapsOfEveryKind) {
    auto const file = Encode(MakePicture(300, 270));
    file->GetData()[20] ^= 0x40;
    AllowNothing();
    for (auto const & [width, height, format] :
         {std::tuple(300, 270, RGBA8), std::tuple(100, 500, RGBA8), std::tuple(300, 270, CMYKA8),
          std::tuple(10, 10, LABA16), std::tuple(300, 270, RGBAUF), std::tuple(300, 270, A8)}) {
        auto const bitmap = MakePendingOn(file, width, height, format);
        bitmap.ForceDelayLoad(nullptr);
        auto const document = Create();
        Save(document, bitmap);
        EXPECT_TRUE(HasProperty(document, "Bckg")) << width << " by " << height << ", format " << format;
    }
}

TEST_F(PlacedFileTest, BrokenFileShowsEmptyAndStays) {
    auto const file = Encode(MakePicture(300, 270));
    file->GetData()[20] ^= 0x40; // in its header, whose checksum now fails
    Bytes const broken(file->GetData(), file->GetData() + file->GetSize());
    auto const bitmap = MakePendingOn(file, 300, 270, RGBA8);
    bitmap.ForceDelayLoad(nullptr);
    EXPECT_EQ(bitmap.GetNonZeroBoundingBox(), Kernel::RectT<int>());
    for (bool const isAllowed : {true, false}) {
        if (!isAllowed)
            AllowNothing();
        Save(Create(), bitmap);
        auto const loaded = Load(Open());
        Kernel::DelayLoadHolder::TempLoadItem const item(loaded.GetBackingData().Get());
        auto const * const stored = item.GetItemAs<CompressedRasterData>();
        ASSERT_TRUE(stored);
        EXPECT_EQ(Bytes(stored->GetData(), stored->GetData() + stored->GetSize()), broken);
    }
}
}
