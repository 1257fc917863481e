#include "kernel/RawData.h"
#include "kernel/Abort.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace Kernel;

namespace {
template<class Allocator>
class RawDataTest : public testing::Test {
public:
    using Data = RawDataT<Countable, Allocator>;
};

using Allocators = testing::Types<AllocatorNew, AllocatorMalloc>;
TYPED_TEST_SUITE(RawDataTest, Allocators);
}

// The address sanitizer proves that each buffer is freed once, and in its allocator's way.
TYPED_TEST(RawDataTest, IsEmptyByDefault) {
    typename TestFixture::Data const data;
    EXPECT_EQ(data.GetData(), nullptr);
    EXPECT_EQ(data.GetSize(), 0u);
}

TYPED_TEST(RawDataTest, StartsWithZeros) {
    typename TestFixture::Data const data(1000);
    for (std::size_t i = 0; i < 1000; ++i)
        ASSERT_EQ(data.GetData()[i], 0) << i;
}

TYPED_TEST(RawDataTest, CopiesBytes) {
    auto const data = TestFixture::Data::CreateCopy("bytes", 5);
    EXPECT_EQ(std::string(data.GetData(), data.GetData() + data.GetSize()), "bytes");
    EXPECT_EQ(TestFixture::Data::CreateCopy(nullptr, 0).GetData(), nullptr);
}

TYPED_TEST(RawDataTest, MovesItsBytes) {
    auto first = TestFixture::Data::CreateCopy("bytes", 5);
    auto const * const bytes = first.GetData();
    typename TestFixture::Data second(std::move(first));
    EXPECT_EQ(second.GetData(), bytes);
    EXPECT_EQ(first.GetData(), nullptr);
    EXPECT_EQ(first.GetSize(), 0u);
    typename TestFixture::Data third(7);
    third = std::move(second);
    EXPECT_EQ(third.GetData(), bytes);
    EXPECT_EQ(third.GetSize(), 5u);
}

TYPED_TEST(RawDataTest, GivesItsBytesAway) {
    auto data = TestFixture::Data::CreateCopy("bytes", 5);
    auto * const bytes = data.RelinquishOwnership();
    EXPECT_EQ(data.GetData(), nullptr);
    EXPECT_EQ(data.GetSize(), 0u);
    TypeParam::Free(bytes);
}

TYPED_TEST(RawDataTest, CanBeShared) {
    Counted<typename TestFixture::Data const> const first = MakeCounted<typename TestFixture::Data>(16u);
    Counted<typename TestFixture::Data const> const second = first;
    EXPECT_EQ(second->GetSize(), 16u);
}

TYPED_TEST(RawDataTest, ThrowsIfThereIsNoMemory) {
#ifdef RASTER_SANITIZED
    GTEST_SKIP() << "sanitizers end the program instead";
#endif
    EXPECT_THROW(typename TestFixture::Data(std::size_t(1) << 60), std::bad_alloc);
}

TEST(IsAborted, ReadsTheCallersPlainBool) {
    EXPECT_FALSE(IsAborted(nullptr));
    bool flag = false;
    EXPECT_FALSE(IsAborted(&flag));
    flag = true;
    EXPECT_TRUE(IsAborted(&flag));
}

TEST(IsAborted, MayRunBesideARequest) {
    bool flag = false;
    std::thread waiter([&] {
        while (!IsAborted(&flag))
            std::this_thread::yield();
    });
    RequestAbort(&flag);
    waiter.join();
    RequestAbort(nullptr); // nothing
    EXPECT_TRUE(flag);
}
