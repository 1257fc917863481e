/// What the tests of conversions share: views as types, samples worth trying, a Lab that is easy to predict.
#pragma once

#include "pixel/Conversion.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace Raster {
/// Calls `function(Tuple())` for each of the eleven views.
template<class Function>
void ForEachView(Function && function) {
#define RASTER_CALL(view) function(view##Tuple());
    RASTER_FOR_EACH_VIEW(RASTER_CALL)
#undef RASTER_CALL
}

/// Floats at which rules turn: not numbers, beyond the range, and both sides of the places where 8 and 16 bits round.
inline std::vector<float> const & GetOddFloats() {
    static std::vector<float> const floats = [] {
        using Limits = std::numeric_limits<float>;
        std::vector<float> result{Limits::quiet_NaN(),
                                  -Limits::quiet_NaN(),
                                  Limits::infinity(),
                                  -Limits::infinity(),
                                  Limits::max(),
                                  Limits::lowest(),
                                  Limits::min(),
                                  Limits::denorm_min(),
                                  -Limits::denorm_min(),
                                  0.0f,
                                  -0.0f,
                                  1.0f,
                                  -1.0f,
                                  2.0f,
                                  0.5f,
                                  1e10f,
                                  -1e10f,
                                  256.0f,
                                  65536.0f,
                                  2147483648.0f,
                                  4294967296.0f,
                                  -2147483648.0f};
        for (float const steps : {255.0f, 65535.0f})
            for (float const step : {-0.5f, 0.5f, 1.5f, 126.5f, 127.5f, 253.5f, 254.5f, 255.5f, 65534.5f, 65535.5f}) {
                float const turn = step / steps;
                result.insert(result.end(), {turn, std::nextafter(turn, -1e9f), std::nextafter(turn, 1e9f)});
            }
        for (float const one : {1.0f})
            result.insert(result.end(), {std::nextafter(one, 0.0f), std::nextafter(one, 2.0f)});
        return result;
    }();
    return floats;
}

/// Any sample: for floats often an odd one, sometimes any bits at all, mostly from -0.25 to 1.25.
template<class Sample, class Random>
Sample AnySample(Random & random) {
    auto const bits = random();
    if constexpr (std::is_same_v<Sample, float>) {
        if (bits % 8 == 0)
            return GetOddFloats()[random() % GetOddFloats().size()];
        if (bits % 8 == 1)
            return std::bit_cast<float>(std::uint32_t(random()));
        return float(random() % 1500001) / 1000000.0f - 0.25f;
    } else {
        constexpr auto largest = std::numeric_limits<Sample>::max();
        return bits % 8 == 0 ? Sample(0) : bits % 8 == 1 ? largest : Sample(bits >> 8);
    }
}

/// Puts a made-up Lab in place while it lives. It goes outside 0 to 1 on both sides, and gives NaN for lightness 7.
class MadeUpLab {
public:
    MadeUpLab() { SetLabConversions({To, From}); }
    ~MadeUpLab() { SetLabConversions({nullptr, nullptr}); }
    MadeUpLab(MadeUpLab const &) = delete;

private:
    static void To(std::uint16_t * dest, float const * source, std::size_t pixelCount) {
        for (std::size_t i = 0; i < pixelCount; ++i, dest += 4, source += 4) {
            dest[0] = std::uint16_t(source[0] * 65535.0f);
            dest[1] = std::uint16_t(source[1] * 40000.0f + 3.0f);
            dest[2] = std::uint16_t(source[2] * 30000.0f + source[0] * 1000.0f);
        }
    }
    static void From(float * dest, std::uint16_t const * source, std::size_t pixelCount) {
        for (std::size_t i = 0; i < pixelCount; ++i, dest += 4, source += 4) {
            dest[0] = source[0] == 7 ? std::numeric_limits<float>::quiet_NaN() : float(source[0]) / 40000.0f - 0.25f;
            dest[1] = float(source[1]) / 65535.0f;
            dest[2] = float(source[2]) / 30000.0f - 1.0f;
        }
    }
};
}
