#include "kernel/Trace.h"

#include "kernel/DebugPath.h"
#include "kernel/Timer.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {
using Kernel::Counted;
using Kernel::MakeCounted;
using Kernel::SetTraceSink;
using Kernel::Trace;

class Recorder : public Kernel::TraceSink {
public:
    explicit Recorder(std::atomic<int> * counter = nullptr) : alive(counter) {
        if (alive)
            ++*alive;
    }
    ~Recorder() override {
        if (alive)
            --*alive;
        Trace("a sink goes"); // must not meet a held lock
    }
    void Write(std::string_view message) override {
        std::lock_guard const guard(lock);
        messages.emplace_back(message);
    }
    std::mutex lock;
    std::vector<std::string> messages;

private:
    std::atomic<int> * const alive;
};

class TraceTest : public testing::Test {
protected:
    ~TraceTest() override { SetTraceSink(nullptr); }
};

TEST_F(TraceTest, IsSilentAndFormatsNothingByDefault) {
    EXPECT_FALSE(Kernel::IsTracing());
    Trace("dropped %1", 1);
}

TEST_F(TraceTest, SendsFormattedMessagesToTheSink) {
    auto const recorder = MakeCounted<Recorder>();
    SetTraceSink(recorder);
    EXPECT_TRUE(Kernel::IsTracing());
    Trace("open_file %1 seconds\n", 0.5);
    Trace("100% %1");
    SetTraceSink(nullptr);
    Trace("late");
    EXPECT_EQ((std::vector<std::string>{"open_file 0.5 seconds\n", "100% %1"}), recorder->messages);
}

TEST_F(TraceTest, ASinkMayTraceSwapAndThrow) {
    struct Awkward : Kernel::TraceSink {
        void Write(std::string_view message) override {
            ++calls;
            SetTraceSink(next);
            Trace("from the sink: %1", message);
            throw std::runtime_error("ignored");
        }
        Counted<TraceSink> next;
        int calls = 0;
    };
    auto const recorder = MakeCounted<Recorder>();
    auto const awkward = MakeCounted<Awkward>();
    awkward->next = recorder;
    SetTraceSink(awkward);
    Trace("hello");
    EXPECT_EQ(1, awkward->calls);
    EXPECT_EQ((std::vector<std::string>{"from the sink: hello"}), recorder->messages);
}

TEST_F(TraceTest, SinksMayBeSwappedWhileThreadsTrace) {
    std::atomic<int> alive{0};
    std::atomic<bool> isDone{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &isDone] {
            while (!isDone)
                Trace("%1 of %2", t, "four");
        });
    for (int i = 0; i < 1000; ++i)
        SetTraceSink(i % 3 == 0 ? nullptr : MakeCounted<Recorder>(&alive));
    SetTraceSink(nullptr);
    isDone = true;
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(0, alive);
}

TEST_F(TraceTest, NoMessageOfAnyThreadIsLost) {
    auto const recorder = MakeCounted<Recorder>();
    SetTraceSink(recorder);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i)
                Trace("%1.%2", t, i);
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(2000u, recorder->messages.size());
    EXPECT_EQ(2000u, std::set<std::string>(recorder->messages.begin(), recorder->messages.end()).size());
}

TEST(Timer, CountsFromItsStartAndFromAReset) {
    Kernel::Timer whole, part;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(part.GetSeconds(), 0.02);
    part.Reset();
    double const sinceReset = part.GetSeconds();
    EXPECT_GE(sinceReset, 0.0);
    EXPECT_GE(whole.GetSeconds(), sinceReset + 0.02);
}

TEST(DebugPath, IsDifferentEachTimeAndStaysInItsFolder) {
    auto const first = Kernel::MakeDebugSavePath("../a b/\xFF.bmp"),
               second = Kernel::MakeDebugSavePath("../a b/\xFF.bmp");
    EXPECT_NE(first, second);
    EXPECT_EQ(first.GetDirectory(), second.GetDirectory());
    auto const name = first.GetFileName();
    EXPECT_TRUE(name.GetView().ends_with("-.._a_b__.bmp")) << name.GetCharacters();
    EXPECT_EQ(first.GetExtension(), "bmp");
}
}
