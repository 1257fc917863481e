#include "pixel/transfer/BitmapTransfer.h"

#include "kernel/Abort.h"
#include "storage/TestHolder.h"
#include "transfer/TransferPixels.h"

#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using RGBA8Picture = Slow::Picture<RGBA8Tuple>;
using RGBA8Pixel = PixelOf<RGBA8Tuple>;

float const opaque = 1.0f;

class TransferTest : public StorageTest {
protected:
    static Kernel::Counted<RGBA8Bitmap> MakeSolid(int width, int height, RGBA8Pixel const & pixel,
                                                  MipmapMode mode = MipmapModeNone) {
        RGBA8Picture picture(width, height);
        std::fill(picture.pixels.begin(), picture.pixels.end(), pixel);
        return MakeBitmap<RGBA8Tuple>(picture, mode);
    }
    static Kernel::Counted<RGBA8Bitmap> MakeEmpty(int width, int height, MipmapMode mode = MipmapModeNone) {
        return Kernel::Counted<RGBA8Bitmap>(new RGBA8Bitmap(width, height, mode, HardwareCachePolicy()));
    }
    static RGBA8Pixel ReadPixel(RGBA8Bitmap const & bitmap, int x, int y) {
        ModelConstAccessor<RGBA8Bitmap, Zero, IdentityTransform> accessor(&bitmap);
        accessor.SetToXY(x, y);
        RGBA8Pixel pixel;
        accessor.Read(pixel);
        return pixel;
    }
};

struct Turn {
    explicit Turn(double angle, double scale, double cx = 100, double cy = 100) {
        double const c = std::cos(angle) * scale, s = std::sin(angle) * scale;
        double const values[6]{c, -s, cx - c * cx + s * cy, s, c, cy - s * cx - c * cy};
        std::copy_n(values, 6, matrix);
    }
    double matrix[6];
};
}

TEST_F(TransferTest, DestinationOfAlphaZeroTakesTheSourceAsItIs) {
    auto const dest = MakeSolid(8, 8, {9, 9, 9, 0});
    Transfer(*dest, *MakeSolid(8, 8, {10, 20, 30, 128}), nullptr, &opaque, nullptr);
    EXPECT_EQ((RGBA8Pixel{10, 20, 30, 128}), ReadPixel(*dest, 3, 3));
}

TEST_F(TransferTest, OpacityCloseToOneIsOne) {
    auto const source = MakeSolid(8, 8, {10, 20, 30, 255});
    for (auto const & [opacity, alpha] :
         std::map<float, int>{{0.9999995f, 255}, {0.999998f, 254}, {0.99f, 252}, {2.0f, 255}, {-1.0f, 0}}) {
        auto const dest = MakeEmpty(8, 8);
        Transfer(*dest, *source, nullptr, &opacity, nullptr);
        EXPECT_EQ(alpha, ReadPixel(*dest, 0, 0)[3]) << opacity;
    }
    auto const dest = MakeEmpty(8, 8);
    float const nothing = std::numeric_limits<float>::quiet_NaN();
    Transfer(*dest, *source, nullptr, &nothing, nullptr);
    EXPECT_FALSE(dest->GetPlane(0).GetTile(0).IsAllocated());
}

TEST_F(TransferTest, SourceOfAlphaZeroTouchesNoTile) {
    auto const source = MakeSolid(600, 600, {200, 100, 50, 0});
    Turn const turn(0.3, 1.1);
    double const scaled[6]{0.8, 0, -7.3, 0, 1.3, 5.1};
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, &scaled[0]}) {
        auto const dest = MakeEmpty(600, 600);
        auto const holder = TestHolder::Create();
        dest->SetBackingData(holder, nullptr);
        Transfer(*dest, *source, nullptr, &opaque, matrix);
        for (int plane = 0; plane < 4; ++plane)
            for (std::size_t i = 0; i < dest->GetPlane(plane).GetTileCount(); ++i) {
                EXPECT_FALSE(dest->GetPlane(plane).GetTile(i).IsAllocated()) << plane << ", " << i;
                EXPECT_TRUE(dest->GetPlane(plane).GetTile(i).IsBackedBy(holder)) << plane << ", " << i;
            }
    }
}

