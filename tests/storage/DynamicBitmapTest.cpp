#include "storage/DynamicBitmap.h"

#include "kernel/MD5.h"
#include "kernel/TraceCapture.h"
#include "storage/BitmapPixels.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"

#include <array>
#include <cstring>
#include <limits>
#include <vector>

namespace Raster {
using Rect = Kernel::RectT<int>;
using Digest = std::array<unsigned char, 16>;

class DynamicBitmapTest : public StorageTest {
protected:
    static Kernel::Counted<DynamicBitmap> Make(int width, int height, Format format, MipmapMode mode = MipmapModeNone) {
        return Kernel::MakeCounted<DynamicBitmap>(width, height, format, mode, HardwareCachePolicy::Default);
    }
    static Digest GetDigest(Kernel::Counted<DynamicBitmap const> const & bitmap) {
        Digest digest;
        GetBitmapMD5Digest(digest.data(), bitmap);
        return digest;
    }
    static Digest GetDigestOf(std::vector<unsigned char> bytes, int width, int height, Format format) {
        std::int32_t const trailer[] = {width, height, static_cast<std::int32_t>(format)};
        auto const * const first = reinterpret_cast<unsigned char const *>(trailer);
        bytes.insert(bytes.end(), first, first + sizeof trailer);
        Digest digest;
        Kernel::MD5_CTX context;
        Kernel::MD5_Init(&context);
        Kernel::MD5_Update(&context, bytes.data(), bytes.size());
        Kernel::MD5_Final(digest.data(), &context);
        return digest;
    }
};

TEST_F(DynamicBitmapTest, WithoutABitmapEveryMemberGivesItsDefault) {
    DynamicBitmap bitmap;
    bitmap.Create(10, 10, NoFormat, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    bitmap.Create(10, 10, static_cast<Format>(11), MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    EXPECT_EQ(NoFormat, bitmap.GetFormat());
    EXPECT_EQ(nullptr, bitmap.GetCore());
    EXPECT_EQ(0, bitmap.GetWidth());
    EXPECT_EQ(0, bitmap.GetHeight());
    EXPECT_TRUE(bitmap.GetChannelInfo().empty());
    EXPECT_FALSE(bitmap.IsPendingDelayLoad());
    bitmap.ForceDelayLoad(nullptr);
    EXPECT_TRUE(bitmap.GetBackingData() == nullptr);
    bitmap.SetBackingData(TestHolder::Create(), nullptr);
    bitmap.SetHardwarePolicy(HardwareCachePolicy::Default);
    bitmap.Scrub(nullptr);
    BlockDeduplicationSupport support;
    bitmap.Deduplicate(support, nullptr);
    EXPECT_EQ(Rect(), bitmap.GetAllocatedBoundingBox());
    EXPECT_EQ(Rect(), bitmap.GetNonZeroBoundingBox());
    EXPECT_EQ(Rect(), bitmap.GetNonFullBoundingBox());
    EXPECT_EQ(Rect(), bitmap.GetAlphaBoundingBox());
    EXPECT_EQ(Rect(), bitmap.GetInverseAlphaBoundingBox());
    EXPECT_EQ(Rect(), bitmap.InflateByPixels({1, 1, 1, 1}, true));
    EXPECT_EQ(0, bitmap.GetLeftInflationTiles());
    EXPECT_EQ(0, bitmap.GetTopInflationTiles());
    EXPECT_EQ(MipmapModeNone, bitmap.GetMipmapMode());
    bitmap.InvalidateMipmaps();
    bitmap.InvalidateMipmaps({0, 0, 1, 1});
    bitmap.UpdateMipmaps(0, nullptr);
    EXPECT_FALSE(bitmap.GetMipmap(1));
    EXPECT_FALSE(std::as_const(bitmap).GetMipmap(1));
    Kernel::Counted<DynamicBitmap> const clone = bitmap.Clone();
    EXPECT_EQ(NoFormat, clone->GetFormat());
}

TEST_F(DynamicBitmapTest, EachFormatMakesTheBitmapOfItsTuple) {
    for (std::uint32_t value = 0; value < formatCount; ++value) {
        auto const format = static_cast<Format>(value);
        auto const bitmap = Make(300, 200, format);
        if (format == NoFormat)
            continue;
        ASSERT_NE(nullptr, bitmap->GetCore()) << value;
        EXPECT_EQ(format, bitmap->GetFormat());
        EXPECT_EQ(format, bitmap->GetCore()->GetLayout().format);
        EXPECT_EQ(300, bitmap->GetWidth());
        EXPECT_EQ(200, bitmap->GetHeight());
        EXPECT_EQ(5u, bitmap->GetChannelInfo().size());
        EXPECT_EQ((Rect{0, 0, 300, 200}), bitmap->GetInverseAlphaBoundingBox());
    }
}

TEST_F(DynamicBitmapTest, DescribesItself) {
    DynamicBitmap const bitmap;
    EXPECT_TRUE(bitmap.GetDescription() == "DynamicBitmap");
    EXPECT_EQ(Kernel::IDTag("DyBm"), bitmap.GetObjectClassProperties().GetClassUID());
    EXPECT_EQ(1, bitmap.GetObjectClassProperties().GetSchemaVersion());
    EXPECT_TRUE(Kernel::DynamicCast<DynamicBitmap>(bitmap.GetObjectClassProperties().CreateObject()));
}

TEST_F(DynamicBitmapTest, CopiesShareTheBitmapAndClonesDoNot) {
    auto const bitmap = Make(300, 200, RGBA8);
    DynamicBitmap const copy = *bitmap;
    Kernel::Counted<DynamicBitmap> const clone = bitmap->Clone(), empty = bitmap->CloneEmpty();
    EXPECT_EQ(bitmap->GetCore(), copy.GetCore());
    EXPECT_NE(bitmap->GetCore(), clone->GetCore());
    Paint(*bitmap->GetTyped<RGBA8Tuple>());
    EXPECT_FALSE(copy.GetNonZeroBoundingBox().IsEmpty());
    EXPECT_TRUE(clone->GetNonZeroBoundingBox().IsEmpty());
    EXPECT_EQ(RGBA8, empty->GetFormat());
    EXPECT_EQ(300, empty->GetWidth());
}

TEST_F(DynamicBitmapTest, TooLargeASizeLeavesNoBitmapAndIsTraced) {
    TraceCapture capture;
    auto const bitmap = Make(300, 200, RGBA8);
    int const huge = std::numeric_limits<int>::max();
    bitmap->Create(huge, huge, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    EXPECT_EQ(nullptr, bitmap->GetCore());
    EXPECT_EQ(0, bitmap->GetWidth());
    EXPECT_EQ(1u, capture.Take().size());
    bitmap->Create(-5, 7, RGBA8, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    ASSERT_NE(nullptr, bitmap->GetCore());
    EXPECT_EQ(0, bitmap->GetWidth());
    EXPECT_EQ(7, bitmap->GetHeight());
}

TEST_F(DynamicBitmapTest, OperationsReachTheBitmap) {
    auto const bitmap = Make(300, 200, RGBA8, MipmapModeManual);
    Paint(*bitmap->GetTyped<RGBA8Tuple>(), {10, 20, 30, 40});
    EXPECT_EQ((Rect{10, 20, 30, 40}), bitmap->GetNonZeroBoundingBox());
    EXPECT_EQ((Rect{0, 0, 256, 256}), bitmap->GetAllocatedBoundingBox());
    EXPECT_EQ((Rect{256, 0, 0, 0}), bitmap->InflateByPixels({10, 0, 0, 0}, true));
    EXPECT_EQ(1, bitmap->GetLeftInflationTiles());
    EXPECT_EQ(MipmapModeManual, bitmap->GetMipmapMode());
    auto & table = bitmap->GetCore()->GetMipmapTable();
    table.Publish(1, table.GetEntry(1));
    auto const level = bitmap->GetMipmap(1);
    ASSERT_TRUE(level);
    EXPECT_EQ(RGBA8, level->GetFormat());
    EXPECT_EQ(table.GetEntry(1).bitmap.Get(), level->GetCore());
    EXPECT_TRUE(std::as_const(*bitmap).GetMipmap(1));
    bitmap->InvalidateMipmaps({0, 0, 1, 1});
    EXPECT_FALSE(bitmap->GetMipmap(1));
    auto const holder = TestHolder::Create();
    bitmap->SetBackingData(holder, nullptr);
    EXPECT_TRUE(bitmap->GetBackingData() == holder.Get());
}

TEST_F(DynamicBitmapTest, DigestTakesOneByteForSolidTilesAndAllOfOthers) {
    auto const bitmap = Make(300, 10, A8); // two tiles
    std::vector<unsigned char> bytes(2 * 65536);
    EXPECT_EQ(GetDigestOf(bytes, 300, 10, A8), GetDigest(bitmap));
    auto & plane = bitmap->GetCore()->GetPlane(0);
    plane.GetTile(0) = *Tile::GetZeroTile();
    plane.GetTile(1) = *Tile::GetFullTile();
    EXPECT_EQ(GetDigestOf({'0', '1'}, 300, 10, A8), GetDigest(bitmap));
    Paint(*bitmap->GetTyped<A8Tuple>(), {3, 4, 4, 5});
    bytes.assign(65536, 0);
    bytes[4 * 256 + 3] = MakePixel<A8Tuple>(3, 4).channels[0];
    bytes.push_back('1');
    EXPECT_EQ(GetDigestOf(bytes, 300, 10, A8), GetDigest(bitmap));
    MutableTileGuard(plane.GetTile(0)).GetBuffer()[65536 / 4 - 1] = 0xAB; // beyond the edges, and fed all the same
    EXPECT_NE(GetDigestOf(bytes, 300, 10, A8), GetDigest(bitmap));
}

TEST_F(DynamicBitmapTest, DigestGoesByPlanesSizeAndFormat) {
    auto const bitmap = Make(10, 300, RGBAUF); // two tiles, one below the other, in four planes
    for (int plane = 0; plane < 4; ++plane) {
        bitmap->GetCore()->GetPlane(plane).GetTile(0) = *Tile::GetZeroTile();
        bitmap->GetCore()->GetPlane(plane).GetTile(1) = *(plane == 2 ? Tile::GetFullFloatTile() : Tile::GetZeroTile());
    }
    EXPECT_EQ(GetDigestOf({'0', '0', '0', '0', '0', '1', '0', '0'}, 10, 300, RGBAUF), GetDigest(bitmap));
    EXPECT_EQ(GetDigestOf({}, 0, 0, NoFormat), GetDigest(nullptr));
    EXPECT_EQ(GetDigestOf({}, 0, 0, NoFormat), GetDigest(Kernel::MakeCounted<DynamicBitmap>()));
}

TEST_F(DynamicBitmapTest, DigestOfAnEmptyPictureDiffersFromThatOfAScrubbedOne) {
    auto const empty = Make(300, 300, RGBA8), zeroed = Make(300, 300, RGBA8);
    for (int plane = 0; plane < 4; ++plane)
        for (std::size_t i = 0; i < 4; ++i)
            MutableTileGuard(zeroed->GetCore()->GetPlane(plane).GetTile(i)).GetBuffer();
    EXPECT_EQ(GetDigest(empty), GetDigest(zeroed));
    zeroed->Scrub(nullptr);
    EXPECT_NE(GetDigest(empty), GetDigest(zeroed));
}
}
