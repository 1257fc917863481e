#include "pixel/kernels/Interleave.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/kernels/Interleave.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include <cstring>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Five bytes a pixel are four and one: the four go together as one word.
constexpr std::size_t longestVector = 256;

template<class Sample>
HWY_INLINE void Join(Sample * HWY_RESTRICT pixels, Sample const * const * rows, int channels, std::size_t count) {
    hn::CappedTag<Sample, longestVector> const d;
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(d); i + lanes <= count; i += lanes) {
        auto const row = [&](int channel) { return hn::LoadU(d, rows[channel] + i); };
        if (channels == 4) {
            hn::StoreInterleaved4(row(0), row(1), row(2), row(3), d, pixels + i * 4);
        } else if (channels == 2) {
            hn::StoreInterleaved2(row(0), row(1), d, pixels + i * 2);
        } else if constexpr (std::is_same_v<Sample, std::uint8_t>) {
            if (channels != 5)
                break;
            HWY_ALIGN std::uint8_t words[longestVector * 4];
            hn::StoreInterleaved4(row(0), row(1), row(2), row(3), d, words);
            for (std::size_t lane = 0; lane < lanes; ++lane) {
                std::memcpy(pixels + (i + lane) * 5, words + lane * 4, 4);
                pixels[(i + lane) * 5 + 4] = rows[4][i + lane];
            }
        } else {
            break;
        }
    }
    Scalar::Interleave(pixels, rows, channels, i, count);
}

template<class Sample>
HWY_INLINE void Part(Sample * const * rows, Sample const * HWY_RESTRICT pixels, int channels, std::size_t count) {
    hn::CappedTag<Sample, longestVector> const d;
    std::size_t i = 0;
    for (std::size_t const lanes = hn::Lanes(d); i + lanes <= count; i += lanes) {
        hn::Vec<decltype(d)> first, second, third, fourth;
        if (channels == 4) {
            hn::LoadInterleaved4(d, pixels + i * 4, first, second, third, fourth);
        } else if (channels == 2) {
            hn::LoadInterleaved2(d, pixels + i * 2, first, second);
        } else if constexpr (std::is_same_v<Sample, std::uint8_t>) {
            if (channels != 5)
                break;
            HWY_ALIGN std::uint8_t words[longestVector * 4];
            for (std::size_t lane = 0; lane < lanes; ++lane)
                std::memcpy(words + lane * 4, pixels + (i + lane) * 5, 4);
            hn::LoadInterleaved4(d, words, first, second, third, fourth);
            hn::StoreU(fourth, d, rows[3] + i);
        } else {
            break;
        }
        hn::StoreU(first, d, rows[0] + i);
        if (channels != 2) {
            hn::StoreU(second, d, rows[1] + i);
            hn::StoreU(third, d, rows[2] + i);
        }
    }
    Scalar::DeinterleaveColours(rows, pixels, channels, i, count);
}

void Interleave8(std::uint8_t * pixels, std::uint8_t const * const * rows, int channels, std::size_t count) {
    Join(pixels, rows, channels, count);
}
void Interleave16(std::uint16_t * pixels, std::uint16_t const * const * rows, int channels, std::size_t count) {
    Join(pixels, rows, channels, count);
}
void InterleaveFloat(float * pixels, float const * const * rows, int channels, std::size_t count) {
    Join(pixels, rows, channels, count);
}
void DeinterleaveColours8(std::uint8_t * const * rows, std::uint8_t const * pixels, int channels, std::size_t count) {
    Part(rows, pixels, channels, count);
}
void DeinterleaveColours16(std::uint16_t * const * rows, std::uint16_t const * pixels, int channels,
                           std::size_t count) {
    Part(rows, pixels, channels, count);
}
void DeinterleaveColoursFloat(float * const * rows, float const * pixels, int channels, std::size_t count) {
    Part(rows, pixels, channels, count);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
HWY_EXPORT(Interleave8);
HWY_EXPORT(Interleave16);
HWY_EXPORT(InterleaveFloat);
HWY_EXPORT(DeinterleaveColours8);
HWY_EXPORT(DeinterleaveColours16);
HWY_EXPORT(DeinterleaveColoursFloat);

void Interleave8(std::uint8_t * pixels, std::uint8_t const * const * rows, int channels, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(Interleave8)(pixels, rows, channels, count);
}
void Interleave16(std::uint16_t * pixels, std::uint16_t const * const * rows, int channels, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(Interleave16)(pixels, rows, channels, count);
}
void InterleaveFloat(float * pixels, float const * const * rows, int channels, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(InterleaveFloat)(pixels, rows, channels, count);
}
void DeinterleaveColours8(std::uint8_t * const * rows, std::uint8_t const * pixels, int channels, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(DeinterleaveColours8)(rows, pixels, channels, count);
}
void DeinterleaveColours16(std::uint16_t * const * rows, std::uint16_t const * pixels, int channels,
                           std::size_t count) {
    HWY_DYNAMIC_DISPATCH(DeinterleaveColours16)(rows, pixels, channels, count);
}
void DeinterleaveColoursFloat(float * const * rows, float const * pixels, int channels, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(DeinterleaveColoursFloat)(rows, pixels, channels, count);
}
}
#endif
