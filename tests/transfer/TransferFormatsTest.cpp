// What holds for one pair of formats as for every other: cuts, offsets, a bitmap that is its own source.
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "transfer/EveryFormat.h"
#include "transfer/TransferPixels.h"

#include <cmath>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
float const opaque = 1.0f;
double const turn[6]{0.75, -0.5, 30.25, 0.5, 0.75, -20.5}, scaled[6]{0.8, 0, -7.3, 0, 1.3, 5.1};

template<class Tuple>
class TransferOfFormat : public StorageTest {
protected:
    ~TransferOfFormat() override { Kernel::Dispatch::SetThreadCount(0); }
    static constexpr int tileWidth = 256 / Tuple::sampleSize;

    static Kernel::Counted<BitmapOf<Tuple>> MakeWithLevels(Slow::Picture<Tuple> const & picture) {
        auto const bitmap = MakeBitmap<Tuple>(picture, MipmapModeManual);
        bitmap->InvalidateMipmaps();
        bitmap->UpdateMipmaps(0, nullptr);
        return bitmap;
    }
    static Slow::Picture<Tuple> Read(BitmapOf<Tuple> const & bitmap) {
        Slow::Picture<Tuple> picture(bitmap.GetWidth(), bitmap.GetHeight());
        picture.pixels = ReadAll(bitmap);
        return picture;
    }
};
TYPED_TEST_SUITE(TransferOfFormat, EveryTuple, FormatNames);
}

TYPED_TEST(TransferOfFormat, ClipsComposedEqualOneCall) {
    using Tuple = TypeParam;
    auto const source = MakeBitmap<RGBA16Tuple>(MakePicture<RGBA16Tuple>(200, 300, 8));
    auto const before = MakePicture<Tuple>(270, 300, 9);
    float const opacity = 0.8f;
    std::mt19937 random(1);
    for (double const * const matrix : {static_cast<double const *>(nullptr), &turn[0], &scaled[0]}) {
        auto const whole = MakeBitmap<Tuple>(before), parts = MakeBitmap<Tuple>(before);
        Transfer(*whole, *source, nullptr, &opacity, matrix);
        for (int top = 0; top < 300;) { // rows may be cut anywhere; columns too, but for positions that are stepped
            int const bottom = std::min(300, top + 1 + int(random() % 90));
            for (int left = 0; left < 270;) {
                int const right = std::min(270, left + (matrix ? this->tileWidth : 1 + int(random() % 100)));
                Rect const clip{left, top, right, bottom};
                TransferParams params;
                params.clip = &clip;
                Transfer(*parts, *source, &params, &opacity, matrix);
                left = right;
            }
            top = bottom;
        }
        EXPECT_EQ("", FindDifference<Tuple>(this->Read(*whole), *parts)) << (matrix == turn     ? "turned"
                                                                             : matrix == scaled ? "scaled"
                                                                                                : "as it is");
    }
}

TYPED_TEST(TransferOfFormat, SpansAndPixelsAgreeForEveryLeftOffset) {
    using Tuple = TypeParam;
    auto const source = MakePicture<RGBA8Tuple>(140, 12, 8);
    auto const sourceBitmap = MakeBitmap<RGBA8Tuple>(source);
    auto const before = MakePicture<Tuple>(140, 12, 9);
    double const half[6]{1, 0, 0.5, 0, 1, 0.25};
    for (double const * const matrix : {static_cast<double const *>(nullptr), &half[0]})
        for (int left = 0; left < 32; ++left) {
            auto expected = before;
            auto const dest = MakeBitmap<Tuple>(before);
            Rect const clip{left, 1, left + 70, 11};
            TransferParams params;
            params.clip = &clip;
            Transfer(*dest, *sourceBitmap, &params, &opaque, matrix);
            Slow::Transfer<Tuple, RGBA8Tuple>(expected, source, {left, 1, left + 70, 11}, this->tileWidth, opaque,
                                              matrix);
            ASSERT_EQ("", FindDifference<Tuple>(expected, *dest)) << left;
        }
}