TEST_F(TransferTest, OpaqueTilesInPlaceAreShared) {
    auto const source = MakeSolid(512, 512, {1, 2, 3, 255});
    source->Scrub(nullptr);
    ASSERT_TRUE(source->GetPlane(3).GetTile(0).IsFullTileBuffer());
    auto const dest = MakeSolid(512, 512, {200, 200, 200, 77});
    Transfer(*dest, *source, nullptr, &opaque, nullptr);
    for (int plane = 0; plane < 4; ++plane)
        for (std::size_t i = 0; i < 4; ++i)
            EXPECT_EQ(source->GetPlane(plane).GetTile(i).GetConstInner(),
                      dest->GetPlane(plane).GetTile(i).GetConstInner());
    EXPECT_EQ((RGBA8Pixel{1, 2, 3, 255}), ReadPixel(*dest, 300, 300));
}

TEST_F(TransferTest, OpaqueTilesAreSharedWhereTheGridsAgreeAndOnlyThere) {
    auto const source = MakeSolid(1024, 768, {1, 2, 3, 255});
    source->Scrub(nullptr);
    auto const holder = TestHolder::Create();
    source->SetBackingData(holder, nullptr);
    auto const countShared = [&](BitmapCore const & dest) {
        std::size_t shared = 0;
        for (std::size_t i = 0; i < dest.GetPlane(3).GetTileCount(); ++i) {
            shared += dest.GetPlane(3).GetTile(i).IsFullTileBuffer();
            EXPECT_FALSE(dest.GetPlane(0).GetTile(i).IsBackedBy(holder)) << "the source's file isn't the destination's";
        }
        return shared;
    };
    struct Case {
        double dx, dy;
        float opacity;
        Rect clip;
        std::size_t shared;
    };
    for (auto const & what : {Case{0, 0, 1.0f, {0, 0, 600, 600}, 4}, Case{256, 512, 1.0f, {0, 0, 600, 600}, 2},
                              Case{-256, 0, 1.0f, {0, 0, 600, 600}, 2}, Case{1, 0, 1.0f, {0, 0, 600, 600}, 0},
                              Case{0, 255, 1.0f, {0, 0, 600, 600}, 0}, Case{0, 0, 0.9f, {0, 0, 600, 600}, 0},
                              Case{0, 0, 1.0f, {1, 0, 600, 600}, 2}, Case{0, 0, 1.0f, {0, 0, 600, 511}, 2}}) {
        auto const before = MakePicture<RGBA8Tuple>(600, 600, 2);
        auto const dest = MakeBitmap<RGBA8Tuple>(before);
        double const matrix[6]{1, 0, what.dx, 0, 1, what.dy};
        TransferParams params;
        params.clip = &what.clip;
        Transfer(*dest, *source, &params, &what.opacity, matrix);
        EXPECT_EQ(what.shared, countShared(*dest)) << what.dx << ", " << what.dy;
        Slow::Picture<RGBA8Tuple> picture(1024, 768), expected = before;
        std::fill(picture.pixels.begin(), picture.pixels.end(), RGBA8Pixel{1, 2, 3, 255});
        auto const & clip = what.clip;
        Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, picture, {clip.left, clip.top, clip.right, clip.bottom}, 256,
                                               what.opacity, matrix);
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << what.dx << ", " << what.dy;
    }
}

TEST_F(TransferTest, AlphaThatOpacityMakesZeroTouchesNoTile) {
    auto const dest = MakeEmpty(300, 300);
    float const opacity = 0.3f; // 76 of 255, and 76 times 1 rounds to 0
    Turn const turn(0.3, 1.1);
    double const scaled[6]{0.8, 0, -7.3, 0, 1.3, 5.1};
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, &scaled[0]})
        Transfer(*dest, *MakeSolid(300, 300, {200, 100, 50, 1}), nullptr, &opacity, matrix);
    for (std::size_t i = 0; i < dest->GetPlane(0).GetTileCount(); ++i)
        EXPECT_FALSE(dest->GetPlane(3).GetTile(i).IsAllocated()) << i;
}

