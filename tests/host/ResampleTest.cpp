#include "host/Resample.h"

#include "host/Picture.h"
#include "storage/BitmapPixels.h"
#include "storage/StorageEnvironment.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace Host {
namespace {
using namespace Raster;
using Pixel = PixelOf<RGBA8Tuple>;

class ResampleTest : public StorageTest {
protected:
    Messages messages;
    Progress progress{messages, {}};
};

/// By way of the bitmap's own levels.
DynamicBitmap Resize(DynamicBitmap const & bitmap, int width, int height, Progress & progress) {
    Size const from{bitmap.GetWidth(), bitmap.GetHeight()}, to{width, height};
    int const level = ChooseLevel(from, to);
    if (level > 0)
        bitmap.UpdateMipmaps(level, nullptr);
    return Resample(level > 0 ? DynamicBitmap(*bitmap.GetMipmap(level)) : bitmap, level, from, to, progress);
}

Kernel::Counted<RGBA8Bitmap> MakeBitmap(Size const & size, std::vector<Pixel> const & pixels) {
    Kernel::Counted<RGBA8Bitmap> bitmap(
        new RGBA8Bitmap(size.width, size.height, MipmapModeOnDemand, HardwareCachePolicy()));
    ModelAccessor<RGBA8Bitmap> accessor(bitmap.Get());
    auto pixel = pixels.begin();
    for (int y = 0; y < size.height; ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < size.width; ++x, accessor.Increment())
            accessor.Write(*pixel++);
    }
    return bitmap;
}

std::vector<Pixel> MakeOpaquePixels(Size const & size) {
    std::vector<Pixel> pixels;
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            pixels.push_back(MakePixel<RGBA8Tuple>(x, y));
            pixels.back()[3] = 255;
        }
    return pixels;
}

Size const sizes[] = {{1, 1}, {2, 3}, {3, 2}, {64, 64}, {65, 63}, {255, 257}, {300, 41}, {17, 700}};

TEST_F(ResampleTest, KeepsOneColourToTheEdgesAtAnySize) {
    Pixel const colour{201, 100, 3, 255};
    for (auto const & from : sizes) {
        auto const bitmap =
            MakeBitmap(from, std::vector<Pixel>(std::size_t(from.width) * std::size_t(from.height), colour));
        for (auto const & to : sizes) {
            auto const result = Resize(DynamicBitmap(bitmap), to.width, to.height, progress);
            ASSERT_EQ(to.width, result.GetWidth());
            ASSERT_EQ(to.height, result.GetHeight());
            for (auto const & pixel : ReadAll(*result.GetTyped<RGBA8Tuple>()))
                ASSERT_EQ(colour, pixel) << from.width << " x " << from.height << " to " << to.width << " x "
                                         << to.height;
        }
    }
}

TEST_F(ResampleTest, KeepsAPictureOfTheSameSize) {
    Size const size{300, 270};
    auto const pixels = MakeOpaquePixels(size);
    auto const result = Resize(DynamicBitmap(MakeBitmap(size, pixels)), size.width, size.height, progress);
    EXPECT_EQ(pixels, ReadAll(*result.GetTyped<RGBA8Tuple>()));
}

/// Bilinear, the edges going on beyond themselves, in double precision.
double Sample(std::vector<Pixel> const & pixels, Size const & from, double u, double v, int channel) {
    u = std::clamp(u - 0.5, 0.0, from.width - 1.0);
    v = std::clamp(v - 0.5, 0.0, from.height - 1.0);
    int const left = int(u), top = int(v);
    double const fractionX = u - left, fractionY = v - top;
    auto const at = [&](int x, int y) {
        x = std::min(x, from.width - 1);
        y = std::min(y, from.height - 1);
        return double(pixels[std::size_t(y) * std::size_t(from.width) + std::size_t(x)][channel]);
    };
    double const upper = at(left, top) * (1 - fractionX) + at(left + 1, top) * fractionX;
    double const lower = at(left, top + 1) * (1 - fractionX) + at(left + 1, top + 1) * fractionX;
    return upper * (1 - fractionY) + lower * fractionY;
}

