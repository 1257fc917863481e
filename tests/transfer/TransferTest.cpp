#include "pixel/transfer/BitmapTransfer.h"

#include "kernel/Abort.h"
#include "kernel/Dispatch.h"
#include "storage/TestHolder.h"
#include "transfer/TransferPixels.h"

#include <hwy/targets.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <map>
#include <mutex>
#include <numbers>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using RGBA8Picture = Slow::Picture<RGBA8Tuple>;
using RGBA8Pixel = PixelOf<RGBA8Tuple>;

float const opaque = 1.0f;

class TransferTest : public StorageTest {
protected:
    ~TransferTest() override {
        Kernel::Dispatch::SetThreadCount(0);
        hwy::SetSupportedTargetsForTest(0);
    }

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
         std::map<float, int>{{0.9999995f, 255}, {0.99f, 252}, {2.0f, 255}, {-1.0f, 0}}) {
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
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix}) {
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

TEST_F(TransferTest, MatricesWithoutAnInverseOrFarFromEverythingDoNoHarm) {
    auto const source = MakePicture<RGBA8Tuple>(90, 80, 5);
    double const infinity = std::numeric_limits<double>::infinity();
    double const nan = std::numeric_limits<double>::quiet_NaN();
    double const matrices[][6]{{0, 0, 20.5, 0, 0, 30.5}, {1, 1, 0, 1, 1, 0},    {1e300, 0, 0, 0, 1e300, 0},
                               {1e12, 3, 0, 2, 1e-9, 0}, {1, 0, 1e18, 0, 1, 0}, {300, 0.5, -4000, 0.01, 200, -900}};
    for (auto const & matrix : matrices) {
        auto expected = MakePicture<RGBA8Tuple>(300, 40, 6);
        auto const dest = MakeBitmap<RGBA8Tuple>(expected);
        Transfer(*dest, *MakeBitmap<RGBA8Tuple>(source), nullptr, &opaque, matrix);
        if (std::fabs(matrix[0]) < 1000 && std::fabs(matrix[2]) < 1e6) { // the plain model knows no limits
            Slow::Transfer<RGBA8Tuple, RGBA8Tuple>(expected, source, {0, 0, 300, 40}, 256, opaque, matrix);
            EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << matrix[0];
        }
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
    std::mt19937 random(1);
    for (double const * const matrix : {static_cast<double const *>(nullptr), turn.matrix}) {
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

TEST_F(TransferTest, ProgressComesEverySixteenRowsInLineAndOnceATileElse) {
    struct Report {
        std::mutex mutex;
        std::vector<unsigned> counts;
    };
    auto const measure = [](int size, double const * matrix) {
        Report report;
        TransferParams params;
        params.progressContext = &report;
        params.progress = [](unsigned count, void * context, double) {
            auto & self = *static_cast<Report *>(context);
            std::lock_guard const lock(self.mutex);
            self.counts.push_back(count);
        };
        auto const dest = MakeEmpty(size, size);
        Transfer(*dest, *MakeSolid(size, size, {1, 2, 3, 99}), &params, &opaque, matrix);
        std::sort(report.counts.begin(), report.counts.end());
        return report.counts;
    };
    double const half[6]{1, 0, 0.5, 0, 1, 0.5};
    EXPECT_EQ(std::vector<unsigned>(7, 0u), measure(100, nullptr));
    EXPECT_EQ(std::vector<unsigned>(7, 0u), measure(100, half));
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3, 4}), measure(400, nullptr));
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3, 4}), measure(400, half));
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

TEST_F(TransferTest, WithoutAFormatNothingHappens) {
    DynamicBitmap nothing, dest(20, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    DynamicBitmap const source(MakeSolid(20, 20, {9, 8, 7, 255}));
    Transfer(nothing, source, nullptr, &opaque, nullptr);
    Transfer(dest, nothing, nullptr, &opaque, nullptr);
    EXPECT_TRUE(dest.GetAlphaBoundingBox().IsEmpty());
}

// The same bits for any number of threads and on every vector target: a table of digests, one line an operation.
TEST_F(TransferTest, DigestsAreConstantAlongThreadsAndTargets) {
    auto const source8 = MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(400, 300, 8), MipmapModeOnDemand);
    auto const source16 = MakeBitmap<RGBA16Tuple>(MakePicture<RGBA16Tuple>(400, 300, 8));
    auto const sourceFloat = MakeBitmap<RGBAUFTuple>(MakePicture<RGBAUFTuple>(400, 300, 8));
    double const turn[6]{0.75, -0.5, 30.25, 0.5, 0.75, -20.5}, shrink[6]{3.5, 0, 0, 0, 3.5, 0};
    float const opacity = 0.6f;
    struct Operation {
        char const * name;
        Format format;
        BitmapCore const * source;
        double const * matrix;
        float const * opacity;
        char const * digest; ///< the same on every machine: no step of these depends on the system's mathematics
    };
    Operation const operations[]{
        {"over, 8 bits", RGBA8, source8.Get(), nullptr, &opaque, "2cf66aaf5c3bbe27bdcb54e9343eebe2"},
        {"over at 0.6, 8 bits", RGBA8, source8.Get(), nullptr, &opacity, "413d93649d34282af976809287a0966f"},
        {"turned, 8 bits", RGBA8, source8.Get(), turn, &opaque, "65a9be6db92437af3e738230dba4acd1"},
        {"shrunk through levels, 8 bits", RGBA8, source8.Get(), shrink, &opaque, "52bb8be37ad9c8891a2aaf27dd0803e8"},
        {"turned, 16 bits", RGBA16, source16.Get(), turn, &opacity, "69b6134dd725b78a05112ffb03d1bada"},
        {"turned, floats", RGBAUF, sourceFloat.Get(), turn, &opacity, "f72f223c871ae0eb6c1c27abdea0eef7"},
        {"floats to CMYK", CMYKA8, sourceFloat.Get(), turn, &opaque, "8998a818c6b29ca30117afea91e00cff"},
        {"8 bits to grey", IA16, source8.Get(), nullptr, &opacity, "acd1173c9526f27924512c444e559111"}};
    for (auto const & operation : operations) {
        for (auto const target : hwy::SupportedAndGeneratedTargets())
            for (unsigned const threads : {1u, 2u, 8u}) {
                hwy::SetSupportedTargetsForTest(target);
                Kernel::Dispatch::SetThreadCount(threads);
                source8->InvalidateMipmaps();
                auto const dest = Kernel::MakeCounted<DynamicBitmap>(500, 280, operation.format, MipmapModeNone,
                                                                     HardwareCachePolicy());
                for (int pass = 0; pass < 2; ++pass)
                    Transfer(*dest->GetCore(), *operation.source, nullptr, operation.opacity, operation.matrix);
                unsigned char digest[16];
                GetBitmapMD5Digest(digest, dest);
                std::string text;
                for (unsigned char const byte : digest)
                    text += "0123456789abcdef"[byte >> 4], text += "0123456789abcdef"[byte & 15];
                EXPECT_EQ(operation.digest, text)
                    << operation.name << ", " << hwy::TargetName(target) << ", " << threads;
            }
    }
}
}
