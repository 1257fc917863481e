#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Kernel;

namespace {
constexpr auto noOffset = std::numeric_limits<std::int64_t>::max();

std::string GetText(MemoryOutStream const & stream) {
    return std::string(stream.GetData(), stream.GetData() + stream.GetSize());
}

/// Has no better way to copy itself, and keeps what it is told of the progress.
class SlowInStream final : public InStream {
public:
    explicit SlowInStream(std::string givenText) : text(std::move(givenText)) {}
    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return text.size(); }
    void SlowProgressInStream(std::uint64_t copied) override { reports.push_back(copied); }

    std::vector<std::uint64_t> reports;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t size) override {
        auto const count = std::min<std::uint64_t>(size, text.size() - position);
        std::memcpy(dest, text.data() + position, count);
        position += count;
        return count;
    }

private:
    std::string text;
    std::uint64_t position = 0;
};

/// Takes `room` bytes and no more.
class SmallOutStream final : public OutStream {
public:
    explicit SmallOutStream(std::uint64_t givenRoom) : room(givenRoom) {}
    std::uint64_t Tell() const override { return taken; }
    std::uint64_t GetSize() const override { return taken; }
    void SlowProgressOutStream(std::uint64_t copied) override { reports.push_back(copied); }

    std::vector<std::uint64_t> reports;

protected:
    std::uint64_t WriteI(void const *, std::uint64_t size) override {
        auto const count = std::min(size, room - taken);
        taken += count;
        return count;
    }

private:
    std::uint64_t room, taken = 0;
};

enum class Colour : std::uint16_t { Red = 0x0102 };

template<class T>
T RoundTrip(T value) {
    MemoryOutStream out;
    out.Write(value);
    EXPECT_EQ(out.GetSize(), sizeof(T));
    MemoryInStream in(out.GetData(), out.GetSize());
    T result{};
    EXPECT_TRUE(in.Read(result));
    return result;
}
}

TEST(ResolveSeek, StopsAtTheStartAndTheEnd) {
    for (auto const origin : {SeekOrigin::Current, SeekOrigin::Start, SeekOrigin::End})
        for (int offset = -25; offset <= 25; ++offset)
            for (std::uint64_t position = 0; position <= 10; ++position) {
                int const base = origin == SeekOrigin::Start ? 0 : origin == SeekOrigin::End ? 10 : int(position);
                EXPECT_EQ(ResolveSeek(origin, offset, position, 10), std::uint64_t(std::clamp(base + offset, 0, 10)))
                    << static_cast<int>(origin) << ' ' << offset << ' ' << position;
            }
}

TEST(ResolveSeek, RefusesWhatDoesNotFit63Bits) {
    EXPECT_EQ(ResolveSeek(SeekOrigin::Current, noOffset, 1, 10), std::nullopt);
    EXPECT_EQ(ResolveSeek(SeekOrigin::End, noOffset, 0, 10), std::nullopt);
    EXPECT_EQ(ResolveSeek(SeekOrigin::Start, noOffset, 5, 10), 10u);
    EXPECT_EQ(ResolveSeek(SeekOrigin::Current, std::numeric_limits<std::int64_t>::min(), 5, 10), 0u);
    EXPECT_EQ(ResolveSeek(SeekOrigin::End, -1, 0, std::uint64_t(1) << 63), std::nullopt);
}

TEST(StreamValue, IsLittleEndianInTheWidthOfItsType) {
    MemoryOutStream out;
    out.Write(std::uint32_t(0x01020304));
    out.Write(std::int16_t(-2));
    out.Write(Colour::Red);
    out.Write(true);
    out.Write(1.0f);
    EXPECT_EQ(GetText(out), std::string("\x04\x03\x02\x01\xfe\xff\x02\x01\x01\x00\x00\x80\x3f", 13));
}

