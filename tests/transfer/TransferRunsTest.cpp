#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Draw.h"
#include "pixel/transfer/TransferTiles.h"
#include "transfer/TransferPixels.h"

#include <gtest/gtest.h>

#include <string>

namespace Raster {
namespace {
class TransferRunsTest : public StorageTest {
protected:
    // Another transfer that samples, converts and blends, on the thread that reports.
    struct Inner {
        Slow::Picture<RGBA16Tuple> source = MakePicture<RGBA16Tuple>(90, 80, 5);
        Slow::Picture<RGBA8Tuple> expected = MakePicture<RGBA8Tuple>(70, 60, 6);
        Kernel::Counted<BitmapOf<RGBA16Tuple>> from = MakeBitmap<RGBA16Tuple>(source);
        Kernel::Counted<BitmapOf<RGBA8Tuple>> to = MakeBitmap<RGBA8Tuple>(expected);
        double matrix[6]{1.1, 0.4, -3.5, -0.4, 1.1, 7.25};
        float opacity = 0.8f;
        int calls = 0;

        void Run() {
            Transfer(*to, *from, nullptr, &opacity, matrix);
            Slow::Transfer<RGBA8Tuple, RGBA16Tuple>(expected, source, {0, 0, 70, 60}, 256, opacity, matrix);
            ++calls;
        }
    };
};
}

TEST_F(TransferRunsTest, AProgressCallbackMayTransferItself) {
    double const turned[6]{0.8, -0.3, 5.5, 0.3, 0.8, 2.25}, scaled[6]{0.8, 0, 5.5, 0, 0.8, 2.25};
    for (double const * const matrix : {turned, scaled, static_cast<double const *>(nullptr)}) {
        auto const source = MakePicture<RGBAUFTuple>(120, 110, 1);
        auto expected = MakePicture<RGBA8Tuple>(100, 90, 2);
        auto const dest = MakeBitmap<RGBA8Tuple>(expected);
        Inner inner;
        TransferParams params;
        params.progress = [](unsigned, void * context, double) { static_cast<Inner *>(context)->Run(); };
        params.progressContext = &inner;
        float const opacity = 1.0f;
        Transfer(*dest, *MakeBitmap<RGBAUFTuple>(source), &params, &opacity, matrix);
        Slow::Transfer<RGBA8Tuple, RGBAUFTuple>(expected, source, {0, 0, 100, 90}, 256, opacity, matrix);
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest));
        EXPECT_EQ(6, inner.calls); // rows 0, 16 and so on
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(inner.expected, *inner.to));
    }
}

// Four tiles of floats lie beside one of bytes; some are empty, some hold nothing that shows.
TEST_F(TransferRunsTest, PiecesOfNarrowTilesAreLaidTogether) {
    for (unsigned there = 0; there < 64; ++there) {
        auto source = MakePicture<AFTuple>(6 * 64 - 5, 20, there);
        for (int y = 0; y < source.height; ++y)
            for (int x = 0; x < source.width; ++x)
                if ((there >> (x / 64) & 1) == 0)
                    source.At(x, y) = {};
        auto const from = MakeBitmap<AFTuple>(source);
        for (int const shift : {0, 3, -70}) {
            double const matrix[6]{1, 0, double(shift), 0, 1, 0};
            auto expected = MakePicture<RGBA8Tuple>(400, 20, 3);
            auto const dest = MakeBitmap<RGBA8Tuple>(expected);
            float const opacity = 0.6f;
            Transfer(*dest, *from, nullptr, &opacity, matrix);
            Slow::Transfer<RGBA8Tuple, AFTuple>(expected, source, {0, 0, 400, 20}, 256, opacity, matrix);
            ASSERT_EQ("", FindDifference<RGBA8Tuple>(expected, *dest)) << "tiles " << there << ", moved by " << shift;
        }
    }
}

// A picture of 300 tiles, one above the other, all of which show in one tile.
TEST_F(TransferRunsTest, FewTilesArePinnedHoweverManyATaskMeets) {
    auto const source = MakePicture<A8Tuple>(4, 300 * 256, 1);
    struct Watch {
        Kernel::Counted<A8Bitmap> bitmap;
        std::size_t mostPins = 0;
    } watch{MakeBitmap<A8Tuple>(source)};
    double const upright[6]{0.1, 0, 0, 0, 1200, 3.25}, turned[6]{0, 0.1, 0, 1200, 0, 3.25};
    for (double const * const matrix : {upright, turned}) {
        auto expected = MakePicture<A8Tuple>(64, 64, 2);
        auto const dest = MakeBitmap<A8Tuple>(expected);
        TransferParams params;
        params.progressContext = &watch;
        params.progress = [](unsigned, void * context, double) {
            auto & self = *static_cast<Watch *>(context);
            std::size_t pins = 0;
            for (std::size_t i = 0; i < 300; ++i)
                pins += self.bitmap->GetPlane(0).GetTile(i).GetConstInner()->GetPinCount();
            self.mostPins = std::max(self.mostPins, pins);
        };
        float const opacity = 1.0f;
        Transfer(*dest, *watch.bitmap, &params, &opacity, matrix);
        Slow::Transfer<A8Tuple, A8Tuple>(expected, source, {0, 0, 64, 64}, 256, opacity, matrix);
        EXPECT_EQ("", FindDifference<A8Tuple>(expected, *dest));
    }
    EXPECT_GT(watch.mostPins, 0u);
    EXPECT_LE(watch.mostPins, SourceTiles::usualLimit);
}

TEST_F(TransferRunsTest, RowsOfAWidePictureAreFedFromTilesThatStayPinned) {
    struct Writer {
        BitmapCore const & bitmap;
        std::size_t mostPins = 0;
        void SetToXY(int, int) {}
        void WriteRow(std::size_t, void const * const *) {
            std::size_t pins = 0;
            for (std::size_t i = 0; i < 200; ++i)
                pins += bitmap.GetPlane(0).GetTile(i).GetConstInner()->GetPinCount();
            mostPins = std::max(mostPins, pins);
        }
    };
    auto const source = MakeBitmap<AFTuple>(MakePicture<AFTuple>(200 * 64, 3, 1));
    Writer writer{*source};
    EXPECT_TRUE(
        FeedRows(MakeRowSink(writer), *source, source->GetBounds(), 0, MakeRowTask(source->GetBounds(), nullptr)));
    EXPECT_EQ(200u, writer.mostPins);
}
}
