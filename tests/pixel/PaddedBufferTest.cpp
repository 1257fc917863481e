#include "pixel/PaddedBuffer.h"

#include "colour/ICCProfile.h"

#include "kernel/Counted.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace Raster {
namespace {
using BGRBuffer = PaddedBuffer<Blue8, Green8, Red8, X4, X5>;
constexpr int highest = std::numeric_limits<int>::max(), lowest = std::numeric_limits<int>::min();

std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }
}

TEST(PaddedBuffer, PadsRowsToTheAlignment) {
    BGRBuffer const five(5, 2, 4, nullptr);
    EXPECT_EQ(1u, five.CalculatePadding(24, 4));
    EXPECT_EQ(16u, five.GetStride());
    EXPECT_EQ(32u, five.GetBufferSize());
    EXPECT_EQ(3u, five.GetPixelSize());
    BGRBuffer const four(4, 2, 4, nullptr);
    EXPECT_EQ(0u, four.CalculatePadding(24, 4));
    EXPECT_EQ(12u, four.GetStride());
}

TEST(PaddedBuffer, PaddingIsThatOfTheBitsOfARow) {
    for (int width = 0; width < 40; ++width) {
        BGRBuffer const buffer(width, 1, 1, nullptr);
        for (int bits : {1, 4, 8, 16, 24, 32, 48})
            for (int alignment = 1; alignment < 20; ++alignment) {
                int const row = bits == 24 ? width * 3 : (width * bits + 7) / 8;
                int const expected = row % alignment == 0 ? 0 : alignment - row % alignment;
                ASSERT_EQ(std::uint64_t(expected), buffer.CalculatePadding(bits, alignment))
                    << width << ' ' << bits << ' ' << alignment;
            }
        EXPECT_EQ(0u, buffer.CalculatePadding(24, 0));
        EXPECT_EQ(0u, buffer.CalculatePadding(24, lowest));
    }
}

TEST(PaddedBuffer, ClearRectLeavesPaddingAlone) {
    std::vector<unsigned char> memory(1 + 4 * 16 + 1, 9);
    BGRBuffer buffer(5, 4, 4, memory.data() + 1);
    buffer.ClearRect({1, 1, 5, 3});
    for (int y = 0; y < 4; ++y)
        for (int column = 0; column < 16; ++column)
            ASSERT_EQ(y >= 1 && y < 3 && column >= 3 && column < 15 ? 0 : 9, memory[1 + std::size_t(y * 16 + column)])
                << column << ", " << y;
    auto const before = memory;
    buffer.ClearRect({1, 3, 5, 3}); // empty
    buffer.ClearRect({0, 3, 5, 1}); // upside down
    buffer.ClearRect({4, 0, 1, 4}); // the wrong way round
    buffer.ClearRect({5, 0, 100, 4});
    EXPECT_EQ(before, memory);
    buffer.ClearRect({lowest, lowest, highest, highest});
    for (int y = 0; y < 4; ++y)
        EXPECT_EQ(9, memory[1 + std::size_t(y * 16 + 15)]);
    EXPECT_EQ(0, memory[1]);
}

TEST(PaddedBuffer, ClearTakesPaddingToo) {
    std::vector<unsigned char> memory(1 + 4 * 16 + 1, 9);
    BGRBuffer buffer(5, 4, 4, memory.data() + 1);
    buffer.Clear();
    std::vector<unsigned char> expected(66, 0);
    expected.front() = expected.back() = 9;
    EXPECT_EQ(expected, memory);
}

TEST(PaddedBuffer, OwnsAccountsAndClones) {
    auto const before = GetUsage();
    {
        BGRBuffer buffer(5, 3, 8, nullptr);
        EXPECT_EQ(before + 48, GetUsage());
        EXPECT_FALSE(buffer.GetProfile());
        std::memset(buffer.GetData(), 33, 48);
        Kernel::Counted<BGRBuffer> const copy(buffer.Clone());
        EXPECT_EQ(before + 96, GetUsage());
        EXPECT_EQ(16u, copy->GetStride());
        EXPECT_EQ(0, std::memcmp(copy->GetData(), buffer.GetData(), 48));
        Kernel::Counted<BGRBuffer> const empty(buffer.CloneEmpty());
        EXPECT_EQ(48u, empty->GetBufferSize());
    }
    EXPECT_EQ(before, GetUsage());
}

