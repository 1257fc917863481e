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
double const turn[6]{0.75, -0.5, 30.25, 0.5, 0.75, -20.5};

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
    for (double const * const matrix : {static_cast<double const *>(nullptr), &turn[0]}) {
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
        EXPECT_EQ("", FindDifference<Tuple>(this->Read(*whole), *parts)) << (matrix ? "turned" : "as it is");
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