TEST(StreamValue, ComesBackAsItWent) {
    EXPECT_EQ(RoundTrip<std::uint8_t>(200), 200);
    EXPECT_EQ(RoundTrip<std::int8_t>(-100), -100);
    EXPECT_EQ(RoundTrip<std::int64_t>(std::numeric_limits<std::int64_t>::min()),
              std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(RoundTrip<std::uint64_t>(0x8877665544332211u), 0x8877665544332211u);
    EXPECT_EQ(RoundTrip(-0.1), -0.1);
    EXPECT_TRUE(std::isnan(RoundTrip(std::numeric_limits<float>::quiet_NaN())));
    EXPECT_EQ(RoundTrip(Colour::Red), Colour::Red);
}

TEST(StreamValue, TakesEveryByteAsABool) {
    for (int byte = 0; byte < 256; ++byte) {
        auto const content = static_cast<std::uint8_t>(byte);
        MemoryInStream in(&content, 1);
        bool value = byte == 0;
        EXPECT_TRUE(in.Read(value));
        EXPECT_EQ(value, byte != 0) << byte;
    }
}

TEST(StreamValue, LeavesTheTargetAloneIfBytesLack) {
    MemoryInStream in("abc", 3);
    std::uint32_t value = 7;
    EXPECT_FALSE(in.Read(value));
    EXPECT_EQ(value, 7u);
}

TEST(MemoryInStream, ReadsWhatIsThere) {
    MemoryInStream in("0123456789", 10);
    char text[16] = {};
    EXPECT_EQ(in.Read(text, 4), 4u);
    EXPECT_EQ(in.Tell(), 4u);
    EXPECT_FALSE(in.IsEndOfData());
    EXPECT_EQ(in.Read(text + 4, 12), 6u);
    EXPECT_STREQ(text, "0123456789");
    EXPECT_TRUE(in.IsEndOfData());
    EXPECT_EQ(in.Read(text, 1), 0u);
    EXPECT_TRUE(in.RewindInStream());
    EXPECT_EQ(in.Tell(), 0u);
}

TEST(MemoryInStream, SkipsOnlyWhatIsThere) {
    MemoryInStream in("0123456789", 10);
    EXPECT_TRUE(in.SkipBlock(10));
    EXPECT_TRUE(in.SkipBlock(0));
    EXPECT_TRUE(in.Seek(SeekOrigin::Start, 5));
    EXPECT_FALSE(in.SkipBlock(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(in.Tell(), 10u);
}

TEST(MemoryInStream, StaysWhereItIsWhenASeekOverflows) {
    MemoryInStream in("0123456789", 10);
    in.Seek(SeekOrigin::Start, 3);
    EXPECT_FALSE(in.Seek(SeekOrigin::Current, noOffset));
    EXPECT_EQ(in.Tell(), 3u);
}

TEST(MemoryInStream, MayBeEmpty) {
    MemoryInStream in(nullptr, 0);
    char byte;
    EXPECT_EQ(in.Read(&byte, 1), 0u);
    EXPECT_TRUE(in.IsEndOfData());
    MemoryOutStream out;
    EXPECT_EQ(in.CopyToStream(out), 0u);
}

TEST(DMemoryInStream, OwnsItsBlock) {
    DMemoryInStream in(DMemoryInStream::Block::CreateCopy("owned", 5));
    char text[6] = {};
    EXPECT_TRUE(in.ReadAll(text, 5));
    EXPECT_STREQ(text, "owned");
}

TEST(MemoryOutStream, OverwritesAndFillsGapsWithZeros) {
    MemoryOutStream out;
    out.WriteAll("0123456789", 10);
    EXPECT_TRUE(out.Seek(SeekOrigin::Start, 2));
    out.WriteAll("AB", 2);
    EXPECT_TRUE(out.Seek(SeekOrigin::End, 3));
    EXPECT_EQ(out.GetSize(), 10u) << "a seek alone writes nothing";
    out.WriteAll("x", 1);
    EXPECT_EQ(GetText(out), std::string("01AB456789\0\0\0x", 14));
    EXPECT_TRUE(out.Seek(SeekOrigin::Current, -100));
    EXPECT_EQ(out.Tell(), 0u);
    EXPECT_FALSE(out.Seek(SeekOrigin::End, noOffset));
}

TEST(MemoryOutStream, TakesNothingBeyondTheLargestSize) {
    MemoryOutStream out;
    out.Seek(SeekOrigin::Start, noOffset);
    EXPECT_EQ(out.Write("x", 1), 0u);
    EXPECT_THROW(out.WriteAll("x", 1), OutStream::WriteException);
    EXPECT_EQ(out.GetSize(), 0u);
    out.Reserve(std::numeric_limits<std::uint64_t>::max()); // a hint can't hurt
}

TEST(MemoryOutStream, GivesItsBytesAwayAndStartsAnew) {
    MemoryOutStream out;
    out.WriteAll("abc", 3);
    EXPECT_EQ(out.TakeData().size(), 3u);
    EXPECT_EQ(out.Tell(), 0u);
    EXPECT_EQ(out.GetSize(), 0u);
}

TEST(CopyToStream, GivesTheSameBytesByEveryRoute) {
    for (std::size_t const size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
        std::string text(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            text[i] = static_cast<char>(i * 7 + i / 256);
        SlowInStream slow(text), slowAgain(text);
        MemoryInStream memory(text.data(), text.size());
        MemoryOutStream one, two, three;
        EXPECT_EQ(slow.CopyToStream(one), size);                                // the sink does it
        EXPECT_EQ(two.CopyFromStream(memory), size);                            // the source does it
        EXPECT_EQ(slowAgain.InStream::DelegateCopyToStream(three, size), size); // nobody does: piece by piece
        EXPECT_EQ(GetText(one), text);
        EXPECT_EQ(GetText(two), text);
        EXPECT_EQ(GetText(three), text);
    }
}

TEST(CopyToStream, CopiesNoMoreThanAskedAndGoesOnFromThere) {
    MemoryInStream memory("0123456789", 10);
    SlowInStream slow("0123456789");
    MemoryOutStream out;
    EXPECT_EQ(memory.CopyToStream(out, 4), 4u);
    EXPECT_EQ(memory.CopyToStream(out), 6u);
    EXPECT_EQ(slow.CopyToStream(out, 3), 3u);
    EXPECT_EQ(slow.CopyToStream(out, 100), 7u);
    EXPECT_EQ(GetText(out), "01234567890123456789");
}

TEST(CopyToStream, OverwritesInTheMiddleOfTheSink) {
    MemoryOutStream out;
    out.WriteAll("0123456789", 10);
    out.Seek(SeekOrigin::Start, 3);
    SlowInStream slow("abc");
    EXPECT_EQ(slow.CopyToStream(out), 3u);
    EXPECT_EQ(GetText(out), "012abc6789");
}

TEST(CopyToStream, ThrowsIfTheSinkIsFull) {
    SlowInStream slow(std::string(100, 'x'));
    MemoryInStream memory("0123456789", 10);
    SmallOutStream small(50);
    EXPECT_THROW(slow.CopyToStream(small), OutStream::WriteException);
    EXPECT_THROW(memory.CopyToStream(small), OutStream::WriteException);
}

TEST(CopyToStream, ReportsSlowProgressToBothSides) {
    SlowInStream slow(std::string(150000, 'x'));
    SmallOutStream sink(1000000);
    slow.CopyToStream(sink);
    EXPECT_EQ(slow.reports, (std::vector<std::uint64_t>{65536, 131072, 150000}));
    EXPECT_EQ(sink.reports, slow.reports);
}

TEST(CopyToStream, ReportsSlowProgressFromMemoryToo) {
    struct Reporting final : MemoryInStream {
        using MemoryInStream::MemoryInStream;
        void SlowProgressInStream(std::uint64_t copied) override { reports.push_back(copied); }
        std::vector<std::uint64_t> reports;
    };
    std::string const text(150001, 'x');
    Reporting memory(text.data(), text.size());
    SmallOutStream sink(1000000);
    memory.Seek(SeekOrigin::Start, 1);
    EXPECT_EQ(memory.CopyToStream(sink), 150000u);
    EXPECT_EQ(memory.reports, (std::vector<std::uint64_t>{65536, 131072, 150000}));
    EXPECT_EQ(sink.reports, memory.reports);
    EXPECT_EQ(memory.CopyToStream(sink), 0u);
    EXPECT_EQ(sink.reports.size(), 3u);
}

TEST(CopyToStream, GivesUpWhereAReportThrows) {
    struct Impatient final : MemoryInStream {
        using MemoryInStream::MemoryInStream;
        void SlowProgressInStream(std::uint64_t) override { throw std::runtime_error("enough"); }
    };
    std::string const text(150000, 'x');
    Impatient memory(text.data(), text.size());
    MemoryOutStream sink;
    EXPECT_THROW(memory.CopyToStream(sink), std::runtime_error);
    EXPECT_EQ(memory.Tell(), 65536u);
    EXPECT_EQ(sink.GetSize(), 65536u);
}
