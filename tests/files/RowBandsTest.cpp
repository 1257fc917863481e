// Pictures that are decoded in bands: the same pixels as of a whole one, and less memory.
#include "files/RowBands.h"

#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "files/JPEGTesting.h"
#include "files/PNGMaker.h"
#include "kernel/Dispatch.h"
#include "pixel/PixelMemory.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "storage/CompressedRasterData.h"
#include "transfer/TransferPixels.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using Data = Kernel::Counted<CompressedRasterData const>;

class RowBandsTest : public StorageTest {
protected:
    ~RowBandsTest() override { Kernel::Dispatch::SetThreadCount(0); }
};

std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }

Data MakeData(std::vector<std::uint8_t> const & bytes) {
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(bytes.data(), bytes.size());
    return data;
}

struct Sample {
    std::string name;
    std::vector<std::uint8_t> bytes;
};

std::vector<Sample> MakeSamples(int width, int height) {
    std::vector<Sample> samples;
    auto const addPNG = [&](char const * name, int type, int depth, bool isInterlaced) {
        PNGRecipe recipe;
        recipe.width = width;
        recipe.height = height;
        recipe.colourType = type;
        recipe.depth = depth;
        recipe.isInterlaced = isInterlaced;
        samples.push_back({name, MakePNG(recipe)});
    };
    addPNG("PNG, opaque", PNG_COLOR_TYPE_RGB, 8, false);
    addPNG("PNG, alpha", PNG_COLOR_TYPE_RGB_ALPHA, 8, false);
    addPNG("PNG, 16 bits", PNG_COLOR_TYPE_RGB_ALPHA, 16, false);
    addPNG("PNG, grey", PNG_COLOR_TYPE_GRAY, 4, false);
    addPNG("PNG, interlaced", PNG_COLOR_TYPE_RGB_ALPHA, 8, true);
    auto const addJPEG = [&](char const * name, J_COLOR_SPACE in, J_COLOR_SPACE out, int sampling, bool isProgressive) {
        JPEGRecipe recipe;
        recipe.width = width;
        recipe.height = height;
        recipe.inSpace = in;
        recipe.fileSpace = out;
        recipe.horizontalSampling = recipe.verticalSampling = sampling;
        recipe.isProgressive = isProgressive;
        samples.push_back({name, MakeJPEG(recipe)});
    };
    addJPEG("JPEG", JCS_RGB, JCS_YCbCr, 2, false);
    addJPEG("JPEG, progressive", JCS_RGB, JCS_YCbCr, 2, true);
    addJPEG("JPEG, grey", JCS_GRAYSCALE, JCS_GRAYSCALE, 1, false);
    addJPEG("JPEG, CMYK", JCS_CMYK, JCS_YCCK, 1, false);
    return samples;
}

DynamicFile Open(std::vector<std::uint8_t> const & bytes) {
    DynamicFile file;
    EXPECT_TRUE(file.Create(MakeData(bytes)));
    return file;
}

DynamicBitmap MakeBitmap(int width, int height, Format format, MipmapMode mode = MipmapModeNone) {
    return DynamicBitmap(width, height, format, mode, HardwareCachePolicy());
}

/// Something to draw over.
DynamicBitmap MakeFilled(int width, int height, Format format) {
    DynamicBitmap const painted(Raster::MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(width, height, 9)));
    auto bitmap = MakeBitmap(width, height, format);
    Transfer(bitmap, painted, nullptr, nullptr, nullptr);
    return bitmap;
}

bool AreEqual(DynamicBitmap const & a, DynamicBitmap const & b) {
    return a.GetFormat() == b.GetFormat() && VisitFormat(a.GetFormat(), [&](auto tuple) {
               using Tuple = decltype(tuple);
               return ReadAll(*a.GetTyped<Tuple>()) == ReadAll(*b.GetTyped<Tuple>());
           });
}
}

TEST(BandCut, CutsEveryPictureIntoBandsWithoutGaps) {
    for (int height = 1; height <= 40; ++height)
        for (int bandHeight = 1; bandHeight <= 12; ++bandHeight)
            for (int first = 1; first <= bandHeight; ++first) {
                BandCut const cut(height, bandHeight, first);
                auto const what = testing::Message() << height << " by " << bandHeight << ", first " << first;
                ASSERT_GE(cut.GetCount(), 1) << what;
                ASSERT_EQ(cut.GetTop(0), 0) << what;
                ASSERT_EQ(cut.GetTop(cut.GetCount()), height) << what;
                for (int i = 0; i < cut.GetCount(); ++i) {
                    int const rows = cut.GetTop(i + 1) - cut.GetTop(i);
                    bool const isFirst = i == 0, isLast = i == cut.GetCount() - 1;
                    ASSERT_GE(rows, 1) << what;
                    ASSERT_TRUE(isLast || rows == (isFirst ? first : bandHeight)) << what;
                    ASSERT_LT(rows, (isFirst ? first : bandHeight) + bandHeight) << what;
                    ASSERT_TRUE(isFirst || cut.GetTop(i) % bandHeight == first % bandHeight) << what;
                }
            }
}