TEST_F(TransferTest, TilesWithoutAlphaAreNotReadAtAll) {
    auto const source = MakeEmpty(512, 256); // colour in both tiles, alpha in the first only
    for (std::size_t tile : {0u, 1u})
        for (int plane = 0; plane < (tile == 0 ? 4 : 3); ++plane) {
            MutableTileGuard const guard(source->GetPlane(plane).GetTile(tile));
            for (std::size_t i = 0; i < Tile::ByteCount / 4; ++i)
                guard.GetBuffer()[i] = static_cast<unsigned>(i * 2654435761u + tile) | 0x01010101u;
        }
    EvictEverything();
    auto const resident = [] { return MemoryManager::Instance().GetPlanarUsage(); };
    auto const before = resident();
    Turn const turn(0.1, 0.9, 380, 128);
    double const scaled[6]{0.9, 0, 38.3, 0, 1.1, -12.7};
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, &scaled[0]}) {
        auto const dest = MakeEmpty(512, 256);
        Rect const clip{300, 20, 460, 200}; // shows the second tile alone
        TransferParams params;
        params.clip = &clip;
        Transfer(*dest, *source, &params, &opaque, matrix);
        EXPECT_EQ(before, resident()) << "nothing came back from disk, nothing was allocated";
    }
}

TEST_F(TransferTest, ScaleOfTwoTakesNoLevelAndAnythingAboveTakesTheFirst) {
    for (auto const & [scale, usesLevel] : std::map<double, bool>{{2.0, false}, {2.01, true}}) {
        auto const source = MakeSolid(256, 256, {50, 60, 70, 255}, MipmapModeOnDemand);
        auto const dest = MakeEmpty(100, 100);
        double const matrix[6]{scale, 0, 0, 0, scale, 0};
        Transfer(*dest, *source, nullptr, &opaque, matrix);
        EXPECT_EQ(usesLevel, bool(source->GetMipmap(1))) << scale;
        EXPECT_EQ((RGBA8Pixel{50, 60, 70, 255}), ReadPixel(*dest, 50, 50));
    }
}

TEST_F(TransferTest, TheSmallerScaleChoosesTheLevel) {
    auto const source = MakeSolid(256, 256, {50, 60, 70, 255}, MipmapModeOnDemand);
    auto const dest = MakeEmpty(100, 100);
    double const matrix[6]{8, 0, 0, 0, 1.5, 0};
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_FALSE(source->GetMipmap(1));
}

TEST_F(TransferTest, ManualLevelsAreUsedWhenTheyAreThereAndNeverBuilt) {
    auto const source = MakeSolid(256, 256, {50, 60, 70, 255}, MipmapModeManual);
    auto const dest = MakeEmpty(100, 100);
    double const matrix[6]{3, 0, 0, 0, 3, 0};
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_FALSE(source->GetMipmap(1));
    source->UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(source->GetMipmap(1));
    // A level that differs from the picture shows which of the two was sampled.
    auto const level = source->GetMipmap(1);
    Transfer(*level, *MakeSolid(128, 128, {250, 0, 0, 255}), nullptr, &opaque, nullptr);
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_EQ((RGBA8Pixel{250, 0, 0, 255}), ReadPixel(*dest, 20, 20));
}

TEST_F(TransferTest, ImmediateAndOnDemandLevelsAreUsed) {
    double const matrix[6]{3, 0, 0, 0, 3, 0};
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand, MipmapModeOnDemandDefault}) {
        auto const source = MakeSolid(256, 256, {50, 60, 70, 255}, mode);
        if (mode == MipmapModeImmediate)
            source->UpdateMipmaps(0, nullptr); // as what wrote it did
        auto const dest = MakeEmpty(80, 80), again = MakeEmpty(80, 80);
        Transfer(*dest, *source, nullptr, &opaque, matrix);
        auto const level = source->GetMipmap(1);
        ASSERT_TRUE(level) << mode;
        Transfer(*level, *MakeSolid(128, 128, {250, 0, 0, 255}), nullptr, &opaque, nullptr);
        Transfer(*again, *source, nullptr, &opaque, matrix);
        EXPECT_EQ((RGBA8Pixel{50, 60, 70, 255}), ReadPixel(*dest, 20, 20)) << mode;
        EXPECT_EQ((RGBA8Pixel{250, 0, 0, 255}), ReadPixel(*again, 20, 20)) << mode;
    }
}

