#include "pixel/Buffer.h"

#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"
#include "pixel/TestModels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace Raster {
class ICCProfile : public Kernel::Consolidatable { // enough of a profile to own none
public:
    std::uint64_t GetConsolidationHash() const override { return 0; }
    bool IsEqualTo(Kernel::Consolidatable const &) const override { return true; }
};

namespace {
using RGBA8Buffer = RGBA8Tuple::Apply<Buffer>;
constexpr int highest = std::numeric_limits<int>::max(), lowest = std::numeric_limits<int>::min();

std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }

template<class T>
void FillBytes(T & buffer, std::uint64_t bytes) {
    for (std::uint64_t i = 0; i < bytes; ++i)
        buffer.GetData()[i] = static_cast<unsigned char>(i * 7 + 1);
}

template<class Tuple>
void CheckTuple(std::uint64_t pixelSize, Format format) {
    using Type = typename Tuple::template Apply<Buffer>;
    auto const before = GetUsage();
    {
        Type buffer(37, 3, nullptr);
        ASSERT_EQ(pixelSize, buffer.GetPixelSize());
        ASSERT_EQ(37 * 3 * pixelSize, buffer.GetBufferSize());
        ASSERT_EQ(before + buffer.GetBufferSize(), GetUsage());
        ASSERT_EQ(format, Type::GetFormat());
        ASSERT_EQ(37, buffer.GetWidth(0));
        ASSERT_EQ(3, buffer.GetHeight(0));

        FillBytes(buffer, buffer.GetBufferSize());
        Kernel::Counted<Type> const copy(buffer.Clone());
        ASSERT_EQ(before + 2 * buffer.GetBufferSize(), GetUsage());
        ASSERT_EQ(0, std::memcmp(copy->GetData(), buffer.GetData(), buffer.GetBufferSize()));
        buffer.Clear();
        ASSERT_TRUE(std::all_of(buffer.GetData(), buffer.GetData() + buffer.GetBufferSize(),
                                [](unsigned char byte) { return byte == 0; }));
        ASSERT_EQ(1, copy->GetData()[0]);

        // Pixels lie in the order of the tuple, and spans cross the row's end as zeros.
        typename Type::template ConstPixelAccessor<Zero, IdentityTransform> reader(copy.Get());
        typename Type::template PixelAccessor<AllChannels> writer(&buffer);
        typename Type::InterleavedSpan span;
        for (int y = 0; y < 3; ++y)
            for (int x : {0, 32}) {
                reader.SetToXY(x, y);
                writer.SetToXY(x, y);
                reader.SpanRead(span);
                writer.SpanWrite(span);
            }
        ASSERT_EQ(0, std::memcmp(copy->GetData(), buffer.GetData(), buffer.GetBufferSize()));

        Kernel::Counted<Type> const empty(buffer.CloneEmpty());
        ASSERT_EQ(37, empty->GetWidth());
        ASSERT_EQ(3, empty->GetHeight());
        ASSERT_FALSE(buffer.GetProfile());
    }
    ASSERT_EQ(before, GetUsage());
}
}

