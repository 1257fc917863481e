// Picture files in documents, decoded by the formats.
#include "files/ImageLimits.h"
#include "files/JPEGMaker.h"
#include "kernel/DelayLoadHolder.h"
#include "storage/BitmapCore.h"
#include "storage/CompressedRasterData.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace Raster;

namespace {
// Makes a marker between two scans one that no JPEG has: an error that shows when pixels are decoded.
bool BreakSecondScan(JPEGBytes & file) {
    std::uint8_t const startOfScan[] = {0xff, 0xda};
    auto const first = std::search(file.begin(), file.end(), std::begin(startOfScan), std::end(startOfScan));
    if (first == file.end())
        return false;
    auto const second = std::search(first + 2, file.end(), std::begin(startOfScan), std::end(startOfScan));
    if (second == file.end())
        return false;
    second[1] = 0x19;
    return true;
}
}

TEST(CompressedDataCodec, FileThatCannotBeDecodedShowsAnEmptyPicture) {
    int tried = 0;
    for (auto const & recipe : MakeEveryKindOfJPEG(17, 9)) {
        auto bytes = MakeJPEG(recipe);
        if (!BreakSecondScan(bytes))
            continue;
        ++tried;
        auto const file = Kernel::MakeCounted<CompressedRasterData>();
        file->CopyFrom(bytes.data(), bytes.size());
        DynamicBitmap bitmap(17, 9, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
        bitmap.GetCore()->SetPendingBacking(
            Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), file));
        EXPECT_NO_THROW(bitmap.ForceDelayLoad(nullptr));
        EXPECT_FALSE(bitmap.IsPendingDelayLoad());
        EXPECT_TRUE(bitmap.GetNonZeroBoundingBox().IsEmpty());
        EXPECT_FALSE(file->GetDecodeProblems().failure.IsEmpty());
    }
    EXPECT_GT(tried, 0);
}

namespace {
Kernel::Counted<CompressedRasterData> MakeFile(JPEGBytes const & bytes, std::size_t size) {
    auto const file = Kernel::MakeCounted<CompressedRasterData>();
    file->CopyFrom(bytes.data(), size);
    return file;
}
DecodeProblems Decode(Kernel::Counted<CompressedRasterData> const & file) {
    static_cast<void>(file->GetBitmapRepresentation(RGBA8, 64, 64, nullptr));
    return file->GetDecodeProblems();
}
}

TEST(CompressedDataCodec, WhatIsWrongWithAFileIsToldOnceItIsDecoded) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 64;
    auto const bytes = MakeJPEG(recipe);
    auto const whole = Decode(MakeFile(bytes, bytes.size()));
    EXPECT_TRUE(whole.failure.IsEmpty());
    EXPECT_TRUE(whole.warning.IsEmpty());
    auto const cut = Decode(MakeFile(bytes, bytes.size() - bytes.size() / 8));
    EXPECT_TRUE(cut.failure.IsEmpty());
    EXPECT_EQ(cut.warning.GetView(), "the file ends early");
    EXPECT_FALSE(Decode(MakeFile(bytes, 0)).failure.IsEmpty());
    EXPECT_FALSE(Decode(MakeFile(bytes, 2)).failure.IsEmpty());
    auto const file = MakeFile(bytes, bytes.size());
    EXPECT_TRUE(file->GetDecodeProblems().failure.IsEmpty()) << "before it is decoded";
    file->SetSize(2);
    EXPECT_FALSE(Decode(file).failure.IsEmpty());
    file->CopyFrom(bytes.data(), bytes.size());
    EXPECT_TRUE(Decode(file).failure.IsEmpty()) << "new bytes, new answer";
}

TEST(CompressedDataCodec, FileOverALimitIsAFailure) {
    JPEGRecipe recipe;
    recipe.width = recipe.height = 64;
    auto const bytes = MakeJPEG(recipe);
    auto const before = GetImageLimits();
    auto limits = before;
    limits.largestDecodedBytes = 1000;
    SetImageLimits(limits);
    auto const problems = Decode(MakeFile(bytes, bytes.size()));
    SetImageLimits(before);
    EXPECT_NE(problems.failure.GetView().find("largestDecodedBytes"), std::string_view::npos);
}
