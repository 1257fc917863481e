#include "storage/Bitmap.h"

#include "storage/BitmapPixels.h"
#include "storage/Block.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"

#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Raster {
using Rect = Kernel::RectT<int>;
constexpr auto policy = HardwareCachePolicy::Default;

class TestProfile : public Kernel::Consolidatable {
public:
    std::uint64_t GetConsolidationHash() const override { return 1; }
    bool IsEqualTo(Kernel::Consolidatable const &) const override { return true; }
};

class BitmapTest : public StorageTest {
protected:
    template<class Tuple = RGBA8Tuple>
    static Kernel::Counted<BitmapOf<Tuple>> Make(int width, int height, MipmapMode mode = MipmapModeNone) {
        return Kernel::MakeCounted<BitmapOf<Tuple>>(width, height, mode, policy);
    }
    static bool SharesTile(BitmapCore const & one, BitmapCore const & other, int plane, std::size_t tile) {
        return one.GetPlane(plane).GetTile(tile).GetConstInner() == other.GetPlane(plane).GetTile(tile).GetConstInner();
    }
};

TEST_F(BitmapTest, EveryTupleHasAPlaneForEachRealChannelAndKeepsItsPixels) {
    auto const check = [](auto tuple) {
        using Tuple = decltype(tuple);
        auto const bitmap = Make<Tuple>(70, 3);
        EXPECT_EQ(Tuple::channelCount, bitmap->GetPlaneCount());
        EXPECT_EQ(formatOf<Tuple>, bitmap->GetFormat());
        EXPECT_EQ(layoutOf<Tuple>, bitmap->GetLayout());
        Paint(*bitmap);
        Kernel::Counted<BitmapOf<Tuple>> const clone = bitmap->Clone();
        auto const pixels = ReadAll(*clone);
        for (int i = 0; i < 70 * 3; ++i)
            EXPECT_EQ((MakePixel<Tuple>(i % 70, i / 70)), pixels[static_cast<std::size_t>(i)]);
    };
#define RASTER_CHECK(...) check(ChannelTuple<__VA_ARGS__>());
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
}

TEST_F(BitmapTest, NewBitmapIsPlainAndEmpty) {
    auto const bitmap = Make(300, 200);
    EXPECT_EQ(300, bitmap->GetWidth());
    EXPECT_EQ(200, bitmap->GetHeight());
    EXPECT_FALSE(bitmap->IsPendingDelayLoad());
    EXPECT_TRUE(bitmap->GetBackingData() == nullptr);
    EXPECT_EQ(0, bitmap->GetLeftInflationTiles());
    EXPECT_EQ(0, bitmap->GetTopInflationTiles());
    EXPECT_EQ(Rect(), bitmap->GetAllocatedBoundingBox());
    EXPECT_EQ(Rect(), bitmap->GetNonZeroBoundingBox());
    EXPECT_EQ(Rect(), bitmap->GetAlphaBoundingBox());
    EXPECT_EQ((Rect{0, 0, 300, 200}), bitmap->GetNonFullBoundingBox());
    EXPECT_EQ((Rect{0, 0, 300, 200}), bitmap->GetInverseAlphaBoundingBox());
}

TEST_F(BitmapTest, SizeAtALevelIsHalvedAndRoundedUp) {
    auto const bitmap = Make(1000, 10);
    EXPECT_EQ(1000, bitmap->GetWidth(0));
    EXPECT_EQ(125, bitmap->GetWidth(3));
    EXPECT_EQ(63, bitmap->GetWidth(4));
    EXPECT_EQ(2, bitmap->GetHeight(3));
    EXPECT_EQ(1, bitmap->GetHeight(4));
    EXPECT_EQ(1, bitmap->GetWidth(100));
}

TEST_F(BitmapTest, SizesWithoutAreaAreEmptyEverywhere) {
    for (auto const & [width, height] : {std::pair(0, 0), std::pair(0, 20), std::pair(20, 0), std::pair(-1, -1)}) {
        auto const bitmap = Make(width, height, MipmapModeOnDemandDefault);
        EXPECT_EQ(Rect(), bitmap->GetAllocatedBoundingBox());
        EXPECT_EQ(Rect(), bitmap->GetNonFullBoundingBox());
        ModelConstAccessor<RGBA8Bitmap, Repeat, IdentityTransform> accessor(bitmap.Get());
        auto pixel = MakePixel<RGBA8Tuple>(1, 1);
        accessor.Read(pixel);
        EXPECT_EQ(PixelOf<RGBA8Tuple>(), pixel);
        Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
        EXPECT_EQ(std::max(width, 0), clone->GetWidth());
        bitmap->Scrub(nullptr);
    }
}