TEST_F(TransferTest, WhereNoLevelIsSmallEnoughThePictureIsSampled) {
    auto picture = MakePicture<RGBA8Tuple>(300, 280, 1);
    for (auto & pixel : picture.pixels)
        pixel[3] = 255;
    auto const source = MakeBitmap<RGBA8Tuple>(picture, MipmapModeOnDemand);
    auto const dest = MakeEmpty(8, 8);
    double const matrix[6]{5000, 0, -22350, 0, 5000, -22350}; // pixel (4, 4) shows (150, 150)
    RGBA8Picture expected(8, 8);
    Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, picture, {0, 0, 8, 8}, 256, opaque, matrix);
    EXPECT_EQ(255, expected.At(4, 4)[3]);
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest));
}

TEST_F(TransferTest, PixelsThatLieOnDiskMakeNoDifference) {
    auto const source = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(1100, 900, 1), MipmapModeOnDemand);
    auto const before = MakePicture<RGBA8Tuple>(1000, 800, 2);
    Turn const turn(0.4, 1.2, 500, 400), shrunk(0.4, 2.3, 500, 400);
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, shrunk.matrix}) {
        auto const resident = MakeBitmap<RGBA8Tuple>(before), evicted = MakeBitmap<RGBA8Tuple>(before);
        Transfer(*resident, *source, nullptr, &opaque, matrix);
        source->InvalidateMipmaps();
        auto & ledger = MemoryManager::Instance();
        auto const limit = ledger.GetDRAMLimit();
        ledger.SetDRAMLimit(1); // sixteen tiles
        Transfer(*evicted, *source, nullptr, &opaque, matrix);
        ledger.SetDRAMLimit(limit >> 20);
        EXPECT_EQ(ReadAll(*resident), ReadAll(*evicted));
    }
}

TEST_F(TransferTest, NoLevelsWithoutAModeOfTheirs) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 280, 1);
    auto const source = MakeBitmap<RGBA8Tuple>(picture);
    auto const dest = MakeEmpty(80, 80);
    double const matrix[6]{3.5, 0, 0, 0, 3.5, 0};
    RGBA8Picture expected(80, 80);
    Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, picture, {0, 0, 80, 80}, 256, opaque, matrix);
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest));
}

TEST_F(TransferTest, MatricesWithoutAnInverseOrFarFromEverythingDoNoHarm) {
    auto const source = MakePicture<RGBA8Tuple>(90, 80, 5);
    double const infinity = std::numeric_limits<double>::infinity();
    double const nan = std::numeric_limits<double>::quiet_NaN();
    double const far = double(1e30f);
    double const matrices[][6]{{0, 0, 20.5, 0, 0, 30.5},
                               {0, 0, 0, 0, 0, 0},
                               {1, 1, 0, 1, 1, 0},
                               {2, 4, -30, 1, 2, -30},
                               {1e-70, 0, 20.3, 0, 1e-70, 30.7},
                               {1e300, 0, 0, 0, 1e300, 0},
                               {1e308, -1e308, 0, 1e308, 1e308, 0},
                               {1e12, 3, 0, 2, 1e-9, 0},
                               {1, 0, 1e18, 0, 1, 0},
                               {1, 0, -1e300, 0, 1, 0},
                               {1, 0, 0, 0, 1, 16777217.5},
                               {far, 0, -10.5 * far, 0, 1, 0.5},
                               {-far, 0.25, 10.5 * far, 0.25, 1, 0.5},
                               {300, 0.5, -4000, 0.01, 200, -900}};
    for (auto const & matrix : matrices) {
        auto expected = MakePicture<RGBA8Tuple>(300, 40, 6);
        auto const dest = MakeBitmap<RGBA8Tuple>(expected);
        Transfer(*dest, *MakeBitmap<RGBA8Tuple>(source), nullptr, &opaque, matrix);
        Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, source, {0, 0, 300, 40}, 256, opaque, matrix);
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << matrix[0] << ", " << matrix[2];
    }
    for (double const bad : {infinity, -infinity, nan})
        for (std::size_t entry = 0; entry < 6; ++entry) {
            double matrix[6]{1, 0, 0, 0, 1, 0};
            matrix[entry] = bad;
            auto const dest = MakeEmpty(50, 50);
            Transfer(*dest, *MakeBitmap<RGBA8Tuple>(source), nullptr, &opaque, matrix);
            EXPECT_FALSE(dest->GetPlane(3).GetTile(0).IsAllocated());
        }
}

