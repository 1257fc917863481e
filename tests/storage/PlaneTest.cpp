#include "storage/Plane.h"

#include "kernel/DelayLoadHolder.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

namespace Raster {
using Rect = Kernel::RectT<int>;

class PlaneTest : public StorageTest {
protected:
    static void WriteByte(Tile & tile, int column, int row, std::uint8_t value) {
        MutableTileGuard const guard(tile);
        reinterpret_cast<std::uint8_t *>(guard.GetBuffer())[row * Tile::Stride + column] = value;
    }
    static void FillWith(PlaneCore & plane, Tile const & tile) {
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            plane.GetTile(i) = tile;
    }
};

TEST_F(PlaneTest, GridIsRoundedUpToTilesOfTheSamplesWidth) {
    EXPECT_EQ(256, Plane<Red8>(1, 1).GetTileWidth());
    EXPECT_EQ(128, Plane<RedH>(1, 1).GetTileWidth());
    EXPECT_EQ(64, Plane<RedUF>(1, 1).GetTileWidth());
    EXPECT_EQ(32, Plane<RedComplexUF>(1, 1).GetTileWidth());
    EXPECT_EQ(256, Plane<X5>(1, 1).GetTileWidth());
    Plane<Red16> const plane(257, 512);
    EXPECT_EQ(3, plane.GetTilesAcross());
    EXPECT_EQ(2, plane.GetTilesDown());
    EXPECT_EQ(6u, plane.GetTileCount());
}

TEST_F(PlaneTest, FullTileGoesByKindNotByLayout) {
    EXPECT_EQ(Tile::GetFullTile(), &Plane<Red16>(1, 1).GetFullTileOfKind());
    EXPECT_EQ(Tile::GetFullTile(), &Plane<X1>(1, 1).GetFullTileOfKind());
    EXPECT_EQ(Tile::GetFullFloatTile(), &Plane<RedF>(1, 1).GetFullTileOfKind());
    EXPECT_EQ(Tile::GetFullFloatTile(), &Plane<RedUH>(1, 1).GetFullTileOfKind());
    EXPECT_EQ(Tile::GetFullFloatTile(), &Plane<RedComplexUF>(1, 1).GetFullTileOfKind());
}

TEST_F(PlaneTest, NewPlaneIsNowhereAllocatedAndNowhereFull) {
    Plane<Red8> const plane(300, 270);
    EXPECT_EQ(Rect(), plane.GetAllocatedBoundingBox());
    EXPECT_EQ(Rect(), plane.GetDataBoundingBox());
    EXPECT_EQ((Rect{0, 0, 300, 270}), plane.GetInverseDataBoundingBox());
}

TEST_F(PlaneTest, AllocatedBoxIsInWholeTilesButDataBoxIsNot) {
    Plane<Red8> plane(1, 1);
    WriteByte(plane.GetTile(0, 0), 0, 0, 1);
    EXPECT_EQ((Rect{0, 0, 256, 256}), plane.GetAllocatedBoundingBox());
    EXPECT_EQ((Rect{0, 0, 1, 1}), plane.GetDataBoundingBox());
}

TEST_F(PlaneTest, FullPlaneHasWholeDataBoxAndEmptyInverseBox) {
    Plane<Red8> plane(300, 100);
    FillWith(plane, *Tile::GetFullTile());
    EXPECT_EQ((Rect{0, 0, 300, 100}), plane.GetDataBoundingBox());
    EXPECT_EQ(Rect(), plane.GetInverseDataBoundingBox());
    EXPECT_EQ((Rect{0, 0, 512, 256}), plane.GetAllocatedBoundingBox());
}

TEST_F(PlaneTest, ZeroPlaneIsAllocatedButHasNoData) {
    Plane<Red8> plane(300, 100);
    FillWith(plane, *Tile::GetZeroTile());
    EXPECT_EQ(Rect(), plane.GetDataBoundingBox());
    EXPECT_EQ((Rect{0, 0, 300, 100}), plane.GetInverseDataBoundingBox());
    EXPECT_EQ((Rect{0, 0, 512, 256}), plane.GetAllocatedBoundingBox());
}

TEST_F(PlaneTest, BytesBecomeSamplesRoundedOutward) {
    Plane<Red16> plane(128, 256);
    WriteByte(plane.GetTile(0, 0), 3, 7, 1);
    WriteByte(plane.GetTile(0, 0), 4, 7, 1);
    EXPECT_EQ((Rect{1, 7, 3, 8}), plane.GetDataBoundingBox());
}

TEST_F(PlaneTest, GarbageBeyondTheEdgesOfAOneTilePlaneIsNotData) {
    Plane<Red8> plane(10, 10);
    WriteByte(plane.GetTile(0, 0), 200, 5, 1);
    WriteByte(plane.GetTile(0, 0), 5, 200, 1);
    EXPECT_EQ(Rect(), plane.GetDataBoundingBox());
    WriteByte(plane.GetTile(0, 0), 3, 4, 1);
    EXPECT_EQ((Rect{3, 4, 4, 5}), plane.GetDataBoundingBox());
}

TEST_F(PlaneTest, GarbageInAnEdgeTileThatIsNotTheLastIsCutOffAtThePlane) {
    Plane<Red8> plane(266, 600);
    WriteByte(plane.GetTile(1, 0), 200, 5, 1); // x = 456, outside
    EXPECT_EQ(Rect(), plane.GetDataBoundingBox());
    WriteByte(plane.GetTile(1, 0), 2, 9, 1);
    // The unclipped rect of the tile reaches from the sample to the garbage; what is inside the plane remains.
    EXPECT_EQ((Rect{258, 5, 266, 10}), plane.GetDataBoundingBox());
}

TEST_F(PlaneTest, InverseBoxLooksAtTheInsideOfEdgeTilesOnly) {
    Plane<Red8> plane(266, 300);
    for (std::size_t i = 0; i < plane.GetTileCount(); ++i) {
        plane.GetTile(i) = *Tile::GetFullTile();
        WriteByte(plane.GetTile(i), 0, 0, 255); // full by its bytes only
    }
    EXPECT_EQ(Rect(), plane.GetInverseDataBoundingBox());
    WriteByte(plane.GetTile(1, 0), 10, 3, 0); // right of the plane
    WriteByte(plane.GetTile(0, 1), 3, 44, 0); // below it
    WriteByte(plane.GetTile(1, 1), 10, 44, 0);
    EXPECT_EQ(Rect(), plane.GetInverseDataBoundingBox());
    WriteByte(plane.GetTile(1, 1), 9, 43, 0);
    EXPECT_EQ((Rect{265, 299, 266, 300}), plane.GetInverseDataBoundingBox());
}

TEST_F(PlaneTest, FloatPlaneTakesNaNForFull) {
    Plane<AlphaF> plane(64, 256);
    plane.GetTile(0) = *Tile::GetFullFloatTile();
    {
        MutableTileGuard const guard(plane.GetTile(0));
        auto * const floats = reinterpret_cast<float *>(guard.GetBuffer());
        floats[0] = std::numeric_limits<float>::quiet_NaN();
    }
    EXPECT_EQ(Rect(), plane.GetInverseDataBoundingBox());
}

/// A plane as bytes, row by row over the whole grid, with what the boxes should say about them by their definition.
class PlaneModel {
public:
    enum class Content { Unallocated, Zero, Full, FullFloat, Sparse, NearlyFull, NearlyFullFloat };