TEST_F(RowBandsTest, DrawingOnceEqualsDrawing) {
    constexpr int width = 270, height = 780;
#ifdef RASTER_SANITIZED
    auto const threadCounts = {4u};
#else
    auto const threadCounts = {1u, 2u, 8u};
#endif
    struct Case {
        int dx, dy;
        Rect clip;
        float opacity;
    };
    Case const cases[] = {{0, 0, {0, 0, width, height}, 1.0f},
#ifndef RASTER_SANITIZED
                          {5, 1, {0, 0, width, height}, 0.4f},
                          {13, 300, {0, 0, width, height}, 1.0f},
#endif
                          {-70, -300, {20, 10, width - 30, height - 520}, 1.0f}};
    for (auto const & sample : MakeSamples(width, height))
        for (auto const & each : cases)
            for (bool const isFresh : {true, false}) {
                TransferParams params;
                params.clip = &each.clip;
                auto const draw = [&](auto function) {
                    auto file = Open(sample.bytes);
                    auto const format = file.GetFormat();
                    auto bitmap = isFresh ? MakeBitmap(width, height, format) : MakeFilled(width, height, format);
                    function(bitmap, file);
                    EXPECT_FALSE(file.HasFailed());
                    return bitmap;
                };
                auto const expected = draw([&](DynamicBitmap & bitmap, DynamicFile & file) {
                    Draw(bitmap, file, &params, &each.opacity, each.dx, each.dy);
                });
                for (unsigned const threads : threadCounts) {
                    Kernel::Dispatch::SetThreadCount(threads);
                    auto const actual = draw([&](DynamicBitmap & bitmap, DynamicFile & file) {
                        DrawOnce(bitmap, file, &params, &each.opacity, each.dx, each.dy);
                    });
                    ASSERT_TRUE(AreEqual(expected, actual))
                        << sample.name << ", at " << each.dx << ", " << each.dy << ", threads " << threads;
                }
            }
}

TEST_F(RowBandsTest, DrawingOnceConvertsAsDrawingDoes) {
    for (auto const & sample : MakeSamples(300, 530)) {
        auto kept = Open(sample.bytes), once = Open(sample.bytes);
        auto expected = MakeFilled(320, 600, LABA16), actual = MakeFilled(320, 600, LABA16);
        Draw(expected, kept, nullptr, nullptr, 7, 9);
        DrawOnce(actual, once, nullptr, nullptr, 7, 9);
        EXPECT_TRUE(AreEqual(expected, actual)) << sample.name;
    }
}

TEST_F(RowBandsTest, WholeTilesShareTheFullTileAlsoWhenDrawnOnce) {
    JPEGRecipe recipe;
    recipe.width = 512;
    recipe.height = 1024;
    auto const bytes = MakeJPEG(recipe);
    for (int const dy : {0, 256, -256}) {
        auto file = Open(bytes);
        auto bitmap = MakeBitmap(512, 1024, RGBA8);
        DrawOnce(bitmap, file, nullptr, nullptr, 0, dy);
        for (int row = 0; row < 4; ++row)
            EXPECT_EQ(bitmap.GetTyped<RGBA8Tuple>()->GetPlane(3).GetTile(1, row).IsFullTileBuffer(),
                      row * 256 >= dy && row * 256 < dy + 1024)
                << row << ", moved by " << dy;
    }
}

TEST_F(RowBandsTest, NeverHoldsMoreOfThePictureThanTwoBands) {
    JPEGRecipe recipe;
    recipe.width = 300;
    recipe.height = 2000;
    auto const bytes = MakeJPEG(recipe);
    auto const before = GetUsage();
    auto file = Open(bytes);
    std::uint64_t most = 0;
    VisitBands(file, 256, nullptr, [&](DynamicBitmap &, int) { most = std::max(most, GetUsage() - before); });
    EXPECT_GT(most, 0u);
    EXPECT_LE(most, 300u * 3 * (256 + 256 + 208));
    EXPECT_EQ(GetUsage(), before) << "nothing is kept";
    auto bitmap = MakeBitmap(300, 2000, RGBA8);
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty());
    EXPECT_FALSE(file.HasFailed());
}

