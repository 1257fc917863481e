// Bitmaps that share tiles, each used by its own thread, while tiles go to disk under their hands.
#include "storage/BitmapPixels.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"

#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace Raster {
namespace {
using Tuple = IA8Tuple;
using Type = BitmapOf<Tuple>;
using Rect = Kernel::RectT<int>;

#ifdef RASTER_SANITIZED
constexpr int rounds = 6;
#else
constexpr int rounds = 40;
#endif

/// The number of pixels that are not those of `outer`, and in `rect` those of `inner`.
int CountWrong(Type const & bitmap, Rect const & rect, std::uint32_t outer, std::uint32_t inner) {
    ModelConstAccessor<Type, Safe, IdentityTransform> accessor(&bitmap);
    int wrong = 0;
    for (int y = 0; y < bitmap.GetHeight(); ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < bitmap.GetWidth(); ++x, accessor.Increment()) {
            PixelOf<Tuple> pixel;
            accessor.Read(pixel);
            wrong += !(pixel == MakePixel<Tuple>(x, y, rect.Contains(x, y) ? inner : outer));
        }
        if (y % 256 == 255)
            accessor.Reset();
    }
    return wrong;
}
}

class BitmapThreadsTest : public StorageTest {};

TEST_F(BitmapThreadsTest, EachThreadSeesItsOwnPictureOfSharedTiles) {
    MemoryManager::Instance().SetDRAMLimit(1);
    Type base(600, 300, MipmapModeNone, HardwareCachePolicy::Default);
    Paint(base);
    std::atomic<int> wrong{0};
    std::atomic<bool> done{false};
    std::thread evictor([&] {
        while (!done) {
            EvictEverything();
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    for (std::uint32_t id = 0; id < 4; ++id)
        threads.emplace_back([&, id] {
            std::mt19937 random(id);
            for (int round = 0; round < rounds; ++round) {
                Kernel::Counted<Type> const own = base.Clone();
                int const left = static_cast<int>(random() % 500), top = static_cast<int>(random() % 250);
                Rect const rect{left, top, left + 1 + static_cast<int>(random() % 100),
                                top + 1 + static_cast<int>(random() % 50)};
                Paint(*own, rect, id + 2);
                Kernel::Counted<Type> const again = own->Clone();
                BlockDeduplicationSupport support;
                own->Scrub(nullptr);
                own->Deduplicate(support, nullptr);
                wrong += !(own->GetBounds().Contains(own->GetNonZeroBoundingBox()));
                wrong += CountWrong(round % 2 ? *own : *again, rect, 1, id + 2);
            }
        });
    for (auto & thread : threads)
        thread.join();
    done = true;
    evictor.join();
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0, CountWrong(base, {}, 1, 1));
}

TEST_F(BitmapThreadsTest, DisjointTilesOfOneBitmapAreWrittenSideBySide) {
    MemoryManager::Instance().SetDRAMLimit(1);
    Type bitmap(4 * 256, 512, MipmapModeNone, HardwareCachePolicy::Default);
    Kernel::Counted<Type> const before = bitmap.Clone();
    std::vector<std::thread> threads;
    for (int column = 0; column < 4; ++column)
        threads.emplace_back([&, column] { Paint(bitmap, {column * 256, 0, column * 256 + 256, 512}); });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(0, CountWrong(bitmap, {}, 1, 1));
    EXPECT_TRUE(before->GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(BitmapThreadsTest, BoxesAndCopiesRunBesideScrubAndDeduplicate) {
    Type bitmap(1024, 512, MipmapModeNone, HardwareCachePolicy::Default);
    for (int round = 0; round < rounds; ++round) {
        Paint(bitmap, {0, 0, 1024, 2}, static_cast<std::uint32_t>(round + 1));
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        threads.emplace_back([&] { bitmap.Scrub(nullptr); });
        threads.emplace_back([&] {
            BlockDeduplicationSupport support;
            bitmap.Deduplicate(support, nullptr);
        });
        threads.emplace_back([&] { wrong += !(bitmap.GetNonZeroBoundingBox() == Rect{0, 0, 1024, 2}); });
        threads.emplace_back([&] {
            Kernel::Counted<Type> const clone = bitmap.Clone();
            wrong += !(clone->GetNonZeroBoundingBox() == Rect{0, 0, 1024, 2});
        });
        for (auto & thread : threads)
            thread.join();
        ASSERT_EQ(0, wrong);
    }
}
}
