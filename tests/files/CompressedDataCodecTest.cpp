// Picture files in documents, decoded by the formats.
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
    }
    EXPECT_GT(tried, 0);
}
