#include "pixel/DynamicBuffer.h"

#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <new>
#include <vector>

namespace Raster {
namespace {
constexpr int largest = std::numeric_limits<int>::max(), smallest = std::numeric_limits<int>::min();

bool HasPixels(std::uint32_t value) { return value < 11 && value != 8; }
Format ToFormat(std::uint32_t value) { return static_cast<Format>(value); }
std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }
// Bytes per pixel by format, and the offset and bytes of alpha in a pixel.
constexpr std::uint64_t pixelSizes[] = {4, 8, 2, 4, 5, 8, 1, 2, 0, 16, 4};
constexpr std::size_t alphaOffsets[] = {3, 6, 1, 2, 4, 6, 0, 0, 0, 12, 0};
constexpr std::size_t alphaSizes[] = {1, 2, 1, 2, 1, 2, 1, 2, 0, 4, 4};

unsigned char * GetData(DynamicBuffer & buffer) {
    return buffer.Dispatch([](auto & typed) { return typed.GetData(); });
}
std::uint64_t GetBytes(DynamicBuffer const & buffer) {
    return buffer.Dispatch([](auto const & typed) { return typed.GetBufferSize(); });
}

template<class T>
Kernel::Counted<T> Own(T * object) {
    return Kernel::Counted<T>(object);
}

struct DynamicBufferTest : testing::Test {
    std::uint64_t const usageBefore = GetUsage();
    ~DynamicBufferTest() override { EXPECT_EQ(usageBefore, GetUsage()) << "every byte is given back"; }
};
}

TEST_F(DynamicBufferTest, StartsWithoutFormatAndBuffer) {
    DynamicBuffer buffer;
    EXPECT_EQ(NoFormat, buffer.GetFormat());
    EXPECT_EQ(0, buffer.GetWidth());
    EXPECT_EQ(0, buffer.GetHeight());
    EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox());
    buffer.ClearRect({0, 0, 10, 10});
    EXPECT_EQ(buffer.GetDescription(), "DynamicBuffer");
    EXPECT_EQ(NoFormat, Own(buffer.Clone())->GetFormat());
    EXPECT_EQ(NoFormat, Own(buffer.CloneEmpty())->GetFormat());
}

TEST_F(DynamicBufferTest, CreateMakesAnOwningBufferOfEachFormat) {
    for (std::uint32_t value = 0; value <= 20; ++value) {
        DynamicBuffer buffer;
        buffer.Create(7, 5, ToFormat(value));
        EXPECT_EQ(value, buffer.GetFormat());
        EXPECT_EQ(HasPixels(value) ? 7 : 0, buffer.GetWidth()) << value;
        EXPECT_EQ(HasPixels(value) ? 5 : 0, buffer.GetHeight()) << value;
        auto const bytes = HasPixels(value) ? 35 * pixelSizes[value] : 0;
        EXPECT_EQ(bytes, GetBytes(buffer)) << value;
        EXPECT_EQ(usageBefore + bytes, GetUsage()) << value;
    }
}

TEST_F(DynamicBufferTest, CreateAroundForeignMemoryNeitherOwnsNorAccounts) {
    for (std::uint32_t value = 0; value <= 20; ++value) {
        std::vector<unsigned char> memory(35 * 16, 0xAB);
        {
            DynamicBuffer buffer;
            buffer.Create(7, 5, memory.data(), ToFormat(value));
            EXPECT_EQ(value, buffer.GetFormat());
            EXPECT_EQ(HasPixels(value) ? memory.data() : nullptr, GetData(buffer)) << value;
            EXPECT_EQ(usageBefore, GetUsage()) << value;
            buffer.ClearRect({0, 0, 7, 5});
        }
        auto const cleared = HasPixels(value) ? static_cast<std::ptrdiff_t>(35 * pixelSizes[value]) : 0;
        EXPECT_EQ(cleared, std::count(memory.begin(), memory.begin() + cleared, 0)) << value;
        EXPECT_EQ(std::ptrdiff_t(memory.size()) - cleared, std::count(memory.begin() + cleared, memory.end(), 0xAB));
    }
}

TEST_F(DynamicBufferTest, NullDataMakesAnOwningBuffer) {
    DynamicBuffer buffer;
    buffer.Create(4, 4, nullptr, RGBA8);
    ASSERT_NE(nullptr, GetData(buffer));
    EXPECT_EQ(usageBefore + 64, GetUsage());
}

