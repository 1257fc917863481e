#include "host/Admission.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace Host {
namespace {
TEST(Admission, NeverLetsMoreInThanFits) {
    constexpr std::uint64_t limit = 100;
    Admission admission(limit);
    std::atomic<std::uint64_t> used{0};
    std::atomic<int> alone{0}, tooMany{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed)
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int i = 0; i < 200; ++i) {
                std::uint64_t const size = random() % 130;
                Admission::Ticket const ticket(admission, size);
                std::uint64_t const now = used += size;
                if (now > limit)
                    now == size ? ++alone : ++tooMany;
                std::this_thread::yield();
                used -= size;
            }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(0, tooMany);
    EXPECT_GT(alone, 0); // what is too large by itself gets in, too
}
}
}