TEST_F(TransferTest, EdgesFadeOverOnePixel) {
    auto const source = MakeSolid(4, 4, {255, 255, 255, 255});
    auto const dest = MakeEmpty(10, 10);
    double const matrix[6]{1, 0, -2.5, 0, 1, -2.5};
    Transfer(*dest, *source, nullptr, &opaque, matrix);
    EXPECT_EQ(0, ReadPixel(*dest, 1, 4)[3]);
    EXPECT_EQ(128, ReadPixel(*dest, 2, 4)[3]);
    EXPECT_EQ((RGBA8Pixel{255, 255, 255, 128}), ReadPixel(*dest, 2, 4)); // nothing bleeds in from outside
    EXPECT_EQ(255, ReadPixel(*dest, 3, 4)[3]);
    EXPECT_EQ(128, ReadPixel(*dest, 6, 4)[3]);
    EXPECT_EQ(0, ReadPixel(*dest, 7, 4)[3]);
}

TEST_F(TransferTest, ClipsComposedEqualOneCall) {
    auto const source = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(400, 300, 8));
    Turn const turn(0.5, 0.8);
    double const scaled[6]{0.8, 0, -7.3, 0, 1.3, 5.1};
    std::mt19937 random(1);
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, &scaled[0]}) {
        auto const before = MakePicture<RGBA8Tuple>(520, 300, 9);
        auto const whole = MakeBitmap<RGBA8Tuple>(before), parts = MakeBitmap<RGBA8Tuple>(before);
        Transfer(*whole, *source, nullptr, &opaque, matrix);
        for (int top = 0; top < 300;) { // rows may be cut anywhere; columns too, but for positions that are stepped
            int const bottom = std::min(300, top + 1 + int(random() % 90));
            for (int left = 0; left < 520;) {
                int const right = matrix ? std::min(520, left + 256) : std::min(520, left + 1 + int(random() % 200));
                Rect const clip{left, top, right, bottom};
                TransferParams params;
                params.clip = &clip;
                Transfer(*parts, *source, &params, &opaque, matrix);
                left = right;
            }
            top = bottom;
        }
        EXPECT_EQ(ReadAll(*whole), ReadAll(*parts));
    }
}

TEST_F(TransferTest, SpansAndPixelsAgreeForEveryLeftOffset) {
    auto const source = MakePicture<RGBA8Tuple>(140, 20, 8);
    auto const sourceBitmap = MakeBitmap<RGBA8Tuple>(source);
    for (int left = 0; left < 32; ++left) {
        auto expected = MakePicture<RGBA8Tuple>(140, 20, 9);
        auto const dest = MakeBitmap<RGBA8Tuple>(expected);
        Rect const clip{left, 1, left + 70, 18};
        TransferParams params;
        params.clip = &clip;
        Transfer(*dest, *sourceBitmap, &params, &opaque, nullptr);
        Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, source, {left, 1, left + 70, 18}, 256, opaque, nullptr);
        ASSERT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << left;
    }
}

TEST_F(TransferTest, TheSourceMayBeTheDestination) {
    auto const source = MakePicture<RGBA8Tuple>(300, 300, 8);
    auto expected = source;
    auto const bitmap = MakeBitmap<RGBA8Tuple>(source);
    double const matrix[6]{1, 0, -7, 0, 1, -5};
    Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, source, {0, 0, 300, 300}, 256, opaque, matrix);
    Transfer(*bitmap, *bitmap, nullptr, &opaque, matrix);
    EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *bitmap));
}

