// Bitmaps whose pixels are still in their backing.
#include "kernel/Abort.h"
#include "kernel/TraceCapture.h"
#include "storage/BitmapPixels.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"
#include "storage/TileGuard.h"

#include <atomic>
#include <chrono>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Raster {
using Rect = Kernel::RectT<int>;

/// Stands in for the decoder: what it does is set by each test.
struct TestLoader {
    enum class Mode {
        Paint,
        Unreadable,
        Undecodable,
        AbortHalfway,
        UnreadableHalfway,
        ThrowHalfway,
        PaintByCopy,
        PaintOutsideAPipeline,
    };
    static inline std::atomic<Mode> mode{Mode::Paint};
    static inline std::atomic<int> calls{0};

    static bool Load(BitmapCore & bitmap, Kernel::DelayLoadHolder & backing, bool * abort) {
        ++calls;
        Kernel::DelayLoadHolder::TempLoadItem const item(&backing);
        if (!item.GetItem() || mode == Mode::Unreadable)
            return false;
        if (mode == Mode::Undecodable)
            return true;
        auto & typed = static_cast<RGBA8Bitmap &>(bitmap);
        if (mode == Mode::PaintByCopy) {
            Kernel::Counted<RGBA8Bitmap> const decoded = typed.CloneEmpty();
            Paint(*decoded);
            typed.CopyPlanesFrom(decoded.Get());
            return true;
        }
        if (mode == Mode::PaintOutsideAPipeline) // which asks for the very load that is running
            ModelAccessor<RGBA8Bitmap>(&typed, nullptr, /*nonPipeline=*/true).Write({});
        bool const isHalf = mode == Mode::AbortHalfway || mode == Mode::UnreadableHalfway || mode == Mode::ThrowHalfway;
        Paint(typed, {0, 0, typed.GetWidth(), isHalf ? 1 : typed.GetHeight()});
        if (mode == Mode::AbortHalfway)
            Kernel::RequestAbort(abort);
        if (mode == Mode::ThrowHalfway)
            throw std::bad_alloc();
        return mode != Mode::UnreadableHalfway;
    }
};

class BitmapLoadTest : public StorageTest {
protected:
    BitmapLoadTest() : loaderBefore(SetBitmapLoader(&TestLoader::Load)) {
        TestLoader::mode = TestLoader::Mode::Paint;
        TestLoader::calls = 0;
    }
    ~BitmapLoadTest() override { SetBitmapLoader(loaderBefore); }

    Kernel::Counted<RGBA8Bitmap> MakePending(MipmapMode mode = MipmapModeNone) const {
        auto bitmap = Kernel::MakeCounted<RGBA8Bitmap>(300, 20, mode, HardwareCachePolicy::Default);
        bitmap->SetPendingBacking(holder);
        return bitmap;
    }
    void ExpectLoaded(RGBA8Bitmap const & bitmap) const {
        EXPECT_FALSE(bitmap.IsPendingDelayLoad());
        EXPECT_TRUE(bitmap.GetPlane(1).GetTile(1).IsBackedBy(holder));
        EXPECT_TRUE(bitmap.GetBackingData() == holder.Get());
        EXPECT_EQ(MakePixel<RGBA8Tuple>(299, 19), ReadAll(bitmap).back());
    }

    Kernel::Counted<Kernel::DelayLoadHolder> const holder = TestHolder::Create();
    BitmapLoader const loaderBefore;
};

TEST_F(BitmapLoadTest, PendingBitmapKnowsItsSizeAndHoldsNothing) {
    auto const bitmap = MakePending();
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
    EXPECT_EQ(300, bitmap->GetWidth());
    EXPECT_EQ(20, bitmap->GetHeight());
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsAllocated());
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder));
    EXPECT_EQ(0, TestLoader::calls);
}

