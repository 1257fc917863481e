#include "kernel/kernels/PredictSamples.h"

#include <cstddef>
#include <type_traits>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernel/kernels/PredictSamples.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace Kernel::HWY_NAMESPACE {
#if HWY_TARGET == HWY_SCALAR // a vector of one lane holds no two neighbours
void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes) {
    Scalar::PredictSamples(raw, predicted, sampleBytes);
}

void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes) {
    Scalar::RestoreSamples(predicted, raw, sampleBytes);
}
#else
namespace hn = hwy::HWY_NAMESPACE;
constexpr std::size_t blockBytes = 65536, rowBytes = 256;

// 16 bytes on every target: a sum along a row is a chain, which wider vectors would have to break up and mend.
constexpr std::size_t vectorBytes = 16;
using ByteTag = hn::FixedTag<std::uint8_t, vectorBytes>;
template<class Sample>
using SampleTag = hn::FixedTag<Sample, vectorBytes / sizeof(Sample)>;
using ByteVector = hn::Vec<ByteTag>;

// Takes bytes alternately from the first and the second half of 16 * count bytes. The place of a byte is a number of
// 4 + log2(count) bits; a step rotates it by one bit. So log2(count) steps turn planes into samples, and 4 more lead
// back to where they began.
template<std::size_t count>
HWY_INLINE void Shuffle(ByteVector (&vectors)[count], int steps) {
    ByteTag const bytes;
    if constexpr (count > 1)
        for (int step = 0; step < steps; ++step) {
            ByteVector before[count];
            for (std::size_t i = 0; i < count; ++i)
                before[i] = vectors[i];
            for (std::size_t i = 0; i < count / 2; ++i) {
                vectors[2 * i] = hn::InterleaveLower(bytes, before[i], before[i + count / 2]);
                vectors[2 * i + 1] = hn::InterleaveUpper(bytes, before[i], before[i + count / 2]);
            }
        }
}

constexpr int GetLog2(std::size_t count) { return count == 1 ? 0 : 1 + GetLog2(count / 2); }

template<class Sample>
HWY_INLINE void PredictRow(std::uint8_t const * raw, std::uint8_t * predicted) {
    constexpr std::size_t count = sizeof(Sample), planeBytes = blockBytes / count;
    ByteTag const bytes;
    SampleTag<Sample> const samples;
    for (std::size_t at = 0; at < rowBytes; at += vectorBytes * count, predicted += vectorBytes) {
        ByteVector vectors[count];
        for (std::size_t i = 0; i < count; ++i) {
            auto const * const from = raw + at + i * vectorBytes;
            auto const these = hn::LoadU(bytes, from);
            auto const before = from == raw ? hn::ShiftLeftBytes<sizeof(Sample)>(bytes, these)
                                            : hn::LoadU(bytes, from - sizeof(Sample));
            vectors[i] = hn::BitCast(bytes, hn::Sub(hn::BitCast(samples, these), hn::BitCast(samples, before)));
        }
        Shuffle(vectors, 4);
        for (std::size_t i = 0; i < count; ++i)
            hn::StoreU(vectors[i], bytes, predicted + i * planeBytes);
    }
}

// Each lane plus all lanes before it.
template<class Sample, class Vector>
HWY_INLINE Vector SumUp(SampleTag<Sample> samples, Vector lanes) {
    ByteTag const bytes;
    auto const moved = [&](auto shift) {
        return hn::BitCast(samples, hn::ShiftLeftBytes<decltype(shift)::value>(bytes, hn::BitCast(bytes, lanes)));
    };
    if constexpr (sizeof(Sample) <= 1)
        lanes = hn::Add(lanes, moved(std::integral_constant<int, 1>()));
    if constexpr (sizeof(Sample) <= 2)
        lanes = hn::Add(lanes, moved(std::integral_constant<int, 2>()));
    if constexpr (sizeof(Sample) <= 4)
        lanes = hn::Add(lanes, moved(std::integral_constant<int, 4>()));
    return hn::Add(lanes, moved(std::integral_constant<int, 8>()));
}

template<class Sample>
HWY_INLINE void RestoreRow(std::uint8_t const * predicted, std::uint8_t * raw) {
    constexpr std::size_t count = sizeof(Sample), planeBytes = blockBytes / count;
    ByteTag const bytes;
    SampleTag<Sample> const samples;
    // The bytes of the last sample, over and over: what the next vector goes on from.
    auto const last = hn::Add(hn::And(hn::Iota(bytes, 0), hn::Set(bytes, std::uint8_t(count - 1))),
                              hn::Set(bytes, std::uint8_t(vectorBytes - count)));
    auto sum = hn::Zero(samples);
    for (std::size_t at = 0; at < rowBytes; at += vectorBytes * count, predicted += vectorBytes) {
        ByteVector vectors[count];
        for (std::size_t i = 0; i < count; ++i)
            vectors[i] = hn::LoadU(bytes, predicted + i * planeBytes);
        Shuffle(vectors, GetLog2(count));
        for (std::size_t i = 0; i < count; ++i) {
            sum = hn::Add(sum, SumUp<Sample>(samples, hn::BitCast(samples, vectors[i])));
            hn::StoreU(hn::BitCast(bytes, sum), bytes, raw + at + i * vectorBytes);
            sum = hn::BitCast(samples, hn::TableLookupBytes(hn::BitCast(bytes, sum), last));
        }
    }
}