TEST_F(TransferTest, ALevelMayReceiveItsOwnPicture) {
    auto const bitmap = MakeSolid(256, 256, {10, 20, 30, 128}, MipmapModeOnDemand);
    bitmap->UpdateMipmaps(0, nullptr);
    auto const level = bitmap->GetMipmap(1);
    ASSERT_TRUE(level);
    auto expected = ReadPixel(*level, 60, 60);
    double const matrix[6]{1, 0, 0.5, 0, 1, 0.5};
    Transfer(*level, *bitmap, nullptr, &opaque, matrix);
    Slow::Blend<RGBA8Tuple>(expected, {10, 20, 30, 128}, opaque, true);
    EXPECT_EQ(expected, ReadPixel(*level, 60, 60));
}

TEST_F(TransferTest, ColourUnderAlphaZeroNeverChangesAResult) {
    auto const with = MakePicture<RGBAUFTuple>(120, 100, 3);
    auto without = with;
    auto poisoned = with;
    float const infinity = std::numeric_limits<float>::infinity();
    for (std::size_t i = 0; i < with.pixels.size(); ++i)
        if (with.pixels[i][3] == 0.0f) {
            without.pixels[i] = {};
            poisoned.pixels[i] = {{infinity, std::numeric_limits<float>::quiet_NaN(), -infinity, 0.0f}};
        }
    Turn const turn(0.7, 0.9, 60, 50);
    double const half[6]{1, 0, 0.5, 0, 1, 0.5};
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix, &half[0]}) {
        auto const before = MakePicture<RGBA8Tuple>(120, 100, 4);
        auto const clean = MakeBitmap<RGBA8Tuple>(before), dirty = MakeBitmap<RGBA8Tuple>(before);
        Transfer(*clean, *MakeBitmap<RGBAUFTuple>(without), nullptr, &opaque, matrix);
        Transfer(*dirty, *MakeBitmap<RGBAUFTuple>(poisoned), nullptr, &opaque, matrix);
        EXPECT_EQ(ReadAll(*clean), ReadAll(*dirty));
    }
}

TEST_F(TransferTest, ColoursBeyondOnePassTheSampler) {
    auto source = MakePicture<RGBAUFTuple>(90, 60, 3);
    for (auto & pixel : source.pixels)
        for (std::size_t c = 0; c < 3; ++c)
            pixel[c] = pixel[c] * 1000.0f - 100.0f;
    Turn const turn(0.7, 0.9, 45, 30);
    RGBAUFBitmap dest(90, 60, MipmapModeNone, HardwareCachePolicy());
    Slow::Picture<RGBAUFTuple> expected(90, 60);
    Slow::Transfer<RGBAUFTuple, RGBAUFTuple>(expected, source, {0, 0, 90, 60}, 64, opaque, turn.matrix);
    Transfer(dest, *MakeBitmap<RGBAUFTuple>(source), nullptr, &opaque, turn.matrix);
    EXPECT_EQ("", FindDifference<RGBAUFTuple>(expected, dest));
    EXPECT_TRUE(std::ranges::any_of(expected.pixels, [](auto const & p) { return p[0] > 500.0f && p[3] < 0.9f; }));
}

TEST_F(TransferTest, InfiniteColoursShowWhereTheyHaveWeightAndNowhereElse) {
    auto source = MakePicture<RGBAUFTuple>(90, 60, 3);
    float const infinity = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    std::mt19937 random(5);
    for (int i = 0; i < 60; ++i)
        source.pixels[random() % source.pixels.size()] = {{i % 3 ? infinity : nan, -infinity, 1e38f, 0.5f}};
    Turn const turn(0.7, 0.9, 45, 30);
    double const across[6]{1, 0, 0.5, 0, 1, 0}, down[6]{1, 0, 0, 0, 1, -0.25}, quarter[6]{0, 1, 0, -1, 0, 60};
    for (double const * const matrix : {&across[0], &down[0], &quarter[0], turn.matrix}) {
        auto expected = MakePicture<RGBAUFTuple>(90, 60, 4);
        auto const dest = MakeBitmap<RGBAUFTuple>(expected);
        Slow::Transfer<RGBAUFTuple, RGBAUFTuple>(expected, source, {0, 0, 90, 60}, 64, opaque, matrix);
        Transfer(*dest, *MakeBitmap<RGBAUFTuple>(source), nullptr, &opaque, matrix);
        EXPECT_EQ("", FindDifference<RGBAUFTuple>(expected, *dest)) << matrix[0] << ", " << matrix[2];
    }
}

