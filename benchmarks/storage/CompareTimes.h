/// Two ways of doing the same, in turns within one process, so that their ratio means something on a busy machine.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>

namespace Raster {
template<class Function>
double MeasureSeconds(Function & function) {
    auto const begin = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// Each function does `operations` operations. Reports the best time of each for one operation, in nanoseconds, and
/// their ratio: how many times as long the subject takes. `prepare` runs before each subject and isn't timed.
template<class Subject, class Base, class Prepare>
void CompareTimes(benchmark::State & state, std::size_t operations, Subject subject, Base base, Prepare prepare) {
    double bestSubject = std::numeric_limits<double>::max(), bestBase = bestSubject;
    for (auto _ : state) {
        bestBase = std::min(bestBase, MeasureSeconds(base));
        prepare();
        auto const seconds = MeasureSeconds(subject);
        bestSubject = std::min(bestSubject, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["ns"] = bestSubject * 1e9 / static_cast<double>(operations);
    state.counters["base_ns"] = bestBase * 1e9 / static_cast<double>(operations);
    state.counters["ratio"] = bestSubject / bestBase;
}

template<class Subject, class Base>
void CompareTimes(benchmark::State & state, std::size_t operations, Subject subject, Base base) {
    CompareTimes(state, operations, subject, base, [] {});
}
}