TEST_F(DynamicBufferTest, NoFormatAndUnknownFormatsAreStoredWithoutABuffer) {
    for (auto const value : {8u, 11u, 20u, 256u, 0xFFFFFFFFu}) {
        DynamicBuffer buffer;
        buffer.Create(7, 5, ToFormat(value));
        EXPECT_EQ(value, buffer.GetFormat());
        EXPECT_EQ(0, buffer.GetWidth());
        buffer.Create(7, 5, RGBA8);
        EXPECT_EQ(7, buffer.GetWidth());
        buffer.Create(9, 9, ToFormat(value)); // what was held is hidden now
        EXPECT_EQ(value, buffer.GetFormat());
        EXPECT_EQ(0, buffer.GetWidth());
        EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox());
        buffer.ClearRect({0, 0, 7, 5});
        EXPECT_TRUE(buffer.GetChannelInfo().empty());
        EXPECT_EQ(NoFormat, Own(buffer.Clone())->GetFormat());
        buffer.Create(2, 2, A8); // and goes with the next buffer
        EXPECT_EQ(usageBefore + 4, GetUsage());
    }
}

TEST_F(DynamicBufferTest, NegativeSizesCountAsZero) {
    for (std::uint32_t value = 0; value < 11; ++value)
        for (auto const & [width, height] : {std::pair(-1, 5), {5, -1}, {-3, -3}, {smallest, smallest}, {0, 0}}) {
            DynamicBuffer buffer;
            buffer.Create(width, height, ToFormat(value));
            EXPECT_EQ(HasPixels(value) ? std::max(width, 0) : 0, buffer.GetWidth());
            EXPECT_EQ(HasPixels(value) ? std::max(height, 0) : 0, buffer.GetHeight());
            EXPECT_EQ(0u, GetBytes(buffer));
            buffer.ClearRect({smallest, smallest, largest, largest});
            EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox());
            auto const clone = Own(buffer.Clone());
            EXPECT_EQ(buffer.GetWidth(), clone->GetWidth());
        }
}

TEST_F(DynamicBufferTest, EnormousSizesThrowAndLeaveTheWrapperAsItWas) {
    for (std::uint32_t value = 0; value < 11; ++value) {
        if (!HasPixels(value))
            continue;
        DynamicBuffer buffer;
        buffer.Create(3, 3, IA8);
        auto * const data = GetData(buffer);
        EXPECT_THROW(buffer.Create(largest, largest, ToFormat(value)), std::bad_alloc) << value;
        EXPECT_EQ(IA8, buffer.GetFormat());
        EXPECT_EQ(3, buffer.GetWidth());
        EXPECT_EQ(data, GetData(buffer));
        EXPECT_EQ(usageBefore + 18, GetUsage());
    }
}

TEST_F(DynamicBufferTest, FailedAllocationLeavesFormatAndBufferAPair) {
    DynamicBuffer buffer;
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(buffer.Create(3, 3, RGBA8), std::bad_alloc);
    EXPECT_EQ(NoFormat, buffer.GetFormat());
    EXPECT_EQ(usageBefore, GetUsage());
    buffer.Create(3, 3, RGBAUF);
    auto * const data = GetData(buffer);
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(buffer.Create(5, 5, A8), std::bad_alloc);
    EXPECT_EQ(RGBAUF, buffer.GetFormat());
    EXPECT_EQ(data, GetData(buffer));
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(buffer.Clone(), std::bad_alloc);
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(buffer.CloneEmpty(), std::bad_alloc);
    PixelMemory::FailAllocation(0);
    EXPECT_EQ(usageBefore + 9 * 16, GetUsage());
}

TEST_F(DynamicBufferTest, CreateAgainReleasesTheBufferBefore) {
    DynamicBuffer buffer;
    buffer.Create(100, 100, RGBA16);
    DynamicBuffer const second(buffer);
    buffer.Create(10, 10, A8);
    EXPECT_EQ(usageBefore + 80000 + 100, GetUsage());
    EXPECT_EQ(100, second.GetWidth());
    EXPECT_EQ(RGBA16, second.GetFormat());
}

TEST_F(DynamicBufferTest, CopiesShareThePixelsAndClonesOwnTheirs) {
    std::vector<unsigned char> memory(16, 9);
    DynamicBuffer buffer;
    buffer.Create(2, 2, memory.data(), RGBA8);
    DynamicBuffer copy;
    copy = buffer;
    EXPECT_EQ(memory.data(), GetData(copy));
    auto const clone = Own(buffer.Clone());
    EXPECT_EQ(usageBefore + 16, GetUsage()); // the clone of wrapped memory owns
    EXPECT_NE(memory.data(), GetData(*clone));
    EXPECT_TRUE(std::equal(memory.begin(), memory.end(), GetData(*clone)));
    copy.ClearRect({0, 0, 2, 1});
    EXPECT_EQ(0, memory[0]);
    EXPECT_EQ(0, memory[7]);
    EXPECT_EQ(9, memory[8]);
    EXPECT_EQ(9, GetData(*clone)[0]);
    auto const empty = Own(buffer.CloneEmpty());
    EXPECT_EQ(RGBA8, empty->GetFormat());
    EXPECT_EQ(2, empty->GetWidth());
    EXPECT_EQ(usageBefore + 32, GetUsage());
}