TEST_F(BitmapLoadTest, ForceFillsOnceAndMarksEveryTile) {
    for (auto const mode :
         {TestLoader::Mode::Paint, TestLoader::Mode::PaintByCopy, TestLoader::Mode::PaintOutsideAPipeline}) {
        TestLoader::mode = mode;
        TestLoader::calls = 0;
        auto const bitmap = MakePending(MipmapModeOnDemandDefault);
        bitmap->ForceDelayLoad(nullptr);
        bitmap->ForceDelayLoad(nullptr);
        EXPECT_EQ(1, TestLoader::calls);
        ExpectLoaded(*bitmap);
    }
}

TEST_F(BitmapLoadTest, AbortLeavesItPendingAndChangesNoMark) {
    auto const bitmap = MakePending();
    TestLoader::mode = TestLoader::Mode::AbortHalfway;
    bool abort = false;
    bitmap->ForceDelayLoad(&abort);
    EXPECT_TRUE(abort);
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder)); // written, and so no longer marked
    EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsAllocated());
    TestLoader::mode = TestLoader::Mode::Paint;
    bitmap->ForceDelayLoad(nullptr);
    ExpectLoaded(*bitmap);
}

TEST_F(BitmapLoadTest, EachOperationThatNeedsPixelsLoadsAndSaysSo) {
    TraceCapture capture;
    auto const expectLoads = [&](char const * operation, auto && call) {
        auto const bitmap = MakePending();
        call(*bitmap);
        EXPECT_FALSE(bitmap->IsPendingDelayLoad()) << operation;
        EXPECT_EQ(std::vector<std::string>{std::string("Bitmap<> is performing a blocking, non-abortable delay-load in "
                                                       "response to an ") +
                                           operation + "() call - you should try to avoid this.\r\n"},
                  capture.Take());
        call(*bitmap); // loaded now: silent
        EXPECT_TRUE(capture.Take().empty());
    };
    expectLoads("GetAlphaBoundingBox", [](auto & bitmap) { bitmap.GetAlphaBoundingBox(); });
    expectLoads("GetInverseAlphaBoundingBox", [](auto & bitmap) { bitmap.GetInverseAlphaBoundingBox(); });
    expectLoads("GetNonZeroBoundingBox", [](auto & bitmap) { bitmap.GetNonZeroBoundingBox(); });
    expectLoads("GetNonFullBoundingBox", [](auto & bitmap) { bitmap.GetNonFullBoundingBox(); });
    expectLoads("GetAllocatedBoundingBox", [](auto & bitmap) { bitmap.GetAllocatedBoundingBox(); });
    expectLoads("InflateByPixels", [](auto & bitmap) { bitmap.InflateByPixels({1, 0, 0, 0}, true); });
}

TEST_F(BitmapLoadTest, SessionsOutsideAPipelineLoadAndSaySo) {
    TraceCapture capture;
    using Reader = ModelConstAccessor<RGBA8Bitmap, Zero, IdentityTransform>;
    using Writer = ModelAccessor<RGBA8Bitmap>;
    auto const read = MakePending(), written = MakePending();
    {
        Reader const pipeline(read.Get(), nullptr, nullptr, /*nonPipeline=*/false);
        Writer const pipelineToo(read.Get(), nullptr, /*nonPipeline=*/false);
    }
    EXPECT_TRUE(read->IsPendingDelayLoad());
    EXPECT_TRUE(capture.Take().empty());

    Reader const reader(read.Get(), nullptr, nullptr, /*nonPipeline=*/true);
    EXPECT_FALSE(read->IsPendingDelayLoad());
    EXPECT_EQ(std::vector<std::string>{"Bitmap<> is performing a blocking, abortable delay-load in response to a "
                                       "non-pipeline ConstPixelAccessor session - you should try to avoid this.\r\n"},
              capture.Take());
    Writer const writer(written.Get(), nullptr, /*nonPipeline=*/true);
    EXPECT_FALSE(written->IsPendingDelayLoad());
    EXPECT_EQ(std::vector<std::string>{"Bitmap<> is performing a blocking, non-abortable delay-load in response to a "
                                       "non-pipeline PixelAccessor session - you should try to avoid this.\r\n"},
              capture.Take());
}

