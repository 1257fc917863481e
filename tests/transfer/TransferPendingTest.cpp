// Transfers from and into bitmaps whose pixels are still in their backing.
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Draw.h"
#include "pixel/transfer/Fill.h"
#include "pixel/transfer/TransferManaged.h"
#include "transfer/PendingBitmaps.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace Raster {
namespace {
float const opaque = 1.0f;

class TransferPendingTest : public PendingBitmapTest {};
}

TEST_F(TransferPendingTest, APendingSourceIsLoadedOnce) {
    auto const source = MakePending();
    DynamicBitmap dest(300, 280, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Transfer(dest, DynamicBitmap(source), nullptr, &opaque, nullptr);
    Transfer(dest, DynamicBitmap(source), nullptr, &opaque, nullptr);
    EXPECT_EQ(1, loads);
    EXPECT_FALSE(source->IsPendingDelayLoad());
    auto const painted = MakePainted();
    Kernel::Counted<RGBA8Bitmap> const twice(new RGBA8Bitmap(300, 280, MipmapModeNone, HardwareCachePolicy()));
    Transfer(*twice, *painted, nullptr, &opaque, nullptr);
    Transfer(*twice, *painted, nullptr, &opaque, nullptr);
    EXPECT_EQ(ReadAll(*twice), ReadAll(*dest.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferPendingTest, ASourceThatMayStayUnloadedReadsAsEmpty) {
    auto const source = MakePending();
    DynamicBitmap dest(300, 280, RGBA8, MipmapModeNone, HardwareCachePolicy());
    TransferParams params;
    params.sourceMayStayUnloaded = true;
    Transfer(dest, DynamicBitmap(source), &params, &opaque, nullptr);
    DynamicBuffer buffer;
    buffer.Create(300, 280, RGBA8);
    buffer.ClearRect({0, 0, 300, 280});
    Draw(buffer, DynamicBitmap(source), &params, &opaque, 0, 0);
    EXPECT_EQ(0, loads);
    EXPECT_TRUE(source->IsPendingDelayLoad());
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
    EXPECT_TRUE(buffer.GetAlphaBoundingBox().IsEmpty());
}

TEST_F(TransferPendingTest, ASourceThatMayStayUnloadedIsFedAsEmpty) {
    auto const source = MakePending();
    TransferParams params;
    params.sourceMayStayUnloaded = true;
    RGBA8Tuple::Apply<Buffer> typed(width, height, nullptr);
    for (Format const format : {RGBA8, CMYKA8}) {
        DynamicBuffer erased;
        erased.Create(width, height, format);
        Fill(erased, {0, 0, width, height}, DynamicPixel(PixelOf<RGBA8Tuple>{{9, 8, 7, 255}}), 1.0f);
        EXPECT_TRUE(Feed(erased, DynamicBitmap(source), &params));
        EXPECT_TRUE(erased.GetAlphaBoundingBox().IsEmpty()) << format;
    }
    std::memset(typed.GetData(), 77, typed.GetBufferSize());
    EXPECT_TRUE(Feed(typed, *source, &params));
    EXPECT_EQ(std::vector<PixelOf<RGBA8Tuple>>(std::size_t(width * height)), ReadAll(typed));
    EXPECT_EQ(0, loads);
    EXPECT_TRUE(source->IsPendingDelayLoad());
    EXPECT_TRUE(Feed(typed, *source, nullptr));
    EXPECT_EQ(1, loads);
    EXPECT_EQ(ReadAll(*MakePainted()), ReadAll(typed));
}

TEST_F(TransferPendingTest, ASourceThatCannotBeReadWritesNothing) {
    backing = Backing::Unreadable;
    DynamicBitmap dest(300, 280, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Transfer(dest, DynamicBitmap(MakePending()), nullptr, &opaque, nullptr);
    EXPECT_EQ(1, loads);
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(TransferPendingTest, AnAbortDuringTheLoadWritesNothingAndLeavesTheSourcePending) {
    backing = Backing::AbortsWhileRead;
    auto const source = MakePending();
    DynamicBitmap dest(300, 280, RGBA8, MipmapModeNone, HardwareCachePolicy());
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    Transfer(dest, DynamicBitmap(source), &params, &opaque, nullptr);
    EXPECT_TRUE(source->IsPendingDelayLoad());
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(TransferPendingTest, DrawsOfAKnownTupleLoadTheirSource) {
    auto const source = MakePending();
    Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(300, 280, MipmapModeNone, HardwareCachePolicy()));
    Draw(*dest, *source, nullptr, &opaque, 0, 0);
    EXPECT_EQ(1, loads);
    EXPECT_FALSE(dest->GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(TransferPendingTest, APendingDestinationIsLoadedBeforeItIsWritten) {
    DynamicBitmap dest(MakePending());
    DynamicBitmap const nothing(300, 280, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Transfer(dest, nothing, nullptr, &opaque, nullptr);
    EXPECT_EQ(1, loads);
    EXPECT_EQ(ReadAll(*MakePainted()), ReadAll(*dest.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferPendingTest, ADestinationThatStaysPendingIsNotWritten) {
    backing = Backing::Unreadable;
    auto const dest = MakePending();
    DynamicBitmap erased(dest);
    Transfer(erased, DynamicBitmap(MakePainted()), nullptr, &opaque, nullptr);
    Transfer(*dest, *MakePainted(), nullptr, &opaque, nullptr);
    Draw(*dest, *MakePainted(), nullptr, &opaque, 0, 0);
    EXPECT_TRUE(dest->IsPendingDelayLoad());
    EXPECT_TRUE(HasNoTiles(*dest));
}

TEST_F(TransferPendingTest, AnAbortDuringTheLoadOfADestinationWritesNothing) {
    backing = Backing::AbortsWhileRead;
    DynamicBitmap dest(MakePending(MipmapModeManual));
    bool abort = false;
    TransferParams params;
    params.abort = &abort;
    Transfer(dest, DynamicBitmap(MakePainted()), &params, &opaque, nullptr);
    EXPECT_TRUE(dest.IsPendingDelayLoad());
    EXPECT_TRUE(HasNoTiles(*dest.GetCore()));
}

// No level is built from pixels that aren't there, so the first transfer samples the picture itself.
TEST_F(TransferPendingTest, APendingSourceIsShrunkWithoutALevelOnce) {
    double const shrink[6]{3, 0, 0, 0, 3, 0};
    auto const source = MakePending(MipmapModeOnDemand), plain = MakePainted(), ready = MakePainted(MipmapModeOnDemand);
    auto const make = [] { return MakeBitmap<RGBA8Tuple>(Slow::Picture<RGBA8Tuple>(100, 90)); };
    auto const first = make(), second = make(), fromPicture = make(), fromLevel = make();
    Transfer(*first, *source, nullptr, &opaque, shrink);
    EXPECT_EQ(1, loads);
    Transfer(*second, *source, nullptr, &opaque, shrink);
    EXPECT_EQ(1, loads);
    Transfer(*fromPicture, *plain, nullptr, &opaque, shrink);
    Transfer(*fromLevel, *ready, nullptr, &opaque, shrink);
    EXPECT_EQ(ReadAll(*fromPicture), ReadAll(*first));
    EXPECT_EQ(ReadAll(*fromLevel), ReadAll(*second));
    EXPECT_NE(ReadAll(*first), ReadAll(*second));
}

TEST_F(TransferPendingTest, ALevelThatCameWithADocumentIsSampledWithoutALoad) {
    auto const source = MakePending(MipmapModeOnDemand);
    auto const level = source->GetMipmapTable().GetEntry(1).bitmap;
    ASSERT_TRUE(level);
    auto const picture = MakePicture<RGBA8Tuple>(level->GetWidth(), level->GetHeight(), 1);
    Transfer(*level, *MakeBitmap<RGBA8Tuple>(picture), nullptr, &opaque, nullptr);
    source->GetMipmapTable().DeclareValid(1);
    double const shrink[6]{3, 0, 0, 0, 3, 0}, onLevel[6]{1.5, 0, 0, 0, 1.5, 0};
    auto const dest = MakeBitmap<RGBA8Tuple>(Slow::Picture<RGBA8Tuple>(100, 90));
    auto const expected = MakeBitmap<RGBA8Tuple>(Slow::Picture<RGBA8Tuple>(100, 90));
    for (bool const mayStayUnloaded : {false, true}) {
        TransferParams params;
        params.sourceMayStayUnloaded = mayStayUnloaded;
        Transfer(*dest, *source, &params, &opaque, shrink);
        Transfer(*expected, *level, nullptr, &opaque, onLevel);
        EXPECT_EQ(ReadAll(*expected), ReadAll(*dest)) << mayStayUnloaded;
    }
    EXPECT_EQ(0, loads);
    EXPECT_TRUE(source->IsPendingDelayLoad());
}

TEST_F(TransferPendingTest, ManagedTransfersLoadBothSides) {
    DynamicBitmap const source(MakePending());
    DynamicBitmap dest(MakePending()), expected(MakePainted());
    Kernel::RectT<int> const clip{0, 0, 100, 100};
    TransferParams params;
    params.clip = &clip;
    TransferManaged(dest, source, nullptr, &params);
    EXPECT_EQ(2, loads);
    EXPECT_EQ(ReadAll(*expected.GetTyped<RGBA8Tuple>()), ReadAll(*dest.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferPendingTest, ManagedTransfersWriteNothingWhereASideStaysPending) {
    for (Backing const what : {Backing::Unreadable, Backing::AbortsWhileRead}) {
        backing = what;
        bool abort = false;
        TransferParams params;
        params.abort = &abort;
        DynamicBitmap empty(width, height, RGBA8, MipmapModeNone, HardwareCachePolicy()), pending(MakePending());
        TransferManaged(empty, DynamicBitmap(MakePending()), nullptr, &params);
        abort = false;
        TransferManaged(pending, DynamicBitmap(MakePainted()), nullptr, &params);
        EXPECT_TRUE(HasNoTiles(*empty.GetCore()));
        EXPECT_TRUE(HasNoTiles(*pending.GetCore()));
        EXPECT_TRUE(pending.IsPendingDelayLoad());
    }
}

TEST_F(TransferPendingTest, AManagedSourceThatMayStayUnloadedReadsAsEmpty) {
    Kernel::RectT<int> const clip{20, 30, 270, 260};
    TransferParams params;
    params.sourceMayStayUnloaded = true;
    params.clip = &clip;
    DynamicBitmap dest(MakePainted());
    auto expected = ReadAll(*dest.GetTyped<RGBA8Tuple>());
    TransferManaged(dest, DynamicBitmap(MakePending()), nullptr, &params);
    EXPECT_EQ(0, loads);
    for (int y = clip.top; y < clip.bottom; ++y)
        std::fill_n(&expected[std::size_t(y * width + clip.left)], clip.GetWidth(), PixelOf<RGBA8Tuple>{});
    EXPECT_EQ(expected, ReadAll(*dest.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferPendingTest, AbortsAtRandomInstantsLeaveWholeRows) {
    Kernel::Counted<RGBA8Bitmap> const source(new RGBA8Bitmap(900, 900, MipmapModeNone, HardwareCachePolicy()));
    for (int plane = 0; plane < 4; ++plane)
        for (std::size_t i = 0; i < source->GetPlane(plane).GetTileCount(); ++i) {
            MutableTileGuard const guard(source->GetPlane(plane).GetTile(i));
            std::memset(guard.GetBuffer(), plane == 3 ? 255 : 200, Tile::ByteCount);
        }
    double const enlarge[6]{0.9, 0, 20.3, 0, 0.9, 20.3}, turned[6]{0, 0.9, 20.3, 0.9, 0, 20.3};
    std::mt19937 random(9);
    for (int round = 0; round < 16; ++round) {
        double const * const matrix = round % 2 ? turned : enlarge;
        Kernel::Counted<RGBA8Bitmap> const whole(new RGBA8Bitmap(800, 800, MipmapModeNone, HardwareCachePolicy()));
        Transfer(*whole, *source, nullptr, &opaque, matrix);
        auto const expected = ReadAll(*whole);
        Kernel::Counted<RGBA8Bitmap> const dest(new RGBA8Bitmap(800, 800, MipmapModeNone, HardwareCachePolicy()));
        bool abort = false;
        TransferParams params;
        params.abort = &abort;
        std::thread stopper([&abort, wait = random() % 8000] {
            std::this_thread::sleep_for(std::chrono::microseconds(wait));
            Kernel::RequestAbort(&abort);
        });
        Transfer(*dest, *source, &params, &opaque, matrix);
        stopper.join();
        auto const pixels = ReadAll(*dest);
        for (std::size_t y = 0; y < 800; ++y)
            for (std::size_t left = 0; left < 800; left += 256) {
                auto const begin = y * 800 + left, count = std::min<std::size_t>(256, 800 - left);
                bool const done = std::equal(&pixels[begin], &pixels[begin] + count, &expected[begin]);
                bool const untouched = std::all_of(&pixels[begin], &pixels[begin] + count,
                                                   [](auto const & pixel) { return pixel == PixelOf<RGBA8Tuple>{}; });
                ASSERT_TRUE(done || untouched) << "row " << y << " from " << left;
            }
        Transfer(*dest, *source, nullptr, &opaque, matrix);
        ASSERT_EQ(expected, ReadAll(*dest)); // opaque rows that were done become the same again
    }
}
}