TEST_F(DynamicBufferTest, ClearRectZeroesThatPartOnly) {
    for (std::uint32_t value = 0; value < 11; ++value) {
        if (!HasPixels(value))
            continue;
        DynamicBuffer buffer;
        buffer.Create(6, 4, ToFormat(value));
        auto const size = pixelSizes[value];
        auto * const data = GetData(buffer);
        std::fill_n(data, GetBytes(buffer), static_cast<unsigned char>(0x5A));
        buffer.ClearRect({2, 1, 5, 3});
        buffer.ClearRect({3, 3, 3, 1}); // empty
        buffer.ClearRect({4, 4, 1, 1}); // inverted
        for (std::uint64_t byte = 0; byte < GetBytes(buffer); ++byte) {
            auto const x = byte / size % 6, y = byte / size / 6;
            bool const inside = x >= 2 && x < 5 && y >= 1 && y < 3;
            ASSERT_EQ(inside ? 0 : 0x5A, data[byte]) << "format " << value << " at " << x << ", " << y;
        }
        buffer.ClearRect({-5, -5, 1, 100}); // beyond the edges: the part inside
        EXPECT_EQ(0, data[6 * size * 3]);
        EXPECT_EQ(0x5A, data[6 * size * 3 + size]);
    }
}

TEST_F(DynamicBufferTest, AlphaBoundingBoxIsAroundEveryPixelWithAlpha) {
    for (std::uint32_t value = 0; value < 11; ++value) {
        if (!HasPixels(value))
            continue;
        DynamicBuffer buffer;
        buffer.Create(9, 7, ToFormat(value));
        auto * const data = GetData(buffer);
        // Colour everywhere, alpha nowhere: nothing to see.
        std::fill_n(data, GetBytes(buffer), static_cast<unsigned char>(1));
        auto const alphaAt = [&](std::size_t x, std::size_t y) {
            return data + (y * 9 + x) * pixelSizes[value] + alphaOffsets[value];
        };
        for (std::size_t y = 0; y < 7; ++y)
            for (std::size_t x = 0; x < 9; ++x)
                std::fill_n(alphaAt(x, y), alphaSizes[value], static_cast<unsigned char>(0));
        EXPECT_EQ((Kernel::RectT<int>{}), buffer.GetAlphaBoundingBox()) << value;
        for (std::size_t byte = 0; byte < alphaSizes[value]; ++byte) {
            alphaAt(3, 2)[byte] = 1;
            EXPECT_EQ((Kernel::RectT<int>{3, 2, 4, 3}), buffer.GetAlphaBoundingBox()) << value << ", byte " << byte;
            alphaAt(3, 2)[byte] = 0;
        }
        *alphaAt(8, 0) = 1;
        *alphaAt(1, 5) = 1;
        EXPECT_EQ((Kernel::RectT<int>{1, 0, 9, 6}), buffer.GetAlphaBoundingBox()) << value;
        *alphaAt(0, 6) = 1;
        EXPECT_EQ((Kernel::RectT<int>{0, 0, 9, 7}), buffer.GetAlphaBoundingBox()) << value;
    }
}

TEST_F(DynamicBufferTest, TypedBufferReadsWhatWasWrittenThroughTheWrapper) {
    DynamicBuffer buffer;
    buffer.Create(4, 3, RGBA8);
    auto * const typed = buffer.GetTyped<RGBA8Tuple>();
    ASSERT_NE(nullptr, typed);
    EXPECT_EQ(nullptr, buffer.GetTyped<RGBA16Tuple>());
    typed->Clear();
    typed->GetData()[4 * (4 * 2 + 1) + 3] = 77;
    EXPECT_EQ((Kernel::RectT<int>{1, 2, 2, 3}), buffer.GetAlphaBoundingBox());
    EXPECT_EQ(RGBA8, typed->GetFormat());
    EXPECT_EQ(buffer.GetChannelInfo(), typed->GetChannelInfo());
    EXPECT_EQ(typed->Localise("Red").GetContext(), "RGB Channel name");
}
}