template<class Sample>
HWY_INLINE void PredictRows(std::uint8_t const * raw, std::uint8_t * predicted) {
    for (std::size_t at = 0; at < blockBytes; at += rowBytes)
        PredictRow<Sample>(raw + at, predicted + at / sizeof(Sample));
}

template<class Sample>
HWY_INLINE void RestoreRows(std::uint8_t const * predicted, std::uint8_t * raw) {
    for (std::size_t at = 0; at < blockBytes; at += rowBytes)
        RestoreRow<Sample>(predicted + at / sizeof(Sample), raw + at);
}

void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return PredictRows<std::uint8_t>(raw, predicted);
    case 2:
        return PredictRows<std::uint16_t>(raw, predicted);
    case 4:
        return PredictRows<std::uint32_t>(raw, predicted);
    case 8:
        return PredictRows<std::uint64_t>(raw, predicted);
    }
}

void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return RestoreRows<std::uint8_t>(predicted, raw);
    case 2:
        return RestoreRows<std::uint16_t>(predicted, raw);
    case 4:
        return RestoreRows<std::uint32_t>(predicted, raw);
    case 8:
        return RestoreRows<std::uint64_t>(predicted, raw);
    }
}
#endif
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE // below: compiled once, for the baseline
namespace Kernel {
namespace Scalar {
namespace {
constexpr std::size_t tileBytes = 65536, stride = 256;

// Byte by byte, low byte first, whatever the machine's order is.
template<class Sample>
void PredictPlainly(std::uint8_t const * raw, std::uint8_t * predicted) {
    constexpr std::size_t planeBytes = tileBytes / sizeof(Sample), perRow = stride / sizeof(Sample);
    for (std::size_t row = 0; row < tileBytes / stride; ++row) {
        Sample before = 0;
        for (std::size_t i = 0; i < perRow; ++i) {
            Sample sample = 0;
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                sample =
                    static_cast<Sample>(sample | Sample(raw[row * stride + i * sizeof(Sample) + plane]) << 8 * plane);
            auto const difference = static_cast<Sample>(sample - before);
            before = sample;
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                predicted[plane * planeBytes + row * perRow + i] = static_cast<std::uint8_t>(difference >> 8 * plane);
        }
    }
}

template<class Sample>
void RestorePlainly(std::uint8_t const * predicted, std::uint8_t * raw) {
    constexpr std::size_t planeBytes = tileBytes / sizeof(Sample), perRow = stride / sizeof(Sample);
    for (std::size_t row = 0; row < tileBytes / stride; ++row) {
        Sample sample = 0;
        for (std::size_t i = 0; i < perRow; ++i) {
            Sample difference = 0;
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                difference = static_cast<Sample>(difference | Sample(predicted[plane * planeBytes + row * perRow + i])
                                                                  << 8 * plane);
            sample = static_cast<Sample>(sample + difference);
            for (std::size_t plane = 0; plane < sizeof(Sample); ++plane)
                raw[row * stride + i * sizeof(Sample) + plane] = static_cast<std::uint8_t>(sample >> 8 * plane);
        }
    }
}
}

void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return PredictPlainly<std::uint8_t>(raw, predicted);
    case 2:
        return PredictPlainly<std::uint16_t>(raw, predicted);
    case 4:
        return PredictPlainly<std::uint32_t>(raw, predicted);
    case 8:
        return PredictPlainly<std::uint64_t>(raw, predicted);
    }
}

void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes) {
    switch (sampleBytes) {
    case 1:
        return RestorePlainly<std::uint8_t>(predicted, raw);
    case 2:
        return RestorePlainly<std::uint16_t>(predicted, raw);
    case 4:
        return RestorePlainly<std::uint32_t>(predicted, raw);
    case 8:
        return RestorePlainly<std::uint64_t>(predicted, raw);
    }
}
}

HWY_EXPORT(PredictSamples);
HWY_EXPORT(RestoreSamples);

void PredictSamples(std::uint8_t const * raw, std::uint8_t * predicted, int sampleBytes) {
    HWY_DYNAMIC_DISPATCH(PredictSamples)(raw, predicted, sampleBytes);
}

void RestoreSamples(std::uint8_t const * predicted, std::uint8_t * raw, int sampleBytes) {
    HWY_DYNAMIC_DISPATCH(RestoreSamples)(predicted, raw, sampleBytes);
}
}
#endif