TEST_F(BitmapLoadTest, TupleWithoutAlphaLoadsForItsAlphaBoxAllTheSame) {
    using RGB = Bitmap<Red8, Green8, Blue8, X4, X5>;
    TestLoader::mode = TestLoader::Mode::Undecodable;
    RGB bitmap(10, 10, MipmapModeNone, HardwareCachePolicy::Default);
    bitmap.SetPendingBacking(holder);
    EXPECT_EQ(Rect(), bitmap.GetInverseAlphaBoundingBox());
    EXPECT_EQ(1, TestLoader::calls);
    EXPECT_FALSE(bitmap.IsPendingDelayLoad());
}

TEST_F(BitmapLoadTest, CloneOfAPendingOneIsPendingOnItsOwn) {
    auto const bitmap = MakePending();
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    EXPECT_TRUE(clone->IsPendingDelayLoad());
    EXPECT_TRUE(clone->GetPlane(0).GetTile(0).IsBackedBy(holder));
    bitmap->ForceDelayLoad(nullptr);
    EXPECT_TRUE(clone->IsPendingDelayLoad());
    EXPECT_FALSE(clone->GetPlane(0).GetTile(0).IsAllocated());
    clone->ForceDelayLoad(nullptr);
    ExpectLoaded(*clone);
    EXPECT_EQ(2, TestLoader::calls);
}

TEST_F(BitmapLoadTest, UnreadableBackingLeavesItPendingAndCannotBeWritten) {
    TraceCapture capture;
    TestLoader::mode = TestLoader::Mode::Unreadable;
    auto const bitmap = MakePending();
    bitmap->ForceDelayLoad(nullptr);
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
    EXPECT_EQ(1u, capture.Take().size());
    EXPECT_EQ(Rect(), bitmap->GetNonZeroBoundingBox());
    EXPECT_EQ((Rect{0, 0, 300, 20}), bitmap->GetNonFullBoundingBox());
    EXPECT_EQ(Rect(), bitmap->InflateByPixels({1, 1, 1, 1}, true));
    EXPECT_EQ((Rect{0, 0, 300, 20}), bitmap->GetBounds());
    EXPECT_THROW(ModelAccessor<RGBA8Bitmap>(bitmap.Get(), nullptr, /*nonPipeline=*/true), std::runtime_error);
    ModelConstAccessor<RGBA8Bitmap, Zero, IdentityTransform> reader(bitmap.Get(), nullptr, nullptr, true);
    auto pixel = MakePixel<RGBA8Tuple>(1, 1);
    reader.Read(pixel);
    EXPECT_EQ(PixelOf<RGBA8Tuple>(), pixel);
    TestLoader::mode = TestLoader::Mode::Paint; // the disk is back
    bitmap->ForceDelayLoad(nullptr);
    ExpectLoaded(*bitmap);
}

TEST_F(BitmapLoadTest, WithoutALoaderItStaysPending) {
    SetBitmapLoader(nullptr);
    auto const bitmap = MakePending();
    bitmap->ForceDelayLoad(nullptr);
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
}

TEST_F(BitmapLoadTest, UndecodableBackingGivesAnEmptyPictureThatIsBacked) {
    TestLoader::mode = TestLoader::Mode::Undecodable;
    auto const bitmap = MakePending();
    bitmap->ForceDelayLoad(nullptr);
    EXPECT_FALSE(bitmap->IsPendingDelayLoad());
    EXPECT_TRUE(bitmap->GetBackingData() == holder.Get());
    EXPECT_TRUE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder));
    EXPECT_EQ(Rect(), bitmap->GetAllocatedBoundingBox());
}

TEST_F(BitmapLoadTest, HalfALoadIsNeverTakenForThePicture) {
    for (auto const mode :
         {TestLoader::Mode::AbortHalfway, TestLoader::Mode::UnreadableHalfway, TestLoader::Mode::ThrowHalfway}) {
        auto const bitmap = MakePending();
        bool abort = false;
        TestLoader::mode = mode;
        if (mode == TestLoader::Mode::ThrowHalfway)
            EXPECT_THROW(bitmap->ForceDelayLoad(&abort), std::bad_alloc);
        else
            bitmap->ForceDelayLoad(&abort);
        EXPECT_TRUE(bitmap->IsPendingDelayLoad());
        EXPECT_FALSE(bitmap->GetPlane(0).GetTile(0).IsAllocated());
        TestLoader::mode = TestLoader::Mode::Undecodable;
        bitmap->ForceDelayLoad(nullptr);
        EXPECT_FALSE(bitmap->IsPendingDelayLoad());
        EXPECT_EQ(Rect(), bitmap->GetNonZeroBoundingBox());
        EXPECT_TRUE(bitmap->GetPlane(0).GetTile(0).IsBackedBy(holder));
    }
}