TEST_F(RowBandsTest, APictureThatWasDecodedBeforeIsTakenFromThere) {
    for (auto const & sample : MakeSamples(300, 700)) {
        auto file = Open(sample.bytes);
        auto expected = MakeBitmap(300, 700, file.GetFormat()), actual = MakeBitmap(300, 700, file.GetFormat());
        Draw(expected, file, nullptr, nullptr, 0, 0);
        DrawOnce(actual, file, nullptr, nullptr, 0, 0);
        EXPECT_TRUE(AreEqual(expected, actual)) << sample.name;
    }
}

TEST_F(RowBandsTest, VisitsEveryBandOnceFromTheTop) {
    for (auto const & sample : MakeSamples(300, 777))
        for (int const bandHeight : {1000, 256, 100}) {
            auto kept = Open(sample.bytes), file = Open(sample.bytes);
            auto expected = MakeBitmap(300, 777, kept.GetFormat()), actual = MakeBitmap(300, 777, kept.GetFormat());
            Draw(expected, kept, nullptr, nullptr, 0, 0);
            std::vector<double> fractions;
            TransferParams params;
            params.progressContext = &fractions;
            params.progress = [](unsigned, void * context, double fraction) {
                static_cast<std::vector<double> *>(context)->push_back(fraction);
            };
            int next = 0, visits = 0;
            VisitBands(file, bandHeight, &params, [&](DynamicBitmap & band, int top) {
                EXPECT_EQ(top, next);
                EXPECT_EQ(band.GetWidth(), 300);
                next = top + band.GetHeight();
                ++visits;
                double const matrix[]{1, 0, 0, 0, 1, -double(top)};
                Transfer(actual, band, nullptr, nullptr, matrix);
            });
            EXPECT_EQ(next, 777) << sample.name;
            EXPECT_EQ(visits, std::max(1, 777 / bandHeight)) << sample.name;
            EXPECT_TRUE(AreEqual(expected, actual)) << sample.name << ", bands of " << bandHeight;
            EXPECT_EQ(fractions.size(), std::size_t(visits));
            EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
            EXPECT_EQ(fractions.back(), 1.0);
        }
}

TEST_F(RowBandsTest, WhatAVisitorThrowsArrivesAndTheFileIsNotToBlame) {
    for (unsigned const threads : {1u, 4u})
        for (auto const & sample : MakeSamples(300, 1300)) {
            Kernel::Dispatch::SetThreadCount(threads);
            auto file = Open(sample.bytes);
            int visits = 0;
            EXPECT_THROW(VisitBands(file, 256, nullptr,
                                    [&](DynamicBitmap &, int) {
                                        if (++visits == 2)
                                            throw StreamBroke();
                                    }),
                         StreamBroke)
                << sample.name;
            EXPECT_EQ(visits, 2) << sample.name;
            EXPECT_FALSE(file.HasFailed()) << sample.name;
        }
}

TEST_F(RowBandsTest, AFailingAllocationOfATileArrives) {
    Kernel::Dispatch::SetThreadCount(1);
    JPEGRecipe recipe;
    recipe.width = 256;
    recipe.height = 1024;
    auto file = Open(MakeJPEG(recipe));
    auto bitmap = MakeBitmap(256, 1024, RGBA8);
    PixelMemory::FailAllocation(3); // the first one is a band
    EXPECT_THROW(DrawOnce(bitmap, file, nullptr, nullptr, 0, 0), std::bad_alloc);
    EXPECT_FALSE(file.HasFailed());
}

TEST_F(RowBandsTest, WithoutMemoryForABandTheFileFailsAsItDoesWithoutABlock) {
    for (auto const & sample : MakeSamples(256, 700)) {
        auto file = Open(sample.bytes);
        auto bitmap = MakeBitmap(256, 700, file.GetFormat());
        PixelMemory::FailAllocation(1);
        DrawOnce(bitmap, file, nullptr, nullptr, 0, 0);
        PixelMemory::FailAllocation(0);
        EXPECT_TRUE(file.HasFailed()) << sample.name;
        EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty()) << sample.name;
    }
}

TEST_F(RowBandsTest, LimitsHoldForTheWholePicture) {
    for (auto const & sample : MakeSamples(300, 1300)) {
        auto file = Open(sample.bytes);
        LimitsForTest limits;
        limits.limits.largestDecodedBytes = 300 * 1300 - 1;
        limits.Apply();
        auto bitmap = MakeBitmap(300, 1300, file.GetFormat());
        DrawOnce(bitmap, file, nullptr, nullptr, 0, 0);
        EXPECT_TRUE(file.HasFailed()) << sample.name;
        EXPECT_NE(file.GetFailure().find("largestDecodedBytes"), std::string::npos) << file.GetFailure();
        EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty()) << sample.name;
    }
}