TYPED_TEST(TransferOfFormat, MatricesOfEveryKindEqualTheSlowModel) {
    using Tuple = TypeParam;
    constexpr int width = 290, height = 70;
    auto const source = MakePicture<Tuple>(200, 150, 8);
    auto const sourceBitmap = MakeBitmap<Tuple>(source);
    auto const before = MakePicture<Tuple>(width, height, 9);
    std::mt19937 random(2);
    auto const number = [&](double low, double high) { return low + (high - low) * double(random()) / 4294967295.0; };
    for (int round = 0; round < 36; ++round) {
        double const sx = number(0.2, 2.0) * (random() % 3 ? 1 : -1), sy = number(0.2, 2.0) * (random() % 3 ? 1 : -1);
        double const sign = random() % 2 ? 1 : -1, angle = number(0, 6.28);
        double const c = std::cos(angle), s = std::sin(angle);
        double const linear[6][4]{{sx, 0, 0, sy},                                // scaled, perhaps mirrored
                                  {sign, 0, 0, 1},                               // mirrored, or as it is
                                  {0, sign, -sign, 0},                           // turned by a quarter
                                  {-1, 0, 0, -1},                                // by a half
                                  {sx * c, -sy * s, sx * s, sy * c},             // by anything
                                  {1, number(-1.5, 1.5), number(-1.5, 1.5), 1}}; // slanted
        auto const & l = linear[round % 6];
        double const x = number(0, 200), y = number(0, 150); // shown in the middle
        double cx = x - l[0] * width / 2 - l[1] * height / 2, cy = y - l[2] * width / 2 - l[3] * height / 2;
        if (round % 4 == 1) {
            cx = std::round(cx);
            cy = std::round(cy);
        }
        double const matrix[6]{l[0], l[1], cx, l[2], l[3], cy};
        float const opacity = round % 5 ? 1.0f : 0.6f;
        Rect const clip = round % 2 ? Rect{0, 0, width, height}
                                    : Rect{int(random() % 100), int(random() % 30), 110 + int(random() % 180),
                                           32 + int(random() % 38)};
        auto expected = before;
        auto const dest = MakeBitmap<Tuple>(before);
        TransferParams params;
        params.clip = &clip;
        Slow::Transfer<Tuple, Tuple>(expected, source, {clip.left, clip.top, clip.right, clip.bottom}, this->tileWidth,
                                     opacity, matrix);
        Transfer(*dest, *sourceBitmap, &params, &opacity, matrix);
        ASSERT_EQ("", FindDifference<Tuple>(expected, *dest))
            << "round " << round << ": " << l[0] << ", " << l[1] << ", " << cx << ", " << l[2] << ", " << l[3] << ", "
            << cy;
    }
}

TYPED_TEST(TransferOfFormat, OpaqueTilesInPlaceAreTakenByHandle) {
    using Tuple = TypeParam;
    auto picture = MakePicture<Tuple>(2 * this->tileWidth + 10, 300, 8);
    for (auto & pixel : picture.pixels)
        pixel[Tuple::channelCount - 1] = typename Tuple::Storage(Tuple::First::maximum);
    auto const source = MakeBitmap<Tuple>(picture);
    source->Scrub(nullptr);
    auto expected = MakePicture<Tuple>(2 * this->tileWidth + 10, 300, 9);
    auto const dest = MakeBitmap<Tuple>(expected);
    Slow::Transfer<Tuple, Tuple>(expected, picture, {0, 0, picture.width, 300}, this->tileWidth, opaque, nullptr);
    Transfer(*dest, *source, nullptr, &opaque, nullptr);
    for (int plane = 0; plane < dest->GetPlaneCount(); ++plane)
        for (int column : {0, 1})
            EXPECT_EQ(source->GetPlane(plane).GetTile(column, 0).GetConstInner(),
                      dest->GetPlane(plane).GetTile(column, 0).GetConstInner())
                << plane << ", " << column;
    EXPECT_EQ("", FindDifference<Tuple>(expected, *dest));
}

TYPED_TEST(TransferOfFormat, WhatDoesNotShowTouchesNoTile) {
    using Tuple = TypeParam;
    auto picture = MakePicture<RGBA16Tuple>(300, 280, 8);
    for (auto & pixel : picture.pixels)
        pixel[3] = 0;
    auto const source = MakeBitmap<RGBA16Tuple>(picture);
    for (double const * const matrix : {static_cast<double const *>(nullptr), &turn[0], &scaled[0]}) {
        BitmapOf<Tuple> dest(280, 270, MipmapModeNone, HardwareCachePolicy());
        Transfer(dest, *source, nullptr, &opaque, matrix);
        EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
    }
}

