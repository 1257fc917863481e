#include "pixel/LabSeam.h"

#include <atomic>

namespace Raster {
namespace {
constexpr std::size_t samplesPerPixel = 4;

void ToBlackLab(std::uint16_t * dest, float const *, std::size_t pixelCount) {
    for (std::size_t i = 0; i < pixelCount; ++i, dest += samplesPerPixel) {
        dest[0] = 0;
        dest[1] = dest[2] = 32896; // 128.5 * 256, the neutral opponent
    }
}

void FromLabToBlack(float * dest, std::uint16_t const *, std::size_t pixelCount) {
    for (std::size_t i = 0; i < pixelCount; ++i, dest += samplesPerPixel)
        dest[0] = dest[1] = dest[2] = 0;
}

// Released by SetLabConversions, acquired by every conversion, so that what the functions need is seen as well.
constinit std::atomic<decltype(LabConversions::toLab)> toLabInPlace = ToBlackLab;
constinit std::atomic<decltype(LabConversions::fromLab)> fromLabInPlace = FromLabToBlack;
}

LabConversions GetPlainLabConversions() { return {ToBlackLab, FromLabToBlack}; }

void SetLabConversions(LabConversions const & conversions) {
    toLabInPlace.store(conversions.toLab ? conversions.toLab : ToBlackLab, std::memory_order_release);
    fromLabInPlace.store(conversions.fromLab ? conversions.fromLab : FromLabToBlack, std::memory_order_release);
}

void ConvertToLab(std::uint16_t * dest, float const * source, std::size_t pixelCount) {
    toLabInPlace.load(std::memory_order_acquire)(dest, source, pixelCount);
}

void ConvertFromLab(float * dest, std::uint16_t const * source, std::size_t pixelCount) {
    fromLabInPlace.load(std::memory_order_acquire)(dest, source, pixelCount);
}
}