TEST_F(BitmapLoadTest, ScrubAndDeduplicateLoadNothing) {
    auto const bitmap = MakePending();
    BlockDeduplicationSupport support;
    bitmap->Scrub(nullptr);
    bitmap->Deduplicate(support, nullptr);
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
}

// --- Copies of planes ---

TEST_F(BitmapLoadTest, PlanesThatAreCopiedIntoAPendingOneStay) {
    auto const painted = MakePending(), bitmap = MakePending(MipmapModeOnDemandDefault);
    painted->ForceDelayLoad(nullptr);
    MutableTileGuard(painted->GetPlane(1).GetTile(1)).GetBuffer()[0] = 0x01020304;
    TestLoader::calls = 0;
    bitmap->CopyPlanesFrom(painted.Get());
    EXPECT_FALSE(bitmap->IsPendingDelayLoad());
    EXPECT_EQ(ReadAll(*painted), ReadAll(*bitmap));
    EXPECT_EQ(0, TestLoader::calls) << "the picture of the file is not asked for any more";
    EXPECT_TRUE(bitmap->GetBackingData() == holder.Get());
    EXPECT_TRUE(bitmap->GetPlane(1).GetTile(0).IsBackedBy(holder));
    EXPECT_FALSE(bitmap->GetPlane(1).GetTile(1).IsBackedBy(holder));
}

// Such as a step back to a copy that was made before anybody had looked at the picture.
TEST_F(BitmapLoadTest, PlanesOfAPendingOneAreLoadedToBeCopied) {
    TraceCapture capture;
    auto const bitmap = MakePending();
    Kernel::Counted<RGBA8Bitmap> const before = bitmap->Clone();
    bitmap->ForceDelayLoad(nullptr);
    auto const expected = ReadAll(*bitmap);
    MutableTileGuard(bitmap->GetPlane(1).GetTile(1)).GetBuffer()[0] = 0x01020304;
    capture.Take();
    bitmap->CopyPlanesFrom(before.Get());
    EXPECT_EQ(expected, ReadAll(*bitmap));
    EXPECT_TRUE(bitmap->GetPlane(1).GetTile(1).IsBackedBy(holder));
    EXPECT_EQ(1u, capture.Take().size()) << "which blocks, and so is told";
}

TEST_F(BitmapLoadTest, WhatCannotBeLoadedIsNotCopied) {
    TraceCapture capture;
    auto const bitmap = MakePending();
    bitmap->ForceDelayLoad(nullptr);
    auto const expected = ReadAll(*bitmap);
    TestLoader::mode = TestLoader::Mode::Unreadable;
    bitmap->CopyPlanesFrom(MakePending().Get());
    EXPECT_EQ(expected, ReadAll(*bitmap)) << "an empty picture in its place would be saved over it";
}

TEST_F(BitmapLoadTest, ThreadsThatAskAtOnceWaitForOneLoad) {
    for (int round = 0; round < 20; ++round) {
        TestLoader::calls = 0;
        auto const bitmap = MakePending(MipmapModeOnDemandDefault);
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i] {
                if (i == 3) { // a copy is made before the load or after it, never in its midst
                    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
                    wrong += clone->IsPendingDelayLoad() == clone->GetPlane(0).GetTile(0).IsAllocated();
                    return;
                }
                wrong += !(bitmap->GetNonZeroBoundingBox() == Rect{0, 0, 300, 20});
            });
        for (auto & thread : threads)
            thread.join();
        EXPECT_EQ(0, wrong);
        EXPECT_EQ(1, TestLoader::calls);
    }
}
}