TEST_F(ResampleTest, EqualsTheSlowWayUpToHalfTheSize) {
    Size const from{150, 90};
    auto const pixels = MakeOpaquePixels(from);
    auto const bitmap = MakeBitmap(from, pixels);
    for (Size const & to : {Size{75, 45}, Size{149, 89}, Size{151, 91}, Size{100, 77}, Size{600, 400}, Size{333, 45}}) {
        auto const result =
            ReadAll(*Resize(DynamicBitmap(bitmap), to.width, to.height, progress).GetTyped<RGBA8Tuple>());
        for (int y = 0; y < to.height; ++y)
            for (int x = 0; x < to.width; ++x)
                for (int channel = 0; channel < 4; ++channel) {
                    double const u = (x + 0.5) * from.width / to.width, v = (y + 0.5) * from.height / to.height;
                    // Positions are stepped in single precision, so that noise like this is off by what that costs.
                    ASSERT_NEAR(Sample(pixels, from, u, v, channel),
                                result[std::size_t(y) * std::size_t(to.width) + std::size_t(x)][channel], 1.0)
                        << to.width << " x " << to.height << " at " << x << ", " << y;
                }
    }
}

// One direction far down, the other one not at all: stripes that wide steps would pass over, or hit alone.
TEST_F(ResampleTest, ShrinksOneDirectionByTheMeanOfAllPixels) {
    for (bool const isTall : {false, true})
        for (int const length : {512, 700, 1022}) {
            Size const from = isTall ? Size{60, length} : Size{length, 60};
            std::vector<Pixel> pixels;
            for (int y = 0; y < from.height; ++y)
                for (int x = 0; x < from.width; ++x)
                    pixels.push_back((isTall ? y : x) % 2 ? Pixel{255, 255, 255, 255} : Pixel{0, 0, 0, 255});
            auto const bitmap = MakeBitmap(from, pixels);
            for (int const to : {1, 7, 32, 100}) {
                auto const result = isTall ? Resize(DynamicBitmap(bitmap), 50, to, progress)
                                           : Resize(DynamicBitmap(bitmap), to, 50, progress);
                auto const shrunk = ReadAll(*result.GetTyped<RGBA8Tuple>());
                for (auto const & pixel : shrunk) {
                    ASSERT_NEAR(pixel[0], 127.5, 2) << length << " to " << to;
                    ASSERT_EQ(pixel[3], 255);
                }
            }
        }
}

TEST_F(ResampleTest, StretchesWhatHasNoLevels) {
    std::vector<Pixel> pixels(1000);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = i % 2 ? Pixel{200, 0, 0, 255} : Pixel{100, 0, 0, 255};
    auto const result = Resize(DynamicBitmap(MakeBitmap({1000, 1}, pixels)), 3, 5, progress);
    for (auto const & pixel : ReadAll(*result.GetTyped<RGBA8Tuple>()))
        EXPECT_NEAR(pixel[0], 150, 2);
}

TEST_F(ResampleTest, ShrinksByTheMeanOfAllPixels) {
    Size const from{512, 512};
    std::vector<Pixel> pixels;
    for (int y = 0; y < from.height; ++y)
        for (int x = 0; x < from.width; ++x) // single white points that a coarse sampler would miss or overrate
            pixels.push_back((x % 8 == 5 && y % 4 == 2) ? Pixel{255, 255, 255, 255} : Pixel{0, 0, 0, 255});
    auto const result = Resize(DynamicBitmap(MakeBitmap(from, pixels)), 32, 32, progress);
    for (auto const & pixel : ReadAll(*result.GetTyped<RGBA8Tuple>())) {
        ASSERT_NEAR(255 / 32.0, pixel[0], 3); // each of the levels rounds down
        ASSERT_EQ(255, pixel[3]);
    }
}

TEST_F(ResampleTest, KeepsTransparencyTransparent) {
    Size const from{100, 100};
    auto pixels = MakeOpaquePixels(from);
    for (std::size_t i = 0; i < pixels.size() / 2; ++i)
        pixels[i] = {};
    auto const result = Resize(DynamicBitmap(MakeBitmap(from, pixels)), 50, 50, progress);
    auto const shrunk = ReadAll(*result.GetTyped<RGBA8Tuple>());
    for (std::size_t i = 0; i < shrunk.size(); ++i)
        ASSERT_EQ(i < shrunk.size() / 2 ? 0 : 255, shrunk[i][3]) << i;
    EXPECT_FALSE(IsOpaque(result));
}
}
}