TYPED_TEST(TransferOfFormat, TheSourceMayBeTheDestination) {
    using Tuple = TypeParam;
    auto const before = MakePicture<Tuple>(280, 270, 8);
    double const moved[6]{1, 0, -7, 0, 1, -5};
    for (double const * const matrix : {&moved[0], &turn[0]})
        for (unsigned const threads : {1u, 8u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            auto expected = before;
            Slow::Transfer<Tuple, Tuple>(expected, before, {0, 0, 280, 270}, this->tileWidth, opaque, matrix);
            auto const bitmap = MakeBitmap<Tuple>(before);
            Transfer(*bitmap, *bitmap, nullptr, &opaque, matrix);
            EXPECT_EQ("", FindDifference<Tuple>(expected, *bitmap)) << threads << " threads";
        }
}

TYPED_TEST(TransferOfFormat, ALevelMayReceiveItsPictureAndAPictureItsLevel) {
    using Tuple = TypeParam;
    auto const picture = MakePicture<Tuple>(300, 280, 1);
    {
        auto const bitmap = this->MakeWithLevels(picture);
        auto const level = bitmap->GetMipmap(1);
        ASSERT_TRUE(level);
        auto expected = this->Read(*level);
        Slow::Transfer<Tuple, Tuple>(expected, picture, {0, 0, 150, 140}, this->tileWidth, opaque, turn);
        Transfer(*level, *bitmap, nullptr, &opaque, turn);
        EXPECT_EQ("", FindDifference<Tuple>(expected, *level));
    }
    {
        auto const bitmap = this->MakeWithLevels(picture);
        auto const level = bitmap->GetMipmap(1);
        auto expected = picture;
        Slow::Transfer<Tuple, Tuple>(expected, this->Read(*level), {0, 0, 300, 280}, this->tileWidth, opaque, turn);
        Transfer(*bitmap, *level, nullptr, &opaque, turn);
        EXPECT_EQ("", FindDifference<Tuple>(expected, *bitmap));
    }
}

TYPED_TEST(TransferOfFormat, ALevelMayReceiveItsPictureThroughItself) {
    using Tuple = TypeParam;
    auto const bitmap = this->MakeWithLevels(MakePicture<Tuple>(300, 280, 1));
    auto const level = bitmap->GetMipmap(1);
    auto const before = this->Read(*level);
    double const shrink[6]{3, 0, 5, 0, 3, 4}, onLevel[6]{1.5, 0, 2.5, 0, 1.5, 2};
    auto expected = before;
    Slow::Transfer<Tuple, Tuple>(expected, before, {0, 0, 150, 140}, this->tileWidth, opaque, onLevel);
    Transfer(*level, *bitmap, nullptr, &opaque, shrink);
    EXPECT_EQ("", FindDifference<Tuple>(expected, *level));
}

TYPED_TEST(TransferOfFormat, EachLevelIsSampledByAMatrixOfItsScale) {
    using Tuple = TypeParam;
    auto const bitmap = this->MakeWithLevels(MakePicture<Tuple>(300, 280, 1));
    for (auto const & [scale, level] : {std::pair{1.9, 0}, {2.01, 1}, {4.0, 1}, {4.01, 2}, {9.0, 3}}) {
        double const c = std::cos(0.3) * scale, s = std::sin(0.3) * scale, k = 1.0 / (1 << level);
        double const matrix[6]{c, -s, 40.3, s, c, -10.7};
        double const scaled[6]{c * k, -s * k, 40.3 * k, s * k, c * k, -10.7 * k};
        auto const dest = MakeBitmap<RGBA8Tuple>(Slow::Picture<RGBA8Tuple>(120, 100));
        Slow::Picture<RGBA8Tuple> expected(120, 100);
        auto const sampled = level ? bitmap->GetMipmap(level) : bitmap;
        ASSERT_TRUE(sampled) << level;
        Slow::Transfer<RGBA8Tuple, Tuple>(expected, this->Read(*sampled), {0, 0, 120, 100}, 256, opaque, scaled);
        Transfer(*dest, *bitmap, nullptr, &opaque, matrix);
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << "scale " << scale;
    }
}
}
