/// What is transferred in benchmarks, and the time that it is compared with.
#pragma once

#include "pixel/transfer/BitmapTransfer.h"
#include "transfer/BenchmarkBitmaps.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

namespace Raster {
/// The median seconds of a memcpy of 64 MiB.
inline double MeasureMemcpy() {
    static double const seconds = [] {
        std::vector<char> from(64 << 20, 1), to(64 << 20, 2);
        std::vector<double> times;
        for (int i = 0; i < 15; ++i) {
            auto const start = std::chrono::steady_clock::now();
            std::memcpy(to.data(), from.data(), to.size());
            benchmark::DoNotOptimize(to.data());
            times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }();
    return seconds;
}

/// What is laid on what.
struct Scene {
    Kernel::Counted<BitmapCore> dest, source;
    std::vector<double> matrix; ///< empty is none

    void Transfer() const {
        float const opacity = 1.0f;
        Raster::Transfer(*dest, *source, nullptr, &opacity, matrix.empty() ? nullptr : matrix.data());
    }
};

template<class D, class S = D>
Scene MakeOver(Alpha sourceAlpha, Alpha destAlpha) {
    return {
        MakeBitmap<D>(Side(4096), Side(4096), destAlpha, 2), MakeBitmap<S>(Side(4096), Side(4096), sourceAlpha, 1), {}};
}

/// A turn in radians and a scale, about the middle, laid on a picture that holds all of it.
inline Scene MakeTurned(double angle, double scale) {
    int const size = angle != 0 ? Side(2518) : int(Side(2048) * scale);
    double const c = std::cos(angle) / scale, s = std::sin(angle) / scale, middle = size / 2.0,
                 centre = Side(2048) / 2.0;
    return {MakeBitmap<RGBA8Tuple>(size, size, Alpha::Full, 2),
            MakeBitmap<RGBA8Tuple>(Side(2048), Side(2048), Alpha::Soft, 1),
            {c, s, centre - c * middle - s * middle, -s, c, centre + s * middle - c * middle}};
}
inline double const thirtyDegrees = std::acos(-1.0) / 6;

inline double MeasureTransfer(Scene const & scene) {
    auto const start = std::chrono::steady_clock::now();
    scene.Transfer();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
}
