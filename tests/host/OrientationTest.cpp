#include "host/Orientation.h"

#include "storage/BitmapPixels.h"
#include "storage/StorageEnvironment.h"

#include <utility>

namespace Host {
namespace {
using namespace Raster;

class OrientationTest : public StorageTest {
protected:
    Messages messages;
    Progress progress{messages, {}};
};

/// Where the pixel (x, y) of the upright picture is stored, as EXIF defines it: by the sides that are the visual top
/// and left.
std::pair<int, int> FindStored(int orientation, int x, int y, int width, int height) {
    int const right = width - 1, bottom = height - 1;
    switch (orientation) {
    case 2:
        return {right - x, y};
    case 3:
        return {right - x, bottom - y};
    case 4:
        return {x, bottom - y};
    case 5:
        return {y, x};
    case 6:
        return {y, bottom - x};
    case 7:
        return {right - y, bottom - x};
    case 8:
        return {right - y, x};
    default:
        return {x, y};
    }
}

template<class Tuple>
void TestEveryOrientation(Progress & progress) {
    constexpr int width = 301, height = 270; // some tiles
    Kernel::Counted<BitmapOf<Tuple>> const bitmap(
        new BitmapOf<Tuple>(width, height, MipmapModeNone, HardwareCachePolicy()));
    Paint(*bitmap);
    for (int orientation = 0; orientation <= 9; ++orientation) {
        auto const upright = MakeUpright(DynamicBitmap(bitmap), orientation, progress);
        bool const isSideways = orientation >= 5 && orientation <= 8;
        ASSERT_EQ(isSideways ? height : width, upright.GetWidth()) << orientation;
        ASSERT_EQ(isSideways ? width : height, upright.GetHeight()) << orientation;
        auto const pixels = ReadAll(*upright.GetTyped<Tuple>());
        for (int y = 0; y < upright.GetHeight(); ++y)
            for (int x = 0; x < upright.GetWidth(); ++x) {
                auto const [storedX, storedY] = FindStored(orientation, x, y, width, height);
                auto expected = MakePixel<Tuple>(storedX, storedY);
                if (orientation >= 2 && orientation <= 8 && expected[Tuple::channelCount - 1] == 0)
                    expected = {}; // colour under alpha 0 goes
                ASSERT_EQ(expected, pixels[std::size_t(y) * std::size_t(upright.GetWidth()) + std::size_t(x)])
                    << "orientation " << orientation << " at " << x << ", " << y;
            }
    }
}

TEST_F(OrientationTest, MovesEveryPixelOfEightBitsAsItIs) { TestEveryOrientation<RGBA8Tuple>(progress); }
TEST_F(OrientationTest, MovesEveryPixelOfSixteenBitsAsItIs) { TestEveryOrientation<RGBA16Tuple>(progress); }
TEST_F(OrientationTest, MovesGreyAndInksAsTheyAre) {
    TestEveryOrientation<IA8Tuple>(progress);
    TestEveryOrientation<IA16Tuple>(progress);
    TestEveryOrientation<CMYKA8Tuple>(progress);
}

TEST_F(OrientationTest, SharesAPictureThatIsUpright) {
    DynamicBitmap const bitmap(10, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    EXPECT_EQ(bitmap.GetCore(), MakeUpright(bitmap, 1, progress).GetCore());
}
}
}