TEST_F(TransferTest, AThousandStampsOfAnyFloatAlphaStayInRange) {
    Slow::Picture<AFTuple> alphas(64, 4);
    std::mt19937 random(6);
    for (std::size_t i = 0; i < alphas.pixels.size(); ++i)
        alphas.pixels[i] = {{i % 4 == 0   ? std::ldexp(1.0f, -int(i) / 4)
                             : i % 4 == 1 ? std::nextafter(1.0f - std::ldexp(1.0f, -int(i) / 4), 0.0f)
                                          : float(random()) / 4294967296.0f}};
    auto const stamp = MakeBitmap<AFTuple>(alphas);
    for (float const opacity : {1.0f, 0.37f, 0.99f}) {
        BitmapOf<AFTuple> dest(64, 4, MipmapModeNone, HardwareCachePolicy());
        for (int i = 0; i < 1000; ++i) {
            Transfer(dest, *stamp, nullptr, &opacity, nullptr);
            for (auto const & pixel : ReadAll(dest)) {
                ASSERT_GE(pixel[0], 0.0f);
                ASSERT_LE(pixel[0], 1.0f);
            }
        }
    }
}

TEST_F(TransferTest, AThousandStampsKeepAlphaInRange) {
    auto const stamp = MakeBitmap<RGBAUFTuple>(MakePicture<RGBAUFTuple>(40, 40, 3));
    Kernel::Counted<RGBAUFBitmap> const dest(new RGBAUFBitmap(40, 40, MipmapModeNone, HardwareCachePolicy()));
    float const opacity = 0.37f;
    for (int i = 0; i < 1000; ++i)
        Transfer(*dest, *stamp, nullptr, &opacity, nullptr);
    for (auto const & pixel : ReadAll(*dest)) {
        EXPECT_GE(pixel[3], 0.0f);
        EXPECT_LE(pixel[3], 1.0f);
    }
}

TEST_F(TransferTest, AbortLeavesWholeRowsAndAStateToGoOnFrom) {
    auto const source = MakeSolid(1000, 1000, {200, 100, 0, 255});
    double const enlarge[6]{0.9, 0, 20.3, 0, 0.9, 20.3};
    for (double const * const matrix : {static_cast<double const *>(nullptr), &enlarge[0]})
        for (unsigned const stopAfter : {1u, 3u, 7u}) {
            auto const dest = MakeEmpty(900, 900);
            struct Stop {
                bool abort = false;
                unsigned after;
            } stop{false, stopAfter};
            TransferParams params;
            params.abort = &stop.abort;
            params.progressContext = &stop;
            params.progress = [](unsigned count, void * context, double) {
                auto & self = *static_cast<Stop *>(context);
                if (count >= self.after)
                    Kernel::RequestAbort(&self.abort);
            };
            Transfer(*dest, *source, &params, &opaque, matrix);
            auto const pixels = ReadAll(*dest);
            for (int y = 0; y < 900; ++y)
                for (int left = 0; left < 900; left += 256)
                    for (int x = left; x < std::min(900, left + 256); ++x)
                        ASSERT_EQ(pixels[std::size_t(y * 900 + left)], pixels[std::size_t(y * 900 + x)])
                            << x << ", " << y;
            EXPECT_TRUE(std::any_of(pixels.begin(), pixels.end(), [](auto const & pixel) { return pixel[3] == 0; }));
            Transfer(*dest, *source, nullptr, &opaque, matrix);
            auto const fresh = MakeEmpty(900, 900);
            Transfer(*fresh, *source, nullptr, &opaque, matrix);
            EXPECT_EQ(ReadAll(*fresh), ReadAll(*dest));
        }
}

TEST_F(TransferTest, AFlagThatIsSetAlreadyWritesNothing) {
    bool abort = true;
    TransferParams params;
    params.abort = &abort;
    auto const dest = MakeEmpty(50, 50);
    Transfer(*dest, *MakeSolid(50, 50, {1, 2, 3, 255}), &params, &opaque, nullptr);
    EXPECT_FALSE(dest->GetPlane(3).GetTile(0).IsAllocated());
}