    template<class RandomBits>
    PlaneModel(PlaneCore & modelled, RandomBits & random) : plane(modelled) {
        contents.resize(plane.GetTileCount());
        bytes.resize(plane.GetTileCount());
        for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
            FillTile(i, static_cast<Content>(random() % 7), random);
    }

    Rect GetAllocatedBox() const {
        return Unite([&](std::size_t i, Rect tile) { return contents[i] == Content::Unallocated ? Rect() : tile; });
    }
    Rect GetDataBox() const {
        return Unite([&](std::size_t i, Rect tile) {
            if (contents[i] == Content::Full || contents[i] == Content::FullFloat)
                return Inside(tile); // by what they are called, not by their bytes
            bool const isLast = i + 1 == contents.size();
            return Inside(GetSampleRect(
                i, tile, isLast, isLast, [](std::uint8_t const * cell, int) { return *cell != 0; }, 1));
        });
    }
    Rect GetInverseBox() const {
        return Unite([&](std::size_t i, Rect tile) {
            if (contents[i] == Content::Unallocated || contents[i] == Content::Zero)
                return Inside(tile);
            if (contents[i] == Content::Full || contents[i] == Content::FullFloat)
                return Rect();
            bool const isRight = tile.right >= plane.GetWidth(), isBottom = tile.bottom >= plane.GetHeight();
            if (plane.GetKind() == ChannelKind::Integer)
                return Inside(GetSampleRect(
                    i, tile, isRight, isBottom, [](std::uint8_t const * cell, int) { return *cell < 255; }, 1));
            return Inside(GetSampleRect(
                i, tile, isRight, isBottom,
                [](std::uint8_t const * cell, int) {
                    float value;
                    std::memcpy(&value, cell, sizeof value);
                    return value < 1.0f;
                },
                4));
        });
    }

private:
    template<class RandomBits>
    void FillTile(std::size_t index, Content content, RandomBits & random) {
        auto & tile = plane.GetTile(index);
        auto & buffer = bytes[index];
        contents[index] = content;
        buffer.assign(Tile::ByteCount, 0);
        bool const isFullFloat = content == Content::FullFloat || content == Content::NearlyFullFloat;
        if (content == Content::Full || content == Content::NearlyFull)
            std::fill(buffer.begin(), buffer.end(), std::uint8_t(255));
        float const one = 1.0f;
        if (isFullFloat)
            for (std::size_t i = 0; i < buffer.size(); i += sizeof one)
                std::memcpy(&buffer[i], &one, sizeof one);
        switch (content) {
        case Content::Unallocated:
            return;
        case Content::Zero:
            tile = *Tile::GetZeroTile();
            return;
        case Content::Full:
            tile = *Tile::GetFullTile();
            return;
        case Content::FullFloat:
            tile = *Tile::GetFullFloatTile();
            return;
        default:
            break;
        }
        for (auto n = random() % 4; n > 0; --n)
            buffer[random() % buffer.size()] = static_cast<std::uint8_t>(random());
        MutableTileGuard const guard(tile);
        std::memcpy(guard.GetBuffer(), buffer.data(), buffer.size());
    }

