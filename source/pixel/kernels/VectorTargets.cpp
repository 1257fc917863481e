// Which vector instructions this machine has, for Highway's dispatch. Highway's own library answers that, too; but it
// also holds a stopwatch that measures itself for 4 milliseconds whenever the library is loaded, which is longer than
// all else that the program `raster` does to start. With these functions here nothing of it is needed, and linkers
// leave it out. What they promise stands in hwy/targets.h.
#include <hwy/highway.h>

#if HWY_ARCH_X86_64 && !defined(HWY_COMPILE_ONLY_SCALAR)
#include <atomic>
#include <cstdint>

#include <cpuid.h>

namespace hwy {
namespace {
bool HasBitManipulation() { return __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2"); }

// Which not all compilers have a name for.
bool HasLeadingZeroCount() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(0x80000001, &a, &b, &c, &d) != 0 && (c & 1u << 5) != 0;
}
bool HasHalfConversion() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & 1u << 29) != 0;
}

// Each level needs all that the one before needs. `__builtin_cpu_supports` also asks whether the system saves the
// registers.
std::int64_t DetectTargets() {
    __builtin_cpu_init();
    std::int64_t targets = 0;
    if (!__builtin_cpu_supports("ssse3"))
        return targets;
    targets |= HWY_SSSE3;
    if (!__builtin_cpu_supports("sse4.2") || !__builtin_cpu_supports("aes") || !__builtin_cpu_supports("pclmul"))
        return targets;
    targets |= HWY_SSE4;
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma") || !HasBitManipulation() ||
        !HasLeadingZeroCount() || !HasHalfConversion())
        return targets;
    targets |= HWY_AVX2;
    if (!__builtin_cpu_supports("avx512f") || !__builtin_cpu_supports("avx512vl") ||
        !__builtin_cpu_supports("avx512dq") || !__builtin_cpu_supports("avx512bw") ||
        !__builtin_cpu_supports("avx512cd"))
        return targets;
    return targets | HWY_AVX3; // no kernel is made for more
}

std::atomic<std::int64_t> targetsForTest{0}, disabledTargets{0};
}

ChosenTarget & GetChosenTarget() {
    static ChosenTarget chosen;
    return chosen;
}

std::int64_t SupportedTargets() {
    static std::int64_t const detected = DetectTargets() | HWY_ENABLED_BASELINE | HWY_SCALAR;
    std::int64_t const forTest = targetsForTest.load();
    std::int64_t const targets = (forTest != 0 ? forTest : detected) & ~disabledTargets.load();
    return targets != 0 ? targets : HWY_STATIC_TARGET;
}

void DisableTargets(std::int64_t targets) {
    disabledTargets.store(targets);
    GetChosenTarget().DeInit();
}

void SetSupportedTargetsForTest(std::int64_t targets) {
    targetsForTest.store(targets);
    GetChosenTarget().DeInit();
}
}
#endif