TEST_F(BitmapTest, CloneCostsNoPixelsUntilOneOfTheTwoIsWritten) {
    auto const bitmap = Make(600, 300);
    Paint(*bitmap);
    auto const before = MemoryManager::Instance().GetPlanarUsage();
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    EXPECT_EQ(before, MemoryManager::Instance().GetPlanarUsage());
    auto const pixels = ReadAll(*bitmap);
    EXPECT_EQ(pixels, ReadAll(*clone));
    Paint(*clone, {10, 10, 11, 11}, 2);
    EXPECT_EQ(before + 4 * 65536, MemoryManager::Instance().GetPlanarUsage()); // one tile of each plane
    EXPECT_EQ(pixels, ReadAll(*bitmap));
    EXPECT_FALSE(SharesTile(*bitmap, *clone, 2, 0));
    EXPECT_TRUE(SharesTile(*bitmap, *clone, 2, 1));
    Paint(*bitmap, {300, 10, 301, 11}, 3);
    EXPECT_EQ((MakePixel<RGBA8Tuple>(300, 10)), ReadAll(*clone)[10 * 600 + 300]);
}

TEST_F(BitmapTest, CloneKeepsBackingProfileAndInflation) {
    auto const holder = TestHolder::Create();
    auto const profile = Kernel::Consolidated<TestProfile>(Kernel::MakeCounted<TestProfile>());
    auto const bitmap = Make(300, 300);
    bitmap->InflateByPixels({1, 257, 0, 0}, true);
    bitmap->SetBackingData(holder, profile);
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    EXPECT_TRUE(clone->GetBackingData() == holder.Get());
    EXPECT_TRUE(clone->GetPlane(3).GetTile(1).IsBackedBy(holder));
    EXPECT_TRUE(clone->GetProfile<TestProfile>() == profile);
    EXPECT_EQ(1, clone->GetLeftInflationTiles());
    EXPECT_EQ(2, clone->GetTopInflationTiles());
    Kernel::Counted<RGBA8Bitmap> const empty = bitmap->CloneEmpty();
    EXPECT_EQ(bitmap->GetBounds(), empty->GetBounds());
    EXPECT_TRUE(empty->GetBackingData() == nullptr);
    EXPECT_FALSE(empty->GetProfile<TestProfile>());
    EXPECT_EQ(0, empty->GetLeftInflationTiles());
}

TEST_F(BitmapTest, WriteTakesTheBackingOfItsTileOnly) {
    auto const holder = TestHolder::Create();
    auto const bitmap = Make(600, 10);
    bitmap->SetBackingData(holder, nullptr);
    Paint(*bitmap, {0, 0, 1, 1});
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder));
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(1).IsBackedBy(holder));
    EXPECT_TRUE(bitmap->GetBackingData() == holder.Get());
}

TEST_F(BitmapTest, CopyPlanesSharesTilesOfEqualSizesAndLeavesOthersAlone) {
    auto const source = Make(300, 300), same = Make(300, 300), other = Make(300, 299);
    Paint(*source);
    same->CopyPlanesFrom(source.Get());
    other->CopyPlanesFrom(source.Get());
    same->CopyPlanesFrom(nullptr);
    same->CopyPlanesFrom(same.Get());
    EXPECT_EQ(ReadAll(*source), ReadAll(*same));
    EXPECT_EQ(Rect(), other->GetAllocatedBoundingBox());
}

