// The choice of vector instructions is ours: see pixel/kernels/VectorTargets.cpp. Highway's library is asked beside it.
#include <hwy/highway.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {
constexpr std::int64_t levels = HWY_SSSE3 | HWY_SSE4 | HWY_AVX2 | HWY_AVX3;

TEST(VectorTargets, AreThoseThatHighwayFinds) {
#if !HWY_ARCH_X86_64 || defined(HWY_COMPILE_ONLY_SCALAR)
    GTEST_SKIP() << "Highway's own choice is used in this build";
#endif
    void * const library = dlopen("libhwy.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!library)
        GTEST_SKIP() << "Highway's library is not here: " << dlerror();
    using Question = std::int64_t (*)();
    auto const ask = reinterpret_cast<Question>(dlsym(library, "_ZN3hwy16SupportedTargetsEv"));
    ASSERT_TRUE(ask);
    ASSERT_NE(ask, &hwy::SupportedTargets);
    EXPECT_EQ(ask() & levels, hwy::SupportedTargets() & levels);
}

TEST(VectorTargets, EndWithTheBaselineAndFollowTests) {
    auto const all = hwy::SupportedTargets();
    EXPECT_NE(all & HWY_SCALAR, 0);
    hwy::SetSupportedTargetsForTest(HWY_SCALAR);
    EXPECT_EQ(hwy::SupportedTargets(), HWY_SCALAR);
    EXPECT_FALSE(hwy::GetChosenTarget().IsInitialized());
    hwy::DisableTargets(HWY_SCALAR);
    EXPECT_EQ(hwy::SupportedTargets(), HWY_STATIC_TARGET);
    hwy::SetSupportedTargetsForTest(0);
    EXPECT_EQ(hwy::SupportedTargets(), all & ~HWY_SCALAR);
    hwy::DisableTargets(0);
    EXPECT_EQ(hwy::SupportedTargets(), all);
}
}