// What came before the damage is drawn, and levels are told of it; the file has failed, or says that it ended early.
TEST_F(RowBandsTest, DamageIsToldAsByDrawing) {
    for (auto sample : MakeSamples(300, 1300)) {
        sample.bytes.resize(sample.bytes.size() * 3 / 4);
        auto kept = Open(sample.bytes), once = Open(sample.bytes);
        auto expected = MakeBitmap(300, 1300, kept.GetFormat()), actual = MakeBitmap(300, 1300, kept.GetFormat());
        Draw(expected, kept, nullptr, nullptr, 0, 0);
        DrawOnce(actual, once, nullptr, nullptr, 0, 0);
        EXPECT_EQ(kept.HasFailed(), once.HasFailed()) << sample.name;
        EXPECT_EQ(kept.GetFailure(), once.GetFailure()) << sample.name;
        EXPECT_EQ(kept.EndedEarly(), once.EndedEarly()) << sample.name;
        EXPECT_EQ(kept.GetWarning(), once.GetWarning()) << sample.name;
        EXPECT_NE(kept.HasFailed(), kept.EndedEarly()) << sample.name;
        if (kept.HasFailed())
            continue;
        EXPECT_TRUE(AreEqual(expected, actual)) << sample.name;
    }
}

TEST_F(RowBandsTest, AStreamThatThrowsLeavesLevelsThatKnowWhatWasDrawn) {
    JPEGRecipe recipe;
    recipe.width = 256;
    recipe.height = 2048;
    auto bytes = MakeJPEG(recipe);
    // A marker that has no business there is fatal; the rows before it were drawn.
    bytes[bytes.size() * 3 / 4] = 0xFF;
    bytes[bytes.size() * 3 / 4 + 1] = 0xC1;
    auto file = Open(bytes);
    auto bitmap = MakeBitmap(256, 2048, RGBA8, MipmapModeOnDemand);
    bitmap.UpdateMipmaps(0, nullptr);
    EXPECT_THROW(DrawOnce(bitmap, file, nullptr, nullptr, 0, 0), JPEGError);
    EXPECT_TRUE(file.HasFailed());
    EXPECT_FALSE(bitmap.GetAllocatedBoundingBox().IsEmpty());
    bitmap.UpdateMipmaps(0, nullptr);
    EXPECT_EQ(ReadAll(*bitmap.GetMipmap(1)->GetTyped<RGBA8Tuple>())[0][3], 255);
}

TEST_F(RowBandsTest, AnAbortEndsTheBands) {
    for (unsigned const threads : {1u, 4u})
        for (auto const & sample : MakeSamples(100, 5000)) {
            Kernel::Dispatch::SetThreadCount(threads);
            auto file = Open(sample.bytes);
            bool abort = false;
            TransferParams params;
            params.abort = &abort;
            int visits = 0;
            VisitBands(file, 256, &params, [&](DynamicBitmap &, int) {
                ++visits;
                Kernel::RequestAbort(&abort);
            });
            EXPECT_EQ(visits, 1) << sample.name;
            EXPECT_FALSE(file.HasFailed()) << sample.name << ": " << file.GetFailure();
            visits = 0;
            VisitBands(file, 256, nullptr, [&](DynamicBitmap &, int) { ++visits; });
            EXPECT_EQ(visits == 0, sample.name != "PNG, interlaced") << sample.name << ", which counts as decoded";
        }
}

TEST_F(RowBandsTest, AnAbortedFileIsAbortedBeforeTheFirstRow) {
    for (auto const & sample : MakeSamples(300, 700)) {
        auto file = Open(sample.bytes);
        bool abort = true;
        TransferParams params;
        params.abort = &abort;
        auto bitmap = MakeBitmap(300, 700, file.GetFormat());
        DrawOnce(bitmap, file, &params, nullptr, 0, 0);
        EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty()) << sample.name;
        EXPECT_FALSE(file.HasFailed()) << sample.name;
    }
}

TEST_F(RowBandsTest, EmptyFilesHaveNoBands) {
    DynamicFile file;
    auto bitmap = MakeBitmap(10, 10, RGBA8);
    DrawOnce(bitmap, file, nullptr, nullptr, 0, 0);
    VisitBands(file, 256, nullptr, [](DynamicBitmap &, int) { FAIL(); });
    EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty());
    auto real = Open(MakeSamples(3, 3).front().bytes);
    DynamicBitmap none;
    DrawOnce(none, real, nullptr, nullptr, 0, 0);
}
}