TEST_F(BitmapTest, BoxesUniteThePlanesAndAlphaHasItsOwn) {
    auto const bitmap = Make<ChannelTuple<Alpha8, Red8, Green8, Blue8, X5>>(300, 300);
    MutableTileGuard(bitmap->GetPlane(0).GetTile(0)).GetBuffer()[0] = 1;    // alpha at (0, 0)
    MutableTileGuard(bitmap->GetPlane(2).GetTile(1, 1)).GetBuffer()[0] = 1; // green at (256, 256)
    EXPECT_EQ((Rect{0, 0, 1, 1}), bitmap->GetAlphaBoundingBox());
    EXPECT_EQ((Rect{0, 0, 257, 257}), bitmap->GetNonZeroBoundingBox());
    EXPECT_EQ((Rect{0, 0, 512, 512}), bitmap->GetAllocatedBoundingBox());

    auto const cmyk = Make<CMYKA8Tuple>(10, 10);
    for (int i = 0; i < 4; ++i)
        cmyk->GetPlane(i).GetTile(0) = *Tile::GetFullTile();
    EXPECT_EQ(Rect(), cmyk->GetAlphaBoundingBox());
    EXPECT_EQ((Rect{0, 0, 10, 10}), cmyk->GetInverseAlphaBoundingBox());
    EXPECT_EQ((Rect{0, 0, 10, 10}), cmyk->GetNonFullBoundingBox());
    cmyk->GetPlane(4).GetTile(0) = *Tile::GetFullTile();
    EXPECT_EQ((Rect{0, 0, 10, 10}), cmyk->GetAlphaBoundingBox());
    EXPECT_EQ(Rect(), cmyk->GetInverseAlphaBoundingBox());
    EXPECT_EQ(Rect(), cmyk->GetNonFullBoundingBox());
}

TEST_F(BitmapTest, TupleWithoutAlphaHasNoAlphaBox) {
    auto const bitmap = Make<ChannelTuple<Red8, Green8, Blue8>>(10, 10);
    for (int i = 0; i < 3; ++i)
        bitmap->GetPlane(i).GetTile(0) = *Tile::GetFullTile();
    EXPECT_EQ(Rect(), bitmap->GetAlphaBoundingBox());
    EXPECT_EQ(Rect(), bitmap->GetInverseAlphaBoundingBox());
}

TEST_F(BitmapTest, InflationOnTheLeftGoesByTilesOfTheTuple) {
    auto const bitmap = Make(300, 200);
    Paint(*bitmap);
    EXPECT_EQ((Rect{256, 0, 0, 0}), bitmap->InflateByPixels({10, 0, 0, 0}, true));
    EXPECT_EQ(1, bitmap->GetLeftInflationTiles());
    EXPECT_EQ(556, bitmap->GetWidth());
    EXPECT_EQ((MakePixel<RGBA8Tuple>(0, 0)), ReadAll(*bitmap)[256]);

    EXPECT_EQ((Rect{64, 0, 0, 0}), Make<RGBAUFTuple>(300, 200)->InflateByPixels({10, 0, 0, 0}, true));
    EXPECT_EQ((Rect{128, 256, 256, 512}), Make<RGBA16Tuple>(300, 200)->InflateByPixels({1, 1, 129, 257}, true));
}

template<class Tuple>
class InflationTest : public BitmapTest {};
using InflationTuples = testing::Types<RGBA8Tuple, A16Tuple, RGBAUFTuple, ChannelTuple<AlphaComplexUF>>;
TYPED_TEST_SUITE(InflationTest, InflationTuples);

TYPED_TEST(InflationTest, EveryPixelIsWhereItShouldBe) {
    using Tuple = TypeParam;
    constexpr int tileWidth = 256 / Tuple::sampleSize;
    int const width = tileWidth + 5, height = 260;
    PixelOf<Tuple> full{}, zero{};
    for (auto & sample : full.channels)
        std::memset(static_cast<void *>(&sample), 255, sizeof sample);
    float const one = 1.0f;
    if (Tuple::kind == ChannelKind::Float)
        for (auto & sample : full.channels)
            for (std::size_t i = 0; i < sizeof sample; i += sizeof one)
                std::memcpy(reinterpret_cast<char *>(&sample) + i, &one, std::min(sizeof one, sizeof sample - i));
    for (Rect const amounts :
         {Rect{1, 0, 0, 0}, Rect{0, 1, 0, 0}, Rect{0, 0, 1, 0}, Rect{0, 0, 0, 1}, Rect{0, 0, tileWidth, 0},
          Rect{0, 0, 0, 300}, Rect{tileWidth + 1, 3, 2 * tileWidth, 256}, Rect{-1, -2, -3, -4}})
        for (bool const fillEmpty : {true, false}) {
            auto const bitmap = this->template Make<Tuple>(width, height);
            Paint(*bitmap);
            auto const grown = bitmap->InflateByPixels(amounts, fillEmpty);
            int const leftTiles = (std::max(amounts.left, 0) + tileWidth - 1) / tileWidth;
            int const topTiles = (std::max(amounts.top, 0) + 255) / 256;
            ASSERT_EQ(leftTiles * tileWidth, grown.left);
            ASSERT_EQ(topTiles * 256, grown.top);
            ASSERT_EQ(width + grown.left + std::max(amounts.right, 0), bitmap->GetWidth());
            ASSERT_EQ(height + grown.top + std::max(amounts.bottom, 0), bitmap->GetHeight());
            auto const pixels = ReadAll(*bitmap);
            // The tiles of old keep what lay in their spare parts, which is zero; new tiles are filled.
            Rect const old{grown.left, grown.top, grown.left + 2 * tileWidth, grown.top + 512};
            Rect const painted{grown.left, grown.top, grown.left + width, grown.top + height};
            int mismatches = 0;
            for (int y = 0; y < bitmap->GetHeight(); ++y)
                for (int x = 0; x < bitmap->GetWidth(); ++x) {
                    auto const expected = painted.Contains(x, y) ? MakePixel<Tuple>(x - grown.left, y - grown.top)
                                          : fillEmpty || old.Contains(x, y) ? zero
                                                                            : full;
                    auto const & actual =
                        pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(bitmap->GetWidth()) +
                               static_cast<std::size_t>(x)];
                    // By bytes: two samples of a full half are no number.
                    mismatches += std::memcmp(&expected, &actual, sizeof actual) != 0;
                }
            EXPECT_EQ(0, mismatches) << amounts.left << ' ' << amounts.top << ' ' << amounts.right << ' '
                                     << amounts.bottom << (fillEmpty ? " empty" : " full");
        }
}