    /// The samples of a tile that some cell of so many bytes with the property touches; where told, only cells that
    /// begin inside the plane.
    template<class Property>
    Rect GetSampleRect(std::size_t index, Rect tile, bool clipsRight, bool clipsBottom, Property property,
                       int cellSize) const {
        int const size = plane.GetSampleSize();
        int const endX = clipsRight ? std::min(256, (plane.GetWidth() - tile.left) * size) : 256;
        int const endY = clipsBottom ? std::min(256, plane.GetHeight() - tile.top) : 256;
        Rect box;
        for (int y = 0; y < endY; ++y)
            for (int x = 0; x < endX; x += cellSize)
                if (property(&bytes[index][static_cast<std::size_t>(y * 256 + x)], x)) {
                    int const right = (std::min(x + cellSize, endX) + size - 1) / size;
                    box = box.Unite({tile.left + x / size, tile.top + y, tile.left + right, tile.top + y + 1});
                }
        return box;
    }

    Rect Inside(Rect rect) const { return rect.Intersect({0, 0, plane.GetWidth(), plane.GetHeight()}); }

    template<class RectOfTile>
    Rect Unite(RectOfTile rectOfTile) const {
        Rect box;
        int const width = plane.GetTileWidth();
        for (int row = 0; row < plane.GetTilesDown(); ++row)
            for (int column = 0; column < plane.GetTilesAcross(); ++column) {
                auto const index = plane.GetGrid().GetIndex(column, row);
                box = box.Unite(
                    rectOfTile(index, Rect{column * width, row * 256, (column + 1) * width, row * 256 + 256}));
            }
        return box;
    }

