#include "files/jpeg/JPEGMetadata.h"

#include "files/JPEGTesting.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Raster {
namespace {
JPEGBytes MakeBytes(std::size_t size, unsigned first = 0) {
    JPEGBytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(first + i);
    return bytes;
}

JPEGBytes Collect(std::vector<JPEGSegment> const & segments) {
    JPEGMetadata metadata;
    for (auto const & segment : segments)
        metadata.TakeSegment(segment.marker, segment.data);
    return metadata.GetProfile();
}

int GetOrientation(std::vector<JPEGSegment> const & segments) {
    JPEGMetadata metadata;
    for (auto const & segment : segments)
        metadata.TakeSegment(segment.marker, segment.data);
    return metadata.GetOrientation();
}

bool IsOrientation(int value) { return value >= 1 && value <= 8; }

TEST(JPEGMetadata, IsEmptyAtFirst) {
    JPEGMetadata const metadata;
    EXPECT_TRUE(metadata.GetProfile().empty());
    EXPECT_TRUE(metadata.GetImageResourceBlocks().empty());
    EXPECT_EQ(1, metadata.GetOrientation());
}

TEST(JPEGMetadata, JoinsChunksOfAProfileInTheOrderOfTheirNumbers) {
    for (int count : {1, 2, 3, 254, 255})
        for (bool const isReversed : {false, true}) {
            std::vector<JPEGSegment> segments;
            JPEGBytes expected;
            for (int number = 1; number <= count; ++number) {
                auto const bytes = MakeBytes(static_cast<std::size_t>(number % 5), static_cast<unsigned>(number));
                expected.insert(expected.end(), bytes.begin(), bytes.end());
                segments.push_back(MakeProfileChunk(number, count, bytes));
            }
            if (isReversed)
                std::reverse(segments.begin(), segments.end());
            EXPECT_EQ(expected, Collect(segments)) << count << (isReversed ? " reversed" : "");
        }
}

TEST(JPEGMetadata, HasNoProfileWhereAChunkIsMissing) {
    for (int missing = 1; missing <= 255; ++missing) {
        std::vector<JPEGSegment> segments;
        for (int number = 1; number <= 255; ++number)
            if (number != missing)
                segments.push_back(MakeProfileChunk(number, 255, MakeBytes(3)));
        EXPECT_TRUE(Collect(segments).empty()) << missing;
    }
}

TEST(JPEGMetadata, HasNoProfileWhereANumberIsRepeatedOrWrong) {
    auto const chunk = [](int number, int count) { return MakeProfileChunk(number, count, MakeBytes(3)); };
    EXPECT_EQ(6u, Collect({chunk(1, 2), chunk(2, 2)}).size());
    EXPECT_TRUE(Collect({chunk(1, 2), chunk(2, 2), chunk(2, 2)}).empty());
    EXPECT_TRUE(Collect({chunk(1, 2), chunk(1, 2), chunk(2, 2)}).empty());
    EXPECT_TRUE(Collect({chunk(0, 2), chunk(1, 2), chunk(2, 2)}).empty());
    EXPECT_TRUE(Collect({chunk(1, 2), chunk(2, 2), chunk(0, 2)}).empty());
    EXPECT_TRUE(Collect({chunk(1, 2), chunk(2, 2), chunk(3, 2)}).empty());
    EXPECT_TRUE(Collect({chunk(1, 2), chunk(2, 3), chunk(3, 2)}).empty()) << "counts differ";
    EXPECT_TRUE(Collect({chunk(1, 0)}).empty());
    EXPECT_TRUE(Collect({chunk(0, 0)}).empty());
    EXPECT_TRUE(Collect({chunk(1, 1), chunk(255, 255)}).empty());
}

TEST(JPEGMetadata, HasNoProfileOfNoBytes) {
    EXPECT_TRUE(Collect({MakeProfileChunk(1, 1, {})}).empty());
    EXPECT_EQ(MakeBytes(1), Collect({MakeProfileChunk(1, 2, {}), MakeProfileChunk(2, 2, MakeBytes(1))}));
}

TEST(JPEGMetadata, IgnoresSegmentsThatAreNoProfile) {
    auto const good = MakeProfileChunk(1, 1, MakeBytes(5));
    auto wrongName = good, wrongMarker = good, cut = good;
    wrongName.data[4] ^= 1;
    wrongMarker.marker = 0xE3;
    cut.data.resize(13);
    EXPECT_EQ(MakeBytes(5), Collect({wrongName, good, wrongMarker, cut, {0xE2, {}}}));
}

TEST(JPEGMetadata, IgnoresAProfileOverTheLimit) {
    LimitsForTest limits;
    limits.limits.largestProfileBytes = 10;
    limits.Apply();
    EXPECT_EQ(10u, Collect({MakeProfileChunk(1, 2, MakeBytes(5)), MakeProfileChunk(2, 2, MakeBytes(5))}).size());
    EXPECT_TRUE(Collect({MakeProfileChunk(1, 2, MakeBytes(5)), MakeProfileChunk(2, 2, MakeBytes(6))}).empty());
    EXPECT_TRUE(Collect({MakeProfileChunk(1, 1, MakeBytes(11))}).empty());
}

TEST(JPEGMetadata, JoinsImageResourceBlocksInTheOrderOfTheFile) {
    JPEGMetadata metadata;
    auto wrongName = MakeResources(MakeBytes(9));
    wrongName.data[10] = '2';
    for (auto const & segment : {MakeResources(MakeBytes(4, 100)), wrongName, MakeResources({}),
                                 MakeResources(MakeBytes(3, 7)), JPEGSegment{0xED, MakeBytes(13)}})
        metadata.TakeSegment(segment.marker, segment.data);
    EXPECT_EQ(Join({MakeBytes(4, 100), MakeBytes(3, 7)}), metadata.GetImageResourceBlocks());
}

TEST(JPEGMetadata, IgnoresImageResourceBlocksOverTheLimit) {
    LimitsForTest limits;
    limits.limits.largestMetadataBytes = 10;
    limits.Apply();
    for (std::size_t const last : {5u, 6u}) {
        JPEGMetadata metadata;
        for (auto const & segment : {MakeResources(MakeBytes(5)), MakeResources(MakeBytes(last))})
            metadata.TakeSegment(segment.marker, segment.data);
        EXPECT_EQ(last == 5 ? 10u : 0u, metadata.GetImageResourceBlocks().size());
        metadata.TakeSegment(0xED, MakeResources(MakeBytes(1)).data);
        EXPECT_EQ(0u, metadata.GetImageResourceBlocks().size()) << "too late to take some of it";
    }
}

TEST(JPEGMetadata, ReadsTheOrientationInBothByteOrders) {
    for (bool const isLittle : {false, true})
        for (int const type : {3, 4})
            for (int const before : {0, 1, 20})
                for (int value = 0; value <= 10; ++value) {
                    int const expected = value >= 1 && value <= 8 ? value : 1;
                    EXPECT_EQ(expected, GetOrientation({MakeExif(value, isLittle, type, before)}))
                        << value << ' ' << isLittle << ' ' << type;
                }
}

TEST(JPEGMetadata, TakesTheFirstOrientation) {
    EXPECT_EQ(6, GetOrientation({MakeExif(6, true), MakeExif(3, true)}));
    EXPECT_EQ(6, GetOrientation({{0xE1, BytesOfText("http://ns.adobe.com/xap/1.0/\0", 29)}, MakeExif(6, false)}));
}

TEST(JPEGMetadata, SurvivesDamagedExif) {
    auto const whole = MakeExif(6, true);
    for (std::size_t size = 0; size < whole.data.size(); ++size)
        EXPECT_TRUE(
            IsOrientation(GetOrientation({{0xE1, JPEGBytes(whole.data.begin(), whole.data.begin() + long(size))}})));
    for (std::size_t i = 0; i < whole.data.size(); ++i)
        for (int const value : {0, 1, 127, 128, 255}) {
            auto damaged = whole;
            damaged.data[i] = static_cast<std::uint8_t>(value);
            EXPECT_TRUE(IsOrientation(GetOrientation({damaged})));
        }
}
}
}