TEST_F(TransferTest, TheErasedEntryRecordsWhatItWroteInTheLevels) {
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand, MipmapModeManual}) {
        DynamicBitmap dest(300, 300, RGBA8, mode, HardwareCachePolicy());
        dest.UpdateMipmaps(0, nullptr);
        ASSERT_TRUE(dest.GetMipmap(1));
        DynamicBitmap const source(MakeSolid(300, 300, {9, 8, 7, 255}));
        Rect const clip{10, 10, 20, 20};
        TransferParams params;
        params.clip = &clip;
        Transfer(dest, source, &params, &opaque, nullptr);
        EXPECT_EQ(mode == MipmapModeImmediate, bool(dest.GetMipmap(1))) << mode;
    }
}

TEST_F(TransferTest, LevelsThatWereToldAreThoseOfTheNewPicture) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 280, 2);
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand}) {
        DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(picture, mode));
        dest.InvalidateMipmaps();
        dest.UpdateMipmaps(0, nullptr);
        auto const fresh = MakeBitmap<RGBA8Tuple>(picture, MipmapModeManual);
        DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(300, 280, 3)));
        Turn const turn(0.2, 1.3);
        Rect const clip{31, 45, 200, 131};
        TransferParams params;
        params.clip = &clip;
        Transfer(dest, source, &params, &opaque, turn.matrix);
        Transfer(*fresh, *source.GetTyped<RGBA8Tuple>(), &params, &opaque, turn.matrix);
        dest.UpdateMipmaps(0, nullptr);
        fresh->UpdateMipmaps(0, nullptr);
        for (int level = 1; fresh->GetMipmap(level); ++level)
            EXPECT_EQ(ReadAll(*fresh->GetMipmap(level)), ReadAll(*dest.GetMipmap(level)->GetTyped<RGBA8Tuple>()))
                << mode << ", level " << level;
    }
}

TEST_F(TransferTest, LevelsAreToldOfAnAbortedTransferToo) {
    DynamicBitmap dest(600, 600, RGBA8, MipmapModeManual, HardwareCachePolicy());
    dest.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(dest.GetMipmap(1));
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    params.progressContext = &abort;
    params.progress = [](unsigned, void * context, double) { Kernel::RequestAbort(static_cast<bool *>(context)); };
    Transfer(dest, DynamicBitmap(MakeSolid(600, 600, {9, 8, 7, 255})), &params, &opaque, nullptr);
    EXPECT_FALSE(dest.GetMipmap(1));
}

TEST_F(TransferTest, LevelsAreToldOfATransferThatThrew) {
    DynamicBitmap dest(600, 600, RGBA8, MipmapModeManual, HardwareCachePolicy());
    dest.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(dest.GetMipmap(1));
    TransferParams params;
    params.progressContext = &params;
    params.progress = [](unsigned, void *, double) { throw std::runtime_error("no memory"); };
    EXPECT_THROW(Transfer(dest, DynamicBitmap(MakeSolid(600, 600, {9, 8, 7, 255})), &params, &opaque, nullptr),
                 std::runtime_error);
    EXPECT_FALSE(dest.GetAlphaBoundingBox().IsEmpty()) << "what was written stays";
    EXPECT_FALSE(dest.GetMipmap(1));
}

TEST_F(TransferTest, NullOpacityIsFull) {
    auto const dest = MakeEmpty(8, 8);
    Transfer(*dest, *MakeSolid(8, 8, {10, 20, 30, 40}), nullptr, nullptr, nullptr);
    EXPECT_EQ((RGBA8Pixel{10, 20, 30, 40}), ReadPixel(*dest, 3, 3));
}

TEST_F(TransferTest, WithoutAFormatNothingHappens) {
    DynamicBitmap nothing, dest(20, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    DynamicBitmap const source(MakeSolid(20, 20, {9, 8, 7, 255}));
    Transfer(nothing, source, nullptr, &opaque, nullptr);
    Transfer(dest, nothing, nullptr, &opaque, nullptr);
    EXPECT_TRUE(dest.GetAlphaBoundingBox().IsEmpty());
}
}