    PlaneCore & plane;
    std::vector<Content> contents;
    std::vector<std::vector<std::uint8_t>> bytes;
};

template<class Channel>
class PlaneBoxTest : public StorageTest {};
using BoxChannels = testing::Types<Red8, Red16, RedH, RedF, RedComplexUF>;
TYPED_TEST_SUITE(PlaneBoxTest, BoxChannels);

TYPED_TEST(PlaneBoxTest, BoxesAreThoseOfAScanOfEveryByte) {
    std::mt19937 random(20240731);
    int const tileWidth = 256 / TypeParam::sampleSize;
    for (int width : {1, tileWidth - 1, tileWidth, tileWidth + 1, 2 * tileWidth, 2 * tileWidth + 3})
        for (int height : {1, 255, 256, 257, 600})
            for (int round = 0; round < 3; ++round) {
                Plane<TypeParam> plane(width, height);
                PlaneModel const model(plane, random);
                EXPECT_EQ(model.GetAllocatedBox(), plane.GetAllocatedBoundingBox()) << width << " by " << height;
                EXPECT_EQ(model.GetDataBox(), plane.GetDataBoundingBox()) << width << " by " << height;
                EXPECT_EQ(model.GetInverseBox(), plane.GetInverseDataBoundingBox()) << width << " by " << height;
            }
}

TEST_F(PlaneTest, InflationByOneOnTheLeftAddsAWholeColumn) {
    Plane<Red8> plane(300, 100);
    WriteByte(plane.GetTile(1, 0), 2, 3, 9);
    plane.InflateByPixels({1, 0, 0, 0}, /*fillEmpty=*/true);
    EXPECT_EQ(556, plane.GetWidth());
    EXPECT_EQ(3, plane.GetTilesAcross());
    EXPECT_EQ((Rect{514, 3, 515, 4}), plane.GetDataBoundingBox());
    EXPECT_FALSE(plane.GetTile(0, 0).IsAllocated());
}

TEST_F(PlaneTest, InflationIntoTheSpareColumnsAddsNoTiles) {
    Plane<Red8> plane(300, 100);
    plane.InflateByPixels({0, 0, 212, 156}, /*fillEmpty=*/false);
    EXPECT_EQ(512, plane.GetWidth());
    EXPECT_EQ(256, plane.GetHeight());
    EXPECT_EQ(2u, plane.GetTileCount());
    EXPECT_FALSE(plane.GetTile(1, 0).IsAllocated());
    plane.InflateByPixels({0, 0, 1, 0}, /*fillEmpty=*/false);
    EXPECT_EQ(3, plane.GetTilesAcross());
    EXPECT_TRUE(plane.GetTile(2, 0).IsFullTileBuffer());
}

TEST_F(PlaneTest, InflationFillsWithTheFullTileOfTheKind) {
    Plane<AlphaF> plane(10, 10);
    plane.InflateByPixels({1, 1, 0, 0}, /*fillEmpty=*/false);
    EXPECT_TRUE(plane.GetTile(0, 0).IsFullFloatTileBuffer());
    EXPECT_TRUE(plane.GetTile(1, 0).IsFullFloatTileBuffer());
    EXPECT_FALSE(plane.GetTile(1, 1).IsAllocated());
}

TEST_F(PlaneTest, NoOldTileIsBackedAfterInflation) {
    auto const holder = TestHolder::Create();
    Plane<Red8> plane(300, 100);
    plane.SetBacking(holder);
    ASSERT_TRUE(plane.GetTile(1, 0).IsBackedBy(holder));
    plane.InflateByPixels({0, 0, 1, 0}, /*fillEmpty=*/true);
    for (std::size_t i = 0; i < plane.GetTileCount(); ++i)
        EXPECT_FALSE(plane.GetTile(i).IsBackedBy(holder)) << i;
}

TEST_F(PlaneTest, NegativeAmountsCountAsZeroAndTooLargeOnesChangeNothing) {
    Plane<Red8> plane(300, 100);
    plane.InflateByPixels({-5, -5, -5, -5}, /*fillEmpty=*/true);
    EXPECT_EQ(300, plane.GetWidth());
    EXPECT_EQ(100, plane.GetHeight());
    int const huge = std::numeric_limits<int>::max();
    for (Rect const amounts : {Rect{huge, 0, 0, 0}, Rect{0, 0, huge, 0}, Rect{0, huge, 0, 0}, Rect{0, 0, 0, huge},
                               Rect{1 << 30, 1 << 30, 0, 0}}) {
        plane.InflateByPixels(amounts, /*fillEmpty=*/true);
        EXPECT_EQ(300, plane.GetWidth());
        EXPECT_EQ(100, plane.GetHeight());
    }
}

TEST_F(PlaneTest, GridIsCountedAsVirtualUsage) {
    auto & ledger = MemoryManager::Instance();
    auto const before = ledger.GetVirtualUsage();
    {
        Plane<Red8> plane(300, 100);
        EXPECT_EQ(before + 2 * 65536, ledger.GetVirtualUsage());
        plane.InflateByPixels({0, 1, 0, 0}, /*fillEmpty=*/true);
        EXPECT_EQ(before + 4 * 65536, ledger.GetVirtualUsage());
        Plane<Red8> moved(std::move(plane));
        EXPECT_EQ(before + 4 * 65536, ledger.GetVirtualUsage());
    }
    EXPECT_EQ(before, ledger.GetVirtualUsage());
}

TEST_F(PlaneTest, SizesWithoutAreaAreEmptyEverywhere) {
    for (auto const & [width, height] : {std::pair(0, 0), std::pair(0, 10), std::pair(10, 0), std::pair(-3, -7)}) {
        Plane<Red8> plane(width, height);
        EXPECT_EQ(0u, plane.GetTileCount());
        EXPECT_EQ(Rect(), plane.GetAllocatedBoundingBox());
        EXPECT_EQ(Rect(), plane.GetDataBoundingBox());
        EXPECT_EQ(Rect(), plane.GetInverseDataBoundingBox());
        plane.Scrub(nullptr);
    }
}

TEST_F(PlaneTest, MoreThanTheLimitOfTilesThrows) {
    EXPECT_THROW(Plane<Red8>(256 * 4097, 256 * 4096), std::length_error);
    int const huge = std::numeric_limits<int>::max();
    EXPECT_THROW(Plane<Red8>(huge, huge), std::length_error);
}

TEST_F(PlaneTest, ScrubTurnsSolidTilesIntoStaticOnesUnlessAborted) {
    Plane<Red8> plane(600, 10);
    for (std::size_t i = 0; i < 3; ++i)
        WriteByte(plane.GetTile(i), 0, 0, 0);
    bool abort = true;
    plane.Scrub(&abort);
    EXPECT_FALSE(plane.GetTile(0).IsZeroTileBuffer());
    plane.Scrub(nullptr);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(plane.GetTile(i).IsZeroTileBuffer());
}

TEST_F(PlaneTest, DeduplicateSharesTilesWithEqualBytes) {
    Plane<Red8> plane(600, 10);
    for (std::size_t i = 0; i < 3; ++i)
        WriteByte(plane.GetTile(i), 5, 5, i == 1 ? 2 : 1);
    BlockDeduplicationSupport support;
    bool abort = true;
    plane.Deduplicate(support, &abort);
    EXPECT_NE(plane.GetTile(0).GetConstInner(), plane.GetTile(2).GetConstInner());
    plane.Deduplicate(support, nullptr);
    EXPECT_EQ(plane.GetTile(0).GetConstInner(), plane.GetTile(2).GetConstInner());
    EXPECT_NE(plane.GetTile(0).GetConstInner(), plane.GetTile(1).GetConstInner());
}

TEST_F(PlaneTest, SharedTilesStaySharedUntilWritten) {
    Plane<Red8> plane(300, 10), copy(300, 10), other(301, 10);
    auto const holder = TestHolder::Create();
    WriteByte(plane.GetTile(0), 1, 1, 7);
    plane.SetBacking(holder);
    copy.ShareTilesFrom(plane);
    other.ShareTilesFrom(plane);
    EXPECT_EQ(plane.GetTile(0).GetConstInner(), copy.GetTile(0).GetConstInner());
    EXPECT_TRUE(copy.GetTile(1).IsBackedBy(holder));
    EXPECT_FALSE(other.GetTile(0).IsAllocated()); // another grid: nothing
    WriteByte(copy.GetTile(0), 1, 1, 8);
    EXPECT_NE(plane.GetTile(0).GetConstInner(), copy.GetTile(0).GetConstInner());
    EXPECT_TRUE(plane.GetTile(0).IsBackedBy(holder));
    EXPECT_FALSE(copy.GetTile(0).IsBackedBy(holder));
}
}
