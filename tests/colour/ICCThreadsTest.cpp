#include "colour/ColourTesting.h"
#include "colour/TransformCache.h"
#include "kernel/Dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <set>
#include <thread>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

#ifdef RASTER_SANITIZED
constexpr int profileCount = 6, rounds = 20;
#else
constexpr int profileCount = 16, rounds = 100;
#endif
constexpr int threadCount = 4;

std::vector<Synthetic::Bytes> MakeProfiles(std::string const & name) {
    std::vector<Synthetic::Bytes> result;
    for (int i = 0; i < profileCount; ++i)
        result.push_back(Synthetic::Take(Synthetic::CreateRGB(name + std::to_string(i), 1 + i * 0.1, 2.2, 2.2)));
    return result;
}

template<class Function>
void OnEveryThread(Function const & function) {
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            function(i);
        });
}

TEST(ICCThreads, FirstUseIsMadeOnce) {
    std::vector<ICCProfile const *> found(threadCount);
    OnEveryThread([&](int thread) {
        found[std::size_t(thread)] = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB).Get();
    });
    for (auto const * const profile : found)
        EXPECT_EQ(found[0], profile);
    EXPECT_NE(nullptr, found[0]);
}

TEST(ICCThreads, SameProfilesAddedAtOnceAreOneEach) {
    auto const sources = MakeProfiles("at once ");
    std::vector<std::vector<Profile>> added(threadCount, std::vector<Profile>(profileCount));
    OnEveryThread([&](int thread) {
        for (int i = 0; i < profileCount; ++i) {
            int const which = (i + thread * 3) % profileCount;
            added[std::size_t(thread)][std::size_t(which)] = Add(sources[std::size_t(which)]);
        }
    });
    for (auto const & of : added)
        EXPECT_EQ(added[0], of);
    EXPECT_EQ(std::size_t(profileCount), std::set<ICCProfile const *>([&] {
                                             std::set<ICCProfile const *> distinct;
                                             for (auto const & profile : added[0])
                                                 distinct.insert(profile.Get());
                                             return distinct;
                                         }())
                                             .size());
}

TEST(ICCThreads, ProfilesAreAddedWhileOthersLookUp) {
    auto const sources = MakeProfiles("looked up ");
    auto & manager = Manager();
    std::atomic<int> adders = 2;
    OnEveryThread([&](int thread) {
        if (thread < 2) {
            for (auto const & bytes : sources)
                EXPECT_TRUE(Add(bytes));
            --adders;
            return;
        }
        auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
        do {
            for (auto const & profile : manager.GetAvailableProfiles()) {
                EXPECT_FALSE(profile->GetRawData().empty());
                EXPECT_TRUE(manager.GetProfileForString(profile->GetProfileName()));
                manager.GetLinearRGBProfile(profile);
            }
            EXPECT_EQ(sRGB, manager.GetDefaultProfileForFormat(RGBA8));
        } while (adders > 0);
    });
    for (int i = 0; i < profileCount; ++i)
        EXPECT_TRUE(manager.GetProfileForString(("looked up " + std::to_string(i)).c_str()));
}

// A sink that asks another thread for something in the registry, and waits for the answer.
struct AskingSink : Kernel::TraceSink {
    void Write(std::string_view) override {
        ++messages;
        answers.push_back(std::async(std::launch::async, [] { return Manager().GetProfileForString("nobody"); }));
        if (answers.back().wait_for(std::chrono::seconds(5)) != std::future_status::ready)
            ++late;
    }
    int messages = 0, late = 0;
    std::vector<std::future<Profile>> answers;
};

TEST(ICCThreads, MessagesAreSentWithoutTheRegistry) {
    Add(Synthetic::Take(Synthetic::CreateRGB("told of", 2.2, 2.2, 2.2)));
    auto const steps = Synthetic::CreateEmpty("steps told of", cmsSigRgbData);
    std::vector<cmsUInt16Number> samples(256, 65535);
    std::fill_n(samples.begin(), 128, cmsUInt16Number(0));
    cmsToneCurve * const curve = cmsBuildTabulatedToneCurve16(nullptr, 256, samples.data());
    for (auto const tag : {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag})
        cmsWriteTag(steps, tag, curve);
    cmsFreeToneCurve(curve);
    auto const sink = Kernel::MakeCounted<AskingSink>();
    Kernel::SetTraceSink(sink);
    Add(Synthetic::Take(Synthetic::CreateRGB("told of", 1.8, 1.8, 1.8)));
    Add(Synthetic::Take(steps));
    Kernel::SetTraceSink(nullptr);
    EXPECT_EQ(2, sink->messages) << "another profile of that name, and a gamma that can't be told";
    EXPECT_EQ(0, sink->late);
}

