#include "files/kernels/SplitPixels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "files/kernels/SplitPixels.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template<class Sample>
using Lanes = hn::ScalableTag<Sample>;

// What files keep with the high byte first, in the machine's order, and back.
template<class V>
HWY_INLINE V Order(V lanes) {
    if constexpr (sizeof(hn::TFromV<V>) == 2)
        return hn::Or(hn::ShiftLeft<8>(lanes), hn::ShiftRight<8>(lanes));
    else
        return lanes;
}

// As many pixels as fill whole vectors; the tail is the scalar twin's.
template<int channels, class Sample>
HWY_INLINE std::size_t SplitVectors(Sample const * pixels, std::size_t count, void * const * rows) {
    Lanes<Sample> const lanes;
    std::size_t const step = hn::Lanes(lanes);
    std::size_t done = 0;
    auto const row = [&](int channel) { return static_cast<Sample *>(rows[channel]) + done; };
    for (; done + step <= count; done += step) {
        Sample const * const from = pixels + done * channels;
        auto first = hn::Zero(lanes), second = first, third = first, fourth = first;
        if constexpr (channels == 1)
            first = hn::LoadU(lanes, from);
        else if constexpr (channels == 2)
            hn::LoadInterleaved2(lanes, from, first, second);
        else if constexpr (channels == 3)
            hn::LoadInterleaved3(lanes, from, first, second, third);
        else
            hn::LoadInterleaved4(lanes, from, first, second, third, fourth);
        hn::StoreU(Order(first), lanes, row(0));
        if constexpr (channels > 1)
            hn::StoreU(Order(second), lanes, row(1));
        if constexpr (channels > 2)
            hn::StoreU(Order(third), lanes, row(2));
        if constexpr (channels > 3)
            hn::StoreU(Order(fourth), lanes, row(3));
    }
    return done;
}

template<int channels, class Sample>
HWY_INLINE std::size_t JoinVectors(void const * const * rows, std::size_t count, Sample * pixels) {
    Lanes<Sample> const lanes;
    std::size_t const step = hn::Lanes(lanes);
    std::size_t done = 0;
    auto const load = [&](int channel) {
        return Order(hn::LoadU(lanes, static_cast<Sample const *>(rows[channel]) + done));
    };
    for (; done + step <= count; done += step) {
        Sample * const to = pixels + done * channels;
        if constexpr (channels == 1)
            hn::StoreU(load(0), lanes, to);
        else if constexpr (channels == 2)
            hn::StoreInterleaved2(load(0), load(1), lanes, to);
        else if constexpr (channels == 3)
            hn::StoreInterleaved3(load(0), load(1), load(2), lanes, to);
        else
            hn::StoreInterleaved4(load(0), load(1), load(2), load(3), lanes, to);
    }
    return done;
}

#define RASTER_DEFINE_VECTORS(name, channels, sample)                                                                  \
    std::size_t Split##name##Vectors(unsigned char const * pixels, std::size_t count, void * const * rows) {           \
        return SplitVectors<channels>(reinterpret_cast<sample const *>(pixels), count, rows);                          \
    }                                                                                                                  \
    std::size_t Join##name##Vectors(void const * const * rows, std::size_t count, unsigned char * pixels) {            \
        return JoinVectors<channels>(rows, count, reinterpret_cast<sample *>(pixels));                                 \
    }
RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_DEFINE_VECTORS)
#undef RASTER_DEFINE_VECTORS
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE // below: compiled once, for the baseline
namespace Raster {
namespace {
template<class Sample>
Sample ReadSample(unsigned char const * bytes) {
    if constexpr (sizeof(Sample) == 2)
        return static_cast<Sample>(bytes[0] << 8 | bytes[1]);
    else
        return *bytes;
}

template<class Sample>
void WriteSample(Sample value, unsigned char * bytes) {
    if constexpr (sizeof(Sample) == 2)
        *bytes++ = static_cast<unsigned char>(value >> 8);
    *bytes = static_cast<unsigned char>(value);
}

template<int channels, class Sample>
void SplitPlainly(unsigned char const * pixels, std::size_t begin, std::size_t end, void * const * rows) {
    for (int channel = 0; channel < channels; ++channel) {
        auto * const row = static_cast<Sample *>(rows[channel]);
        for (std::size_t i = begin; row && i < end; ++i)
            row[i] = ReadSample<Sample>(pixels + (i * channels + std::size_t(channel)) * sizeof(Sample));
    }
}

template<int channels, class Sample>
void JoinPlainly(void const * const * rows, std::size_t begin, std::size_t end, unsigned char * pixels) {
    for (int channel = 0; channel < channels; ++channel) {
        auto const * const row = static_cast<Sample const *>(rows[channel]);
        for (std::size_t i = begin; i < end; ++i)
            WriteSample<Sample>(row[i], pixels + (i * channels + std::size_t(channel)) * sizeof(Sample));
    }
}

bool AreAllWanted(void * const * rows, int channels) {
    for (int channel = 0; channel < channels; ++channel)
        if (!rows[channel])
            return false;
    return true;
}
}

#define RASTER_DEFINE_LAYOUT(name, channels, sample)                                                                   \
    HWY_EXPORT(Split##name##Vectors);                                                                                  \
    HWY_EXPORT(Join##name##Vectors);                                                                                   \
    void Split##name(unsigned char const * pixels, std::size_t count, void * const * rows) {                           \
        std::size_t const done =                                                                                       \
            AreAllWanted(rows, channels) ? HWY_DYNAMIC_DISPATCH(Split##name##Vectors)(pixels, count, rows) : 0;        \
        SplitPlainly<channels, sample>(pixels, done, count, rows);                                                     \
    }                                                                                                                  \
    void Join##name(void const * const * rows, std::size_t count, unsigned char * pixels) {                            \
        std::size_t const done = HWY_DYNAMIC_DISPATCH(Join##name##Vectors)(rows, count, pixels);                       \
        JoinPlainly<channels, sample>(rows, done, count, pixels);                                                      \
    }                                                                                                                  \
    void Scalar::Split##name(unsigned char const * pixels, std::size_t count, void * const * rows) {                   \
        SplitPlainly<channels, sample>(pixels, 0, count, rows);                                                        \
    }                                                                                                                  \
    void Scalar::Join##name(void const * const * rows, std::size_t count, unsigned char * pixels) {                    \
        JoinPlainly<channels, sample>(rows, 0, count, pixels);                                                         \
    }
RASTER_FOR_EACH_PIXEL_LAYOUT(RASTER_DEFINE_LAYOUT)
#undef RASTER_DEFINE_LAYOUT
}
#endif