TEST_F(BitmapTest, InflationDropsTheBackingAndKeepsTheProfile) {
    auto const holder = TestHolder::Create();
    auto const profile = Kernel::Consolidated<TestProfile>(Kernel::MakeCounted<TestProfile>());
    auto const bitmap = Make(300, 300);
    bitmap->SetBackingData(holder, profile);
    bitmap->InflateByPixels({0, 0, 1, 0}, true);
    EXPECT_TRUE(bitmap->GetBackingData() == nullptr);
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder));
    EXPECT_TRUE(bitmap->GetProfile<TestProfile>() == profile);
}

TEST_F(BitmapTest, InflationBeyondTheLimitsChangesNothing) {
    auto const holder = TestHolder::Create();
    auto const bitmap = Make(300, 300, MipmapModeOnDemand);
    bitmap->SetBackingData(holder, nullptr);
    int const huge = std::numeric_limits<int>::max();
    for (Rect const amounts : {Rect{huge, 0, 0, 0}, Rect{0, huge, 0, 0}, Rect{0, 0, huge, 0}, Rect{0, 0, 0, huge},
                               Rect{0, 0, 2048 * 256, 2048 * 256}}) { // 2049 by 2050 tiles in four planes
        EXPECT_EQ(Rect(), bitmap->InflateByPixels(amounts, true));
        EXPECT_EQ((Rect{0, 0, 300, 300}), bitmap->GetBounds());
        EXPECT_TRUE(bitmap->GetBackingData() == holder.Get());
        EXPECT_EQ(0, bitmap->GetLeftInflationTiles());
    }
}

TEST_F(BitmapTest, MoreThanTheLimitOfTilesThrows) {
    EXPECT_THROW(Make(256 * 2048, 256 * 2049), std::length_error);
    EXPECT_THROW(Make(std::numeric_limits<int>::max(), std::numeric_limits<int>::max()), std::length_error);
}

TEST_F(BitmapTest, LevelsStopWhenBothSidesAreSmallOrOneIsOne) {
    auto const sizes = [](int width, int height) {
        std::vector<std::pair<int, int>> result;
        for (auto const & [level, entry] : Make(width, height, MipmapModeImmediate)->GetMipmapTable().GetLevels()) {
            EXPECT_EQ(static_cast<int>(result.size()) + 1, level);
            EXPECT_FALSE(entry.valid);
            EXPECT_EQ(MipmapModeNone, entry.bitmap->GetMipmapMode());
            result.emplace_back(entry.bitmap->GetWidth(), entry.bitmap->GetHeight());
        }
        return result;
    };
    using Sizes = std::vector<std::pair<int, int>>;
    EXPECT_EQ(Sizes(), sizes(16, 16));
    EXPECT_EQ(Sizes(), sizes(17, 1));
    EXPECT_EQ((Sizes{{9, 1}}), sizes(17, 2));
    EXPECT_EQ((Sizes{{500, 5}, {250, 3}, {125, 2}, {63, 1}}), sizes(1000, 10));
    EXPECT_EQ((Sizes{{9, 9}}), sizes(17, 17));
    EXPECT_TRUE(Make(1000, 10)->GetMipmapTable().GetLevels().empty());
}