TEST(Buffer, ExistsForEveryTupleAndWorksOnItsBytes) {
    constexpr std::uint64_t pixelSizes[] = {4,  3,  8,  6,                              // RGB integer
                                            4,  4,                                      // swizzled
                                            16, 12, 16, 12, 8,  6,  32, 24, 16,         // RGB float, and the odd one
                                            2,  1,  4,  2,  8,  4,  8,  4,  4,  2,  16, // grey
                                            5,  4,  20, 16, 40, 32,                     // CMYK
                                            8,  6,  16, 12, 2,  4,                      // LAB
                                            16, 16, 16, 16,                             // hue based
                                            1,  2,  4,  2,  8,                          // alpha only
                                            1,  2,  2,  2,  4,  8,                      // index
                                            1,  2,  3,  4,  5,  2,  4,  6,  8,  10,     // generic, integer
                                            4,  8,  12, 16, 20, 2,  4,  6,  8,  10};    // generic, float and half
    static_assert(std::size(pixelSizes) == 73);
    int tuple = 0;
#define RASTER_CHECK(C1, C2, C3, C4, C5)                                                                               \
    {                                                                                                                  \
        SCOPED_TRACE(#C1 " " #C2 " " #C3 " " #C4 " " #C5);                                                             \
        CheckTuple<ChannelTuple<C1, C2, C3, C4, C5>>(pixelSizes[tuple++], formatOf<ChannelTuple<C1, C2, C3, C4, C5>>); \
    }
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
}

TEST(Buffer, WrappingNeitherFreesNorAccounts) {
    auto const before = GetUsage();
    std::vector<unsigned char> memory(6 * 4 + 2, 77);
    {
        RGBA8Buffer buffer(3, 2, memory.data() + 1);
        EXPECT_EQ(before, GetUsage());
        EXPECT_EQ(memory.data() + 1, buffer.GetData());
    }
    EXPECT_EQ(before, GetUsage());
    EXPECT_EQ(std::vector<unsigned char>(26, 77), memory);
}

TEST(Buffer, ClearReachesForeignMemoryAndNoFurther) {
    std::vector<unsigned char> memory(26, 77);
    RGBA8Buffer buffer(3, 2, memory.data() + 1);
    buffer.Clear();
    EXPECT_EQ(77, memory.front());
    EXPECT_EQ(77, memory.back());
    EXPECT_TRUE(std::all_of(memory.begin() + 1, memory.end() - 1, [](unsigned char byte) { return byte == 0; }));
}

TEST(Buffer, CloneOwnsEvenWhatWasWrapped) {
    auto const before = GetUsage();
    std::vector<unsigned char> memory(24);
    for (std::size_t i = 0; i < memory.size(); ++i)
        memory[i] = static_cast<unsigned char>(i);
    RGBA8Buffer const buffer(3, 2, memory.data());
    Kernel::Counted<RGBA8Buffer> const copy(buffer.Clone());
    EXPECT_EQ(before + 24, GetUsage());
    EXPECT_NE(memory.data(), copy->GetData());
    EXPECT_EQ(0, std::memcmp(memory.data(), copy->GetData(), 24));
}

TEST(Buffer, UnalignedForeignMemoryIsReadAndWritten) {
    std::vector<unsigned char> memory(1 + 40 * 16);
    Buffer<RedUF, GreenUF, BlueUF, AlphaF> buffer(40, 1, memory.data() + 1);
    decltype(buffer)::PixelAccessor<AllChannels> accessor(&buffer);
    accessor.SetToXY(39, 0);
    accessor.Write({{1, 2, 3, 4}});
    Pixel<RedUF, GreenUF, BlueUF, AlphaF> pixel;
    accessor.Read(pixel);
    EXPECT_EQ((Pixel<RedUF, GreenUF, BlueUF, AlphaF>{{1, 2, 3, 4}}), pixel);
    PlanarPixelSpan<RedUF, GreenUF, BlueUF, AlphaF> span;
    accessor.SetToXY(8, 0);
    accessor.SpanRead(span);
    EXPECT_EQ(3, span.runs[2][31]);
}

TEST(Buffer, ClearRectZeroesThePixelsInsideIt) {
    int const edges[] = {lowest, -2, 0, 1, 3, 5, 6, highest};
    for (int left : edges)
        for (int right : edges)
            for (int top : edges)
                for (int bottom : edges) {
                    std::vector<unsigned char> memory(1 + 5 * 4 * 3 + 1, 9);
                    Buffer<Red8, Green8, Blue8> buffer(5, 4, memory.data() + 1);
                    buffer.ClearRect({left, top, right, bottom});
                    EXPECT_EQ(9, memory.front());
                    EXPECT_EQ(9, memory.back());
                    for (int y = 0; y < 4; ++y)
                        for (int x = 0; x < 5; ++x)
                            for (int channel = 0; channel < 3; ++channel)
                                ASSERT_EQ(x >= left && x < right && y >= top && y < bottom ? 0 : 9,
                                          memory[1 + std::size_t((y * 5 + x) * 3 + channel)])
                                    << left << ' ' << top << ' ' << right << ' ' << bottom;
                }
}

TEST(Buffer, NegativeSizesCountAsNothing) {
    auto const before = GetUsage();
    for (auto [width, height] :
         {std::pair(-1, 5), std::pair(5, -1), std::pair(lowest, lowest), std::pair(0, highest)}) {
        RGBA8Buffer buffer(width, height, nullptr);
        EXPECT_EQ(std::max(width, 0), buffer.GetWidth());
        EXPECT_EQ(std::max(height, 0), buffer.GetHeight());
        EXPECT_EQ(0u, buffer.GetBufferSize());
        EXPECT_EQ(before, GetUsage());
        buffer.Clear();
        buffer.ClearRect({-5, -5, 5, 5});
        EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox());
        Kernel::Counted<RGBA8Buffer> const copy(buffer.Clone());
        EXPECT_EQ(0u, copy->GetBufferSize());
    }
}

