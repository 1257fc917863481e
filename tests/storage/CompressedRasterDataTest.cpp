#include "storage/CompressedRasterData.h"

#include "kernel/MemoryInStream.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include <unistd.h>

namespace Raster {
namespace {
using Item = Kernel::Counted<CompressedRasterData>;
using Bytes = std::vector<unsigned char>;

std::uint64_t GetUsage() { return MemoryManager::Instance().GetCompressedUsage(); }

Bytes MakeBytes(std::size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return bytes;
}

Bytes GetBytes(CompressedRasterData const & item) { return Bytes(item.GetData(), item.GetData() + item.GetSize()); }

Item MakeItem(Bytes const & bytes) {
    auto item = Kernel::MakeCounted<CompressedRasterData>();
    item->CopyFrom(bytes.data(), bytes.size());
    return item;
}

// Whatever a test does, nothing stays accounted.
class CompressedRasterDataTest : public testing::Test {
protected:
    ~CompressedRasterDataTest() override {
        EXPECT_EQ(GetUsage(), usageBefore);
        PixelMemory::FailAllocation(0);
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    std::string PathOf(char const * name) {
        if (folder.empty()) {
            std::string pattern = (std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string();
            folder = mkdtemp(pattern.data());
        }
        return (folder / name).string();
    }
    std::uint64_t const usageBefore = GetUsage();

private:
    std::filesystem::path folder;
};
}

TEST_F(CompressedRasterDataTest, IsEmptyAtFirst) {
    CompressedRasterData item;
    EXPECT_EQ(item.GetData(), nullptr);
    EXPECT_EQ(item.GetSize(), 0u);
    EXPECT_FALSE(item.GetInvert());
    item.SetInvert(true);
    EXPECT_TRUE(item.GetInvert());
}

TEST_F(CompressedRasterDataTest, CopiesBytesInPlaceOfTheOldOnes) {
    auto const item = MakeItem(MakeBytes(10));
    EXPECT_EQ(GetBytes(*item), MakeBytes(10));
    EXPECT_EQ(GetUsage(), usageBefore + 10);
    item->CopyFrom(MakeBytes(300).data(), 300);
    EXPECT_EQ(GetBytes(*item), MakeBytes(300));
    EXPECT_EQ(GetUsage(), usageBefore + 300);
    item->CopyFrom(item->GetData() + 100, 50); // a part of itself
    EXPECT_EQ(item->GetSize(), 50u);
    EXPECT_EQ(item->GetData()[0], static_cast<unsigned char>(101));
    item->CopyFrom(nullptr, 0);
    EXPECT_EQ(item->GetSize(), 0u);
    EXPECT_EQ(GetUsage(), usageBefore);
}

TEST_F(CompressedRasterDataTest, GrowsWithZerosAndShrinksInPlace) {
    auto const item = MakeItem(MakeBytes(10));
    auto const * const data = item->GetData();
    item->SetSize(4);
    EXPECT_EQ(item->GetData(), data);
    EXPECT_EQ(GetUsage(), usageBefore + 4);
    item->SetSize(10); // back to the old size: the buffer is compared with the present size only
    EXPECT_NE(item->GetData(), data);
    EXPECT_EQ(GetUsage(), usageBefore + 10);
    item->SetSize(12);
    EXPECT_EQ(GetBytes(*item), (Bytes{1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0})) << "what was cut off does not come back";
    item->SetSize(12);
    EXPECT_EQ(GetUsage(), usageBefore + 12);
}

TEST_F(CompressedRasterDataTest, AFailingAllocationChangesNothing) {
    auto const item = MakeItem(MakeBytes(10));
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(item->SetSize(100), std::bad_alloc);
    EXPECT_EQ(GetBytes(*item), MakeBytes(10));
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(item->CopyFrom(MakeBytes(20).data(), 20), std::bad_alloc);
    EXPECT_EQ(GetBytes(*item), MakeBytes(10));
    EXPECT_EQ(GetUsage(), usageBefore + 10);
}

TEST_F(CompressedRasterDataTest, GoesToAFileAndComesBack) {
    auto const path = PathOf("bytes \xFF not UTF-8");
    auto const item = MakeItem(MakeBytes(1000));
    ASSERT_TRUE(item->WriteToFile(path.c_str()));
    CompressedRasterData other;
    other.CopyFrom(MakeBytes(5).data(), 5);
    ASSERT_TRUE(other.SetFromFile(path.c_str()));
    EXPECT_EQ(GetBytes(other), MakeBytes(1000));
    EXPECT_EQ(GetUsage(), usageBefore + 2000);
}

TEST_F(CompressedRasterDataTest, AnEmptyFileGivesNoBytes) {
    auto const path = PathOf("empty");
    ASSERT_TRUE(CompressedRasterData().WriteToFile(path.c_str()));
    auto const item = MakeItem(MakeBytes(5));
    EXPECT_TRUE(item->SetFromFile(path.c_str()));
    EXPECT_EQ(item->GetSize(), 0u);
}

TEST_F(CompressedRasterDataTest, WhatCannotBeOpenedLeavesNothing) {
    auto const directory = std::filesystem::path(PathOf("x")).parent_path();
    for (auto const & path : {PathOf("not there"), directory.string()}) {
        auto const item = MakeItem(MakeBytes(5));
        EXPECT_FALSE(item->SetFromFile(path.c_str())) << path;
        EXPECT_EQ(item->GetData(), nullptr);
        EXPECT_EQ(item->GetSize(), 0u);
        EXPECT_FALSE(MakeItem(MakeBytes(5))->WriteToFile((path + "/missing/file").c_str()));
    }
    EXPECT_FALSE(MakeItem(MakeBytes(5))->WriteToFile(directory.string().c_str()));
    EXPECT_FALSE(MakeItem(MakeBytes(5))->WriteToFile("/dev/full"));
}

TEST_F(CompressedRasterDataTest, TakesBytesOfAStreamThatTheCallerMakesVisible) {
    auto const bytes = MakeBytes(20);
    Kernel::MemoryInStream stream(bytes.data(), bytes.size());
    CompressedRasterData item;
    EXPECT_FALSE(item.SetFromStream(stream, 0));
    EXPECT_TRUE(item.SetFromStream(stream, 12));
    EXPECT_EQ(item.GetSize(), 0u);
    EXPECT_EQ(GetUsage(), usageBefore + 12);
    item.SetSize(12);
    EXPECT_EQ(GetBytes(item), MakeBytes(12));
    EXPECT_EQ(GetUsage(), usageBefore + 12);
    EXPECT_FALSE(item.SetFromStream(stream, 9)); // one short
}

TEST_F(CompressedRasterDataTest, HandsItsBytesOver) {
    auto const item = MakeItem(MakeBytes(30));
    auto const block = item->RelinquishOwnership();
    EXPECT_EQ(Bytes(block.GetData(), block.GetData() + block.GetSize()), MakeBytes(30));
    EXPECT_EQ(item->GetData(), nullptr);
    EXPECT_EQ(item->GetSize(), 0u);
    EXPECT_EQ(GetUsage(), usageBefore);
    EXPECT_EQ(item->RelinquishOwnership().GetSize(), 0u);
}

TEST_F(CompressedRasterDataTest, IsReadAsAFile) {
    CompressedRasterDataInStream stream(MakeItem(MakeBytes(10)));
    unsigned char buffer[20] = {};
    EXPECT_EQ(stream.GetSize(), 10u);
    EXPECT_EQ(stream.Read(buffer, 4), 4u);
    EXPECT_EQ(stream.Tell(), 4u);
    EXPECT_FALSE(stream.IsEndOfData());
    EXPECT_EQ(stream.Read(buffer, 20), 6u);
    EXPECT_EQ(buffer[0], 5);
    EXPECT_EQ(stream.Read(buffer, 1), 0u);
    EXPECT_TRUE(stream.IsEndOfData());
}

TEST_F(CompressedRasterDataTest, ReadingSeeksWithinItsBytes) {
    using enum Kernel::SeekOrigin;
    constexpr auto far = std::numeric_limits<std::int64_t>::max();
    CompressedRasterDataInStream stream(MakeItem(MakeBytes(10)));
    EXPECT_TRUE(stream.Seek(Start, 7));
    EXPECT_EQ(stream.Tell(), 7u);
    EXPECT_TRUE(stream.Seek(Current, 100));
    EXPECT_EQ(stream.Tell(), 10u);
    EXPECT_TRUE(stream.Seek(End, -3));
    EXPECT_EQ(stream.Tell(), 7u);
    EXPECT_FALSE(stream.Seek(Current, far));
    EXPECT_EQ(stream.Tell(), 7u);
    EXPECT_TRUE(stream.Seek(Current, -100));
    EXPECT_EQ(stream.Tell(), 0u);
    EXPECT_TRUE(stream.Seek(Start, far));
    EXPECT_EQ(stream.Tell(), 10u);
}

TEST_F(CompressedRasterDataTest, NoItemReadsAsEmpty) {
    CompressedRasterDataInStream stream(nullptr);
    unsigned char byte;
    EXPECT_EQ(stream.GetSize(), 0u);
    EXPECT_EQ(stream.Read(&byte, 1), 0u);
    EXPECT_TRUE(stream.IsEndOfData());
}

TEST_F(CompressedRasterDataTest, WritingGrowsAheadAndFinishingGivesTheSizeBack) {
    auto const item = Kernel::MakeCounted<CompressedRasterData>();
    CompressedRasterDataOutStream stream(item);
    EXPECT_EQ(stream.Write("", 0), 0u);
    EXPECT_EQ(item->GetSize(), 0u);
    EXPECT_EQ(stream.Write("abc", 3), 3u);
    EXPECT_EQ(item->GetSize(), 3u + 0x100000 + 1);
    EXPECT_EQ(stream.Tell(), 3u);
    EXPECT_EQ(stream.GetSize(), 3u);
    auto const * const roomy = item->GetData();
    EXPECT_TRUE(stream.Finish());
    EXPECT_NE(item->GetData(), roomy) << "it would hold a mebibyte that nobody counts";
    EXPECT_EQ(GetBytes(*item), (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(GetUsage(), usageBefore + 3);
}

TEST_F(CompressedRasterDataTest, WritingManyPiecesKeepsThemAll) {
    auto const item = Kernel::MakeCounted<CompressedRasterData>();
    CompressedRasterDataOutStream stream(item);
    Bytes expected;
    for (std::size_t size = 1; expected.size() < 5'000'000; size = size * 3 % 65537) {
        auto const piece = MakeBytes(size);
        ASSERT_EQ(stream.Write(piece.data(), size), size);
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    EXPECT_TRUE(stream.Finish());
    EXPECT_EQ(GetBytes(*item), expected);
}

TEST_F(CompressedRasterDataTest, WritingOverflowsNothing) {
    auto const item = Kernel::MakeCounted<CompressedRasterData>();
    CompressedRasterDataOutStream stream(item);
    stream.Write("abc", 3);
    EXPECT_EQ(stream.Write("x", std::numeric_limits<std::uint64_t>::max()), 0u);
    EXPECT_EQ(stream.Tell(), 3u);
}

TEST_F(CompressedRasterDataTest, WritingWithoutMemoryTakesNothing) {
    auto const item = Kernel::MakeCounted<CompressedRasterData>();
    CompressedRasterDataOutStream stream(item);
    ASSERT_EQ(stream.Write("abc", 3), 3u);
    auto const large = MakeBytes(2'000'000);
    // Both the size with slack and the bare one.
    PixelMemory::FailAllocation(1);
    EXPECT_EQ(stream.Write(large.data(), large.size()), large.size());
    EXPECT_EQ(item->GetSize(), large.size() + 3); // no slack
    EXPECT_TRUE(stream.Finish());
}

TEST_F(CompressedRasterDataTest, ReservingGrowsOnly) {
    auto const item = Kernel::MakeCounted<CompressedRasterData>();
    CompressedRasterDataOutStream stream(item);
    stream.Reserve(100);
    EXPECT_EQ(item->GetSize(), 100u);
    stream.Reserve(50);
    EXPECT_EQ(item->GetSize(), 100u);
    stream.Reserve(std::numeric_limits<std::uint64_t>::max());
    EXPECT_TRUE(stream.Finish());
    EXPECT_EQ(item->GetSize(), 0u);
}

TEST_F(CompressedRasterDataTest, WritingSeeksAndFillsGapsWithZeros) {
    using enum Kernel::SeekOrigin;
    auto const item = MakeItem(Bytes(20, 9)); // what was there before is not part of the new file
    CompressedRasterDataOutStream stream(item);
    stream.Write("ab", 2);
    EXPECT_TRUE(stream.Seek(Start, 5));
    stream.Write("c", 1);
    EXPECT_TRUE(stream.Seek(Current, -100));
    stream.Write("A", 1);
    EXPECT_EQ(stream.GetSize(), 6u);
    EXPECT_TRUE(stream.Finish());
    EXPECT_EQ(GetBytes(*item), (Bytes{'A', 'b', 0, 0, 0, 'c'}));
}
}