TEST(ICCThreads, TransformsOfEqualPairsAreOneEach) {
    auto & manager = Manager();
    std::vector<Profile> profiles;
    for (auto const & bytes : MakeProfiles("pair "))
        profiles.push_back(Add(bytes));
    auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
    std::vector<std::vector<void *>> found(threadCount, std::vector<void *>(profileCount));
    OnEveryThread([&](int thread) {
        for (int round = 0; round < rounds; ++round)
            for (std::size_t i = 0; i < profiles.size(); ++i) {
                auto * const transform = manager.GetTransformForProfiles(RGBA8, sRGB, RGBA16, profiles[i],
                                                                         Intent::RelativeColorimetric, true);
                auto & place = found[std::size_t(thread)][i];
                EXPECT_TRUE(!place || place == transform);
                place = transform;
                unsigned char const in[4] = {1, 2, 3, 4};
                unsigned char out[8];
                ICCManager::DoTransform(transform, in, out, 1);
            }
    });
    for (auto const & of : found)
        EXPECT_EQ(found[0], of);
    EXPECT_FALSE(std::ranges::count(found[0], nullptr));
}

// A transform in the making, which waits until it is told to end.
std::atomic<int> created = 0;
std::promise<void> * begun = nullptr;
std::shared_future<void> mayEnd;

void * CreateSlowly(TransformCache::Key const &) noexcept {
    ++created;
    begun->set_value();
    mayEnd.wait();
    return nullptr;
}
void * CreateAtOnce(TransformCache::Key const &) noexcept {
    ++created;
    return nullptr;
}

TEST(ICCThreads, TransformInTheMakingHoldsUpNobodyElse) {
    Kernel::CriticalSectionSpin lock(Kernel::LockRank::Leaf);
    TransformCache cache(lock);
    auto const profile = Manager().GetDefaultProfile(ColourSpaceRGB);
    auto const keyOf = [&](std::uint32_t type) {
        return TransformCache::Key{profile.Get(), profile.Get(), type, type, 0, 0, 0};
    };
    EXPECT_TRUE(cache.GetOrCreate(keyOf(1), CreateAtOnce).isNew);
    created = 0;
    std::promise<void> beginning, ending;
    begun = &beginning;
    mayEnd = ending.get_future().share();
    std::atomic<bool> isSecondBack = false;
    std::jthread first([&] { EXPECT_TRUE(cache.GetOrCreate(keyOf(2), CreateSlowly).isNew); });
    beginning.get_future().wait();
    std::jthread second([&] {
        EXPECT_FALSE(cache.GetOrCreate(keyOf(2), CreateAtOnce).isNew);
        isSecondBack = true;
    });
    EXPECT_FALSE(cache.GetOrCreate(keyOf(1), CreateAtOnce).isNew) << "found while the other one is made";
    EXPECT_TRUE(cache.GetOrCreate(keyOf(3), CreateAtOnce).isNew) << "made while the other one is made";
    EXPECT_FALSE(isSecondBack);
    ending.set_value();
    first.join();
    second.join();
    EXPECT_TRUE(isSecondBack);
    EXPECT_EQ(2, created) << "the slow one once, and the third";
    EXPECT_EQ(3u, cache.GetCount());
}

TEST(ICCThreads, ResultDoesNotDependOnTheirNumber) {
    auto & manager = Manager();
    auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
    auto const press = Add(Synthetic::Take(Synthetic::CreateCMYK("threads press")));
    auto * const transform = manager.GetTransformForProfiles(RGBA8, sRGB, CMYKA8, press, Intent::Perceptual, true);
    ASSERT_NE(nullptr, transform);
    constexpr std::size_t width = 256, height = 64;
    std::vector<unsigned char> in(width * height * 4);
    for (std::size_t i = 0; i < in.size(); ++i)
        in[i] = static_cast<unsigned char>(i / 4 * 7 + i * i / 1024); // runs of equal pixels among others
    std::vector<unsigned char> expected(width * height * 5, 9);
    ICCManager::DoTransform(transform, in.data(), expected.data(), int(width * height));
    for (unsigned const threads : {1u, 2u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        std::vector<unsigned char> actual(expected.size(), 9);
        Kernel::Dispatch::ParallelFor(height, [&](std::uint64_t row) {
            ICCManager::DoTransform(transform, &in[row * width * 4], &actual[row * width * 5], int(width));
        });
        EXPECT_EQ(expected, actual) << threads << " threads";
    }
    Kernel::Dispatch::SetThreadCount(0);
}
}
}
