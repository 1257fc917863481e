#include "TemporaryDirectory.h"

#include "kernel/FastFileInStream.h"
#include "kernel/FastFileOutStream.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/Trace.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>

using namespace Kernel;

namespace {
constexpr std::size_t bufferSizes[] = {0, 1, 7, 64, 65536};

std::string MakeBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
}

/// Files of this process can't grow beyond a size while it lives: writes fall short, as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : oldHandler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &oldLimit);
        rlimit limit = oldLimit;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &oldLimit);
        std::signal(SIGXFSZ, oldHandler);
    }

private:
    void (*oldHandler)(int);
    rlimit oldLimit;
};
}

TEST(FastFileInStream, FollowsAPlainArrayThroughRandomReadsAndSeeks) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    auto const bytes = MakeBytes(3000);
    PutFile(path, bytes);
    for (auto const bufferSize : bufferSizes) {
        std::mt19937 random(42);
        auto const stream = FastFileInStream::Open(path.c_str(), bufferSize);
        ASSERT_TRUE(stream);
        EXPECT_EQ(stream->GetSize(), bytes.size());
        std::size_t position = 0;
        for (int step = 0; step < 2000; ++step) {
            if (random() % 3 == 0) {
                auto const offset = static_cast<std::int64_t>(random() % 400) - 200;
                ASSERT_TRUE(stream->Seek(SeekOrigin::Current, offset));
                position = static_cast<std::size_t>(
                    std::clamp<std::int64_t>(static_cast<std::int64_t>(position) + offset, 0, 3000));
            }
            std::string read(random() % 200, '\xa5');
            auto const expected = bytes.substr(position, read.size());
            auto const count = stream->Read(read.data(), read.size());
            ASSERT_EQ(read.substr(0, count), expected) << "buffer " << bufferSize << ", step " << step;
            ASSERT_EQ(read.substr(count), std::string(read.size() - count, '\xa5')) << "wrote behind what it read";
            position += count;
            ASSERT_EQ(stream->Tell(), position);
            ASSERT_EQ(stream->IsEndOfData(), position == bytes.size());
            if (position == bytes.size()) {
                ASSERT_TRUE(stream->RewindInStream());
                position = 0;
            }
        }
    }
}

TEST(FastFileInStream, RefusesWhatIsNoFile) {
    TemporaryDirectory const directory;
    auto const pipe = directory.GetPath("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(FastFileInStream::Open(pipe.c_str()));
    EXPECT_FALSE(FastFileInStream::Open(directory.GetPath().c_str()));
    EXPECT_FALSE(FastFileInStream::Open(directory.GetPath("missing").c_str()));
    EXPECT_FALSE(FastFileInStream::Open(nullptr));
}

TEST(FastFileInStream, EndsEarlyIfTheFileWasCut) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    PutFile(path, MakeBytes(1000));
    auto const stream = FastFileInStream::Open(path.c_str(), 64);
    ASSERT_EQ(truncate(path.c_str(), 100), 0);
    std::string read(1000, '\0');
    EXPECT_EQ(stream->Read(read.data(), 1000), 100u);
    EXPECT_EQ(stream->Read(read.data(), 10), 0u);
}

TEST(FastFileInStream, CopiesItself) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    auto const bytes = MakeBytes(200000);
    PutFile(path, bytes);
    MemoryOutStream out;
    EXPECT_EQ(FastFileInStream::Open(path.c_str())->CopyToStream(out), bytes.size());
    EXPECT_EQ(std::string(out.GetData(), out.GetData() + out.GetSize()), bytes);
}

TEST(FastFileOutStream, FollowsAPlainArrayThroughRandomWritesAndSeeks) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    for (auto const bufferSize : bufferSizes) {
        std::mt19937 random(42);
        auto const stream = FastFileOutStream::Create(path.c_str(), bufferSize);
        ASSERT_TRUE(stream);
        std::string model;
        std::size_t position = 0;
        for (int step = 0; step < 2000; ++step) {
            if (random() % 4 == 0) {
                position = random() % 3000;
                ASSERT_TRUE(stream->Seek(SeekOrigin::Start, static_cast<std::int64_t>(position)));
            }
            auto const bytes = MakeBytes(random() % 150);
            ASSERT_EQ(stream->Write(bytes.data(), bytes.size()), bytes.size());
            if (!bytes.empty()) {
                model.resize(std::max(model.size(), position + bytes.size()));
                model.replace(position, bytes.size(), bytes);
                position += bytes.size();
            }
            ASSERT_EQ(stream->Tell(), position);
            ASSERT_EQ(stream->GetSize(), model.size());
            if (random() % 500 == 0) {
                ASSERT_TRUE(stream->ForceFlush());
                ASSERT_EQ(GetFile(path), model) << "buffer " << bufferSize << ", step " << step;
            }
        }
        ASSERT_TRUE(stream->Finish());
        EXPECT_EQ(GetFile(path), model) << "buffer " << bufferSize;
    }
}