TEST_F(BitmapTest, LevelIsGivenOutOnlyWhileItIsValid) {
    auto const bitmap = Make(100, 100, MipmapModeManual);
    auto & table = bitmap->GetMipmapTable();
    EXPECT_FALSE(bitmap->GetMipmap(0));
    EXPECT_FALSE(bitmap->GetMipmap(1));
    table.Publish(1, table.GetEntry(1));
    ASSERT_TRUE(bitmap->GetMipmap(1));
    EXPECT_EQ(50, bitmap->GetMipmap(1)->GetWidth());
    EXPECT_TRUE(std::as_const(*bitmap).GetMipmap(1));
    EXPECT_FALSE(bitmap->GetMipmap(2));
    EXPECT_FALSE(bitmap->GetMipmap(99));
    bitmap->InvalidateMipmaps();
    EXPECT_FALSE(bitmap->GetMipmap(1));
}

TEST_F(BitmapTest, ChangesUniteInEveryLevelThatWasValid) {
    auto const bitmap = Make(100, 100, MipmapModeManual);
    auto & table = bitmap->GetMipmapTable();
    bitmap->InvalidateMipmaps({10, 10, 20, 20});
    EXPECT_EQ(Rect(), table.GetEntry(1).dirtyRect); // never built: all of it is missing, and stays so
    table.Publish(1, table.GetEntry(1));
    bitmap->InvalidateMipmaps({5, 5, 5, 9});         // empty
    bitmap->InvalidateMipmaps({200, 200, 300, 300}); // outside
    EXPECT_TRUE(table.GetEntry(1).valid);
    bitmap->InvalidateMipmaps({10, 10, 20, 20});
    bitmap->InvalidateMipmaps({90, 30, 200, 40});
    EXPECT_EQ((Rect{10, 10, 100, 40}), table.GetEntry(1).dirtyRect);
    EXPECT_FALSE(table.GetEntry(1).valid);
    EXPECT_EQ(Rect(), table.GetEntry(2).dirtyRect);
    bitmap->InvalidateMipmaps();
    EXPECT_EQ(Rect(), table.GetEntry(1).dirtyRect);
    bitmap->InvalidateMipmaps({10, 10, 20, 20});
    EXPECT_EQ(Rect(), table.GetEntry(1).dirtyRect);
}

TEST_F(BitmapTest, LevelIsNotPublishedOverAChangeThatCameMeanwhile) {
    auto const bitmap = Make(100, 100, MipmapModeManual);
    auto & table = bitmap->GetMipmapTable();
    auto const read = table.GetEntry(1);
    bitmap->InvalidateMipmaps({10, 10, 20, 20});
    table.Publish(1, read);
    EXPECT_FALSE(bitmap->GetMipmap(1));
}

TEST_F(BitmapTest, CloneHasLevelsOfItsOwnThatShareTiles) {
    auto const bitmap = Make(600, 600, MipmapModeOnDemand);
    auto & table = bitmap->GetMipmapTable();
    Paint(static_cast<RGBA8Bitmap &>(*table.GetEntry(1).bitmap));
    table.Publish(1, table.GetEntry(1));
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    ASSERT_TRUE(clone->GetMipmap(1));
    EXPECT_FALSE(clone->GetMipmap(2));
    EXPECT_FALSE(clone->GetMipmap(1) == bitmap->GetMipmap(1));
    EXPECT_EQ(ReadAll(*bitmap->GetMipmap(1)), ReadAll(*clone->GetMipmap(1)));
    EXPECT_TRUE(SharesTile(*bitmap->GetMipmap(1), *clone->GetMipmap(1), 0, 0));
    EXPECT_EQ(table.GetLevels().size(), clone->GetMipmapTable().GetLevels().size());

    auto const plain = Make(600, 600);
    plain->CopyPlanesFrom(bitmap.Get());
    EXPECT_TRUE(plain->GetMipmapTable().GetLevels().empty());
    clone->CopyPlanesFrom(plain.Get()); // which has no levels to give
    EXPECT_EQ(table.GetLevels().size(), clone->GetMipmapTable().GetLevels().size());
    EXPECT_FALSE(clone->GetMipmap(1));
}

