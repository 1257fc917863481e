#include "host/Levels.h"

#include "files/FileTransfer.h"
#include "kernel/MemoryOutStream.h"
#include "storage/BitmapPixels.h"
#include "storage/CompressedRasterData.h"
#include "storage/StorageEnvironment.h"

namespace Host {
namespace {
using namespace Raster;

class LevelsTest : public StorageTest {
protected:
    Messages messages;
    Progress progress{messages, {}};
};

Kernel::Counted<RGBA8Bitmap> MakeBitmap(Size const & size) {
    Kernel::Counted<RGBA8Bitmap> bitmap(
        new RGBA8Bitmap(size.width, size.height, MipmapModeOnDemand, HardwareCachePolicy()));
    Paint(*bitmap);
    return bitmap;
}

/// The picture as a PNG file.
Kernel::Counted<CompressedRasterData const> MakeFile(Kernel::Counted<RGBA8Bitmap> const & bitmap) {
    Kernel::Counted<CompressedRasterData> const data(new CompressedRasterData);
    DynamicFile out;
    EXPECT_TRUE(out.Create(data, bitmap->GetWidth(), bitmap->GetHeight(), {}, FileTypePNG, RGBA8));
    EXPECT_TRUE(Feed(out, DynamicBitmap(bitmap), nullptr));
    return data;
}

TEST_F(LevelsTest, EqualTheLevelsOfABitmapWhateverTheBands) {
#ifdef RASTER_SANITIZED
    constexpr int levels[] = {1, 4};
#else
    constexpr int levels[] = {0, 1, 2, 5};
#endif
    // Heights around whole bands: of the widest, a band is one row of tiles.
    for (auto const & size : {Size{301, 270}, Size{17, 2}, Size{16, 16}, Size{6200, 511}, Size{6200, 512},
                              Size{6200, 777}, Size{6201, 1025}, Size{3, 5000}}) {
        auto const bitmap = MakeBitmap(size);
        auto const data = MakeFile(bitmap);
        for (int const level : levels) {
            Size const to{std::max(1, size.width >> level), std::max(1, size.height >> level)};
            DynamicFile file;
            ASSERT_TRUE(file.Create(data));
            int const chosen = ChooseLevel(size, {to.width, to.height});
            auto const drawn = DrawLevel(file, chosen, progress);
            bitmap->UpdateMipmaps(chosen, nullptr);
            DynamicBitmap expected(bitmap);
            if (chosen > 0)
                expected = *expected.GetMipmap(chosen);
            auto expectedPixels = ReadAll(*expected.GetTyped<RGBA8Tuple>());
            for (auto & pixel : expectedPixels)
                if (pixel[3] == 0)
                    pixel = {}; // colour under alpha 0 isn't drawn
            ASSERT_EQ(expectedPixels, ReadAll(*drawn.GetTyped<RGBA8Tuple>()))
                << size.width << " x " << size.height << ", level " << chosen;
        }
    }
}

TEST_F(LevelsTest, AreTheCoarsestThatTheResultDoesNotOutgrow) {
    EXPECT_EQ(0, ChooseLevel({100, 100}, {50, 50}));
    EXPECT_EQ(1, ChooseLevel({101, 101}, {50, 50}));
    EXPECT_EQ(2, ChooseLevel({1000, 1000}, {200, 200}));
    EXPECT_EQ(0, ChooseLevel({1000, 1000}, {10, 600})) << "the direction that shrinks less decides";
    EXPECT_EQ(0, ChooseLevel({100, 100}, {500, 500}));
    EXPECT_EQ(0, ChooseLevel({1000, 1}, {1, 1})) << "a bitmap of one row has no levels";
    for (auto const & size : {Size{17, 2}, Size{16, 16}, Size{1000, 3}, Size{40, 3000}, Size{5, 5}}) {
        int const level = ChooseLevel(size, {1, 1});
        auto const bitmap = MakeBitmap(size);
        DynamicBitmap const wrapper(bitmap);
        wrapper.UpdateMipmaps(0, nullptr);
        EXPECT_TRUE(level == 0 || wrapper.GetMipmap(level)) << size.width << " x " << size.height;
    }
}
}
}