TEST(FastFileOutStream, FinishesByItself) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    FastFileOutStream::Create(path.c_str())->Write(std::uint32_t(0x64636261));
    EXPECT_EQ(GetFile(path), "abcd");
}

TEST(FastFileOutStream, TakesNothingAfterFinish) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    auto const stream = FastFileOutStream::Create(path.c_str());
    stream->WriteAll("abc", 3);
    EXPECT_TRUE(stream->Finish());
    EXPECT_EQ(stream->Write("d", 1), 0u);
    EXPECT_TRUE(stream->Finish());
    EXPECT_EQ(GetFile(path), "abc");
}

TEST(FastFileOutStream, RefusesWhatIsNoFile) {
    TemporaryDirectory const directory;
    auto const pipe = directory.GetPath("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(FastFileOutStream::Create(pipe.c_str()));
    EXPECT_FALSE(FastFileOutStream::Create(directory.GetPath().c_str()));
    EXPECT_FALSE(FastFileOutStream::Create(directory.GetPath("missing/file").c_str()));
    EXPECT_FALSE(FastFileOutStream::Create(nullptr));
}

TEST(FastFileOutStream, FailsForGoodWhenTheDiskIsFull) {
    TemporaryDirectory const directory;
    auto const bytes = MakeBytes(1000);
    for (auto const bufferSize : bufferSizes) {
        auto const path = directory.GetPath("file" + std::to_string(bufferSize));
        auto const stream = FastFileOutStream::Create(path.c_str(), bufferSize);
        FileSizeLimit const limit(2500);
        bool hasFallenShort = false;
        for (int i = 0; i < 5; ++i)
            hasFallenShort |= stream->Write(bytes.data(), bytes.size()) != bytes.size();
        EXPECT_FALSE(stream->Finish()) << "buffer " << bufferSize;
        EXPECT_TRUE(hasFallenShort || bufferSize > 5000) << "buffer " << bufferSize;
        EXPECT_EQ(stream->Write("x", 1), 0u);
        EXPECT_THROW(stream->Write(std::uint8_t(1)), OutStream::WriteException);
        EXPECT_EQ(GetFile(path), (bytes + bytes + bytes).substr(0, 2500)) << "buffer " << bufferSize;
    }
}

TEST(FastFileOutStream, TracesAFailureThatNobodyAskedFor) {
    struct Sink final : TraceSink {
        void Write(std::string_view message) override { messages += message; }
        std::string messages;
    };
    TemporaryDirectory const directory;
    auto const sink = MakeCounted<Sink>();
    SetTraceSink(sink);
    {
        auto const stream = FastFileOutStream::Create(directory.GetPath("file").c_str());
        FileSizeLimit const limit(2);
        stream->Write("abc", 3);
        stream->ForceFlush();
    }
    SetTraceSink(nullptr);
    EXPECT_NE(sink->messages.find("could not be written completely"), std::string::npos) << sink->messages;
}

TEST(FastFileOutStream, ReachesBeyondFourGibibytes) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("sparse");
    std::int64_t const offset = (std::int64_t(5) << 30) + 1;
    auto const out = FastFileOutStream::Create(path.c_str());
    EXPECT_TRUE(out->Seek(SeekOrigin::Start, offset));
    out->WriteAll("far", 3);
    ASSERT_TRUE(out->Finish());
    auto const in = FastFileInStream::Open(path.c_str());
    EXPECT_EQ(in->GetSize(), static_cast<std::uint64_t>(offset) + 3);
    EXPECT_TRUE(in->Seek(SeekOrigin::End, -3));
    char text[4] = {};
    EXPECT_TRUE(in->ReadAll(text, 3));
    EXPECT_STREQ(text, "far");
}

TEST(FastFileOutStream, TakesNothingBeyond63Bits) {
    TemporaryDirectory const directory;
    auto const stream = FastFileOutStream::Create(directory.GetPath("file").c_str());
    EXPECT_TRUE(stream->Seek(SeekOrigin::Start, std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(stream->Write("x", 1), 0u);
    EXPECT_FALSE(stream->Seek(SeekOrigin::Current, 1));
}