TEST_F(BitmapTest, InflationMakesLevelsAnew) {
    auto const bitmap = Make(17, 2, MipmapModeOnDemand);
    auto & table = bitmap->GetMipmapTable();
    table.Publish(1, table.GetEntry(1));
    bitmap->InflateByPixels({0, 0, 47, 62}, true);
    EXPECT_FALSE(bitmap->GetMipmap(1));
    ASSERT_EQ(2u, table.GetLevels().size());
    EXPECT_EQ(32, table.GetEntry(1).bitmap->GetHeight());
}

TEST_F(BitmapTest, HardwarePolicyReachesEveryLevel) {
    auto const bitmap = Make(100, 100, MipmapModeOnDemand);
    bitmap->SetHardwarePolicy(static_cast<HardwareCachePolicy>(3));
    EXPECT_EQ(static_cast<HardwareCachePolicy>(3), bitmap->GetHardwarePolicy());
    for (auto const & [level, entry] : bitmap->GetMipmapTable().GetLevels())
        EXPECT_EQ(static_cast<HardwareCachePolicy>(3), entry.bitmap->GetHardwarePolicy());
}

TEST_F(BitmapTest, ScrubAndDeduplicateReachValidLevelsOnly) {
    auto const bitmap = Make(1024, 1024, MipmapModeOnDemand);
    auto & table = bitmap->GetMipmapTable();
    auto const fillZero = [](BitmapCore & core) { MutableTileGuard(core.GetPlane(0).GetTile(0)).GetBuffer(); };
    for (auto const & [level, entry] : table.GetLevels())
        fillZero(*entry.bitmap);
    fillZero(*bitmap);
    table.Publish(1, table.GetEntry(1));
    bool abort = true;
    bitmap->Scrub(&abort);
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsZeroTileBuffer());
    bitmap->Scrub(nullptr);
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(0).IsZeroTileBuffer());
    EXPECT_TRUE(table.GetEntry(1).bitmap->GetPlane(0).GetTile(0).IsZeroTileBuffer());
    EXPECT_FALSE(table.GetEntry(2).bitmap->GetPlane(0).GetTile(0).IsZeroTileBuffer());

    auto const write = [](BitmapCore & core, int plane) {
        MutableTileGuard(core.GetPlane(plane).GetTile(0)).GetBuffer()[7] = 77;
    };
    write(*bitmap, 0);
    write(*bitmap, 1);
    write(*table.GetEntry(1).bitmap, 0);
    write(*table.GetEntry(2).bitmap, 0);
    BlockDeduplicationSupport support;
    bitmap->Deduplicate(support, nullptr);
    auto const inner = bitmap->GetPlane(0).GetTile(0).GetConstInner();
    EXPECT_EQ(inner, bitmap->GetPlane(1).GetTile(0).GetConstInner());
    EXPECT_EQ(inner, table.GetEntry(1).bitmap->GetPlane(0).GetTile(0).GetConstInner());
    EXPECT_NE(inner, table.GetEntry(2).bitmap->GetPlane(0).GetTile(0).GetConstInner());
}

TEST_F(BitmapTest, SparseGiantCostsItsGridOnly) {
#ifdef RASTER_SANITIZED
    int const side = 100000;
#else
    int const side = 1000000;
#endif
    auto & ledger = MemoryManager::Instance();
    auto const before = ledger.GetPlanarUsage();
    auto const bitmap = Make<A8Tuple>(side, side);
    Paint(*bitmap, {side - 2, side - 1, side, side}, 5);
    Paint(*bitmap, {side / 2, side / 3, side / 2 + 10, side / 3 + 20}, 5);
    EXPECT_EQ(before + 2 * 65536, ledger.GetPlanarUsage());
    auto const box = bitmap->GetAlphaBoundingBox();
    EXPECT_LE(side / 2, box.left);
    EXPECT_GE(side, box.right);
    EXPECT_EQ((Rect{0, 0, side, side}), bitmap->GetNonFullBoundingBox());
    Kernel::Counted<A8Bitmap> const clone = bitmap->Clone();
    EXPECT_EQ(before + 2 * 65536, ledger.GetPlanarUsage());
    EXPECT_EQ(box, clone->GetNonZeroBoundingBox());
    EXPECT_LE(sizeof(Tile), 32u);
}
}