TEST(Buffer, EnormousSizesThrowAndLeaveNothingAttached) {
    auto const before = GetUsage();
    EXPECT_THROW((Buffer<CyanComplexUF, MagentaComplexUF, YellowComplexUF, BlackComplexUF, AlphaComplexUF>(
                     highest, highest, nullptr)),
                 std::bad_alloc);
    EXPECT_THROW(RGBA8Buffer(highest, highest, nullptr), std::bad_alloc);
    EXPECT_EQ(before, GetUsage());
}

TEST(Buffer, FailedAllocationThrowsAndLeavesNothingAttached) {
    auto const before = GetUsage();
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(RGBA8Buffer(100, 100, nullptr), std::bad_alloc);
    EXPECT_EQ(before, GetUsage());
    RGBA8Buffer buffer(100, 100, nullptr);
    for (bool empty : {false, true}) {
        PixelMemory::FailAllocation(1);
        EXPECT_THROW(empty ? buffer.CloneEmpty() : buffer.Clone(), std::bad_alloc);
        EXPECT_EQ(before + 40000, GetUsage());
    }
}

namespace {
/// Random sparse alpha, its box against a look at every pixel.
template<class Tuple>
void CheckAlphaBox() {
    using Type = typename Tuple::template Apply<Buffer>;
    std::mt19937 random(5);
    for (int round = 0; round < 300; ++round) {
        int const width = 1 + static_cast<int>(random() % 40), height = 1 + static_cast<int>(random() % 20);
        Type buffer(width, height, nullptr);
        FillBytes(buffer, buffer.GetBufferSize());
        typename Type::template PixelAccessor<AllChannels> accessor(&buffer);
        int const left = static_cast<int>(random()) % width, top = static_cast<int>(random()) % height;
        Kernel::RectT<int> expected;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                typename Type::PixelType pixel;
                accessor.SetToXY(x, y);
                accessor.Read(pixel);
                bool const set = x >= left && y >= top && random() % 60 == 0;
                auto & alpha = pixel.channels[Tuple::alphaIndex - 1];
                alpha = {};
                if (set) {
                    reinterpret_cast<unsigned char *>(&alpha)[random() % sizeof(alpha)] = 1;
                    expected = expected.Unite({x, y, x + 1, y + 1});
                }
                accessor.Write(pixel);
            }
        ASSERT_EQ(expected, buffer.GetAlphaBoundingBox()) << width << " by " << height;
    }
}
}

TEST(Buffer, AlphaBoundingBoxHoldsAllPixelsWithAlpha) {
    CheckAlphaBox<RGBA8Tuple>();
    CheckAlphaBox<ChannelTuple<Alpha8, Red8, Green8, Blue8>>();
    CheckAlphaBox<CMYKA8Tuple>();
    CheckAlphaBox<A16Tuple>();
    CheckAlphaBox<RGBAUFTuple>();
    CheckAlphaBox<ChannelTuple<IntensityH, AlphaH>>();
    CheckAlphaBox<ChannelTuple<AlphaComplexUF>>();
}

TEST(Buffer, AlphaBoundingBoxIsEmptyWithoutAlpha) {
    Buffer<Red8, Green8, Blue8> buffer(4, 4, nullptr);
    std::memset(buffer.GetData(), 255, 48);
    EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox());
}
}