TEST(PaddedBuffer, WrapsWithoutOwningAndItsCloneOwns) {
    std::vector<unsigned char> memory(3 * 16);
    for (std::size_t i = 0; i < memory.size(); ++i)
        memory[i] = static_cast<unsigned char>(i + 1);
    auto const original = memory;
    auto const before = GetUsage();
    Kernel::Counted<BGRBuffer> clone, empty;
    {
        BGRBuffer const wrapped(5, 3, 4, memory.data());
        EXPECT_EQ(memory.data(), wrapped.GetData());
        EXPECT_EQ(before, GetUsage()) << "foreign memory is not accounted for";
        clone = wrapped.Clone();
        empty = wrapped.CloneEmpty();
        EXPECT_EQ(before + 96, GetUsage());
    }
    EXPECT_EQ(before + 96, GetUsage()) << "the wrapper gives back nothing that it never had";
    EXPECT_NE(memory.data(), clone->GetData());
    EXPECT_EQ(0, std::memcmp(original.data(), clone->GetData(), original.size())) << "padding too";
    clone->Clear();
    empty->Clear();
    EXPECT_EQ(original, memory);
    EXPECT_EQ(16u, empty->GetStride());
    clone.Reset();
    empty.Reset();
    EXPECT_EQ(before, GetUsage());
}

TEST(PaddedBuffer, AFailedAllocationChangesNoUsage) {
    auto const before = GetUsage();
    {
        BGRBuffer const buffer(5, 3, 4, nullptr);
        for (auto const clone : {&BGRBuffer::Clone, &BGRBuffer::CloneEmpty}) {
            PixelMemory::FailAllocation(1);
            EXPECT_THROW((buffer.*clone)(), std::bad_alloc);
            EXPECT_EQ(before + 48, GetUsage());
        }
        Kernel::Counted<BGRBuffer> const copy(buffer.Clone()); // and the next one succeeds
        EXPECT_EQ(before + 96, GetUsage());
    }
    EXPECT_EQ(before, GetUsage());
    // Wrapping allocates nothing that could fail.
    std::vector<unsigned char> memory(48);
    PixelMemory::FailAllocation(1);
    BGRBuffer const wrapped(5, 3, 4, memory.data());
    PixelMemory::FailAllocation(0);
}

TEST(PaddedBuffer, PixelsAreBlueGreenRedInPaddedRows) {
    std::vector<unsigned char> memory(2 * 16);
    BGRBuffer buffer(5, 2, 4, memory.data());
    BGRBuffer::PixelAccessor<AllChannels> writer(&buffer);
    writer.SetToXY(4, 1);
    writer.Write({{1, 2, 3}});
    EXPECT_EQ(1, memory[16 + 12]);
    EXPECT_EQ(3, memory[16 + 14]);
    BGRBuffer::ConstPixelAccessor<Repeat, IdentityTransform> reader(&buffer);
    BGRBuffer::PixelType pixel;
    reader.SetToXY(100, 100);
    reader.Read(pixel);
    EXPECT_EQ((BGRBuffer::PixelType{{1, 2, 3}}), pixel);
    EXPECT_EQ(NoFormat, BGRBuffer::GetFormat());
}

TEST(PaddedBuffer, OddSizesAndAlignmentsAreNoFault) {
    auto const before = GetUsage();
    BGRBuffer const none(-5, -5, -5, nullptr);
    EXPECT_EQ(0u, none.GetBufferSize());
    EXPECT_EQ(0, none.GetWidth());
    EXPECT_THROW(BGRBuffer(highest, highest, highest, nullptr), std::bad_alloc);
    EXPECT_THROW(BGRBuffer(highest, highest, 4, nullptr), std::bad_alloc);
    PixelMemory::FailAllocation(1);
    EXPECT_THROW(BGRBuffer(10, 10, 4, nullptr), std::bad_alloc);
    EXPECT_EQ(before, GetUsage());
}
}
