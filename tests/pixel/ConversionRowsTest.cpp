// Rows and spans against the conversion of single pixels, to the bit, on every vector target of this machine.
#include "pixel/Conversion.h"

#include "pixel/ConversionSamples.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstring>

namespace Raster {
namespace {
#ifdef RASTER_SANITIZED
constexpr int colourStep = 15, randomInks = 1 << 12; // 18 * 18 * 18 colours
#else
constexpr int colourStep = 1, randomInks = 1 << 20;
#endif

/// Runs `function` once for each target that this build and this machine have.
template<class Function>
void OnEveryTarget(Function && function) {
    for (auto const target : hwy::SupportedAndGeneratedTargets()) {
        hwy::SetSupportedTargetsForTest(target);
        SCOPED_TRACE(hwy::TargetName(target));
        function();
    }
    hwy::SetSupportedTargetsForTest(0);
}

/// Equal bits; one NaN is as good as another.
template<class Sample>
bool IsSame(Sample a, Sample b) {
    if constexpr (std::is_same_v<Sample, float>)
        return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) || (std::isnan(a) && std::isnan(b));
    else
        return a == b;
}

/// Pixels in planes that lie apart from each other by guards, and from any alignment by an offset of whole samples.
template<class Tuple>
class PlanarRow {
public:
    using Sample = typename Tuple::Storage;
    static constexpr std::size_t guard = 70;
    static constexpr Sample guardValue = Sample(77);

    PlanarRow(std::size_t count, std::size_t offset)
        : stride(guard + offset + count), samples(stride * Tuple::channelCount + guard, guardValue) {
        for (int channel = 0; channel < Tuple::channelCount; ++channel)
            planes[channel] = samples.data() + stride * std::size_t(channel) + guard + offset;
    }
    PlanarRow(PlanarRow const &) = delete;

    PixelOf<Tuple> Get(std::size_t i) const {
        PixelOf<Tuple> pixel;
        for (int channel = 0; channel < Tuple::channelCount; ++channel)
            pixel[std::size_t(channel)] = static_cast<Sample *>(planes[channel])[i];
        return pixel;
    }
    void Set(std::size_t i, PixelOf<Tuple> const & pixel) {
        for (int channel = 0; channel < Tuple::channelCount; ++channel)
            static_cast<Sample *>(planes[channel])[i] = pixel[std::size_t(channel)];
    }

    std::size_t stride;
    std::vector<Sample> samples;
    void * planes[Tuple::channelCount];
};

/// Converts the pixels of `source` on the target in use and compares all memory with `expected`, guards included.
template<class D, class S>
testing::AssertionResult RowEquals(PlanarRow<D> const & expected, PlanarRow<S> const & source, std::size_t count,
                                   std::size_t offset) {
    PlanarRow<D> actual(count, offset);
    auto const before = source.samples;
    GetConvertRows(viewOf<D>, viewOf<S>)(actual.planes, source.planes, count);
    for (std::size_t i = 0; i < actual.samples.size(); ++i)
        if (!IsSame(actual.samples[i], expected.samples[i]))
            return testing::AssertionFailure()
                   << "view " << int(viewOf<S>) << " to view " << int(viewOf<D>) << ", count " << count << ", offset "
                   << offset << ": sample " << i << " is " << +actual.samples[i] << ", not " << +expected.samples[i];
    if (std::memcmp(before.data(), source.samples.data(), before.size() * sizeof(before[0])) != 0)
        return testing::AssertionFailure() << "the source was written to";
    return testing::AssertionSuccess();
}

/// One row to all eleven views, on every target.
template<class S>
void ExpectAllRowsEqualPixels(PlanarRow<S> const & source, std::size_t count, std::size_t offset) {
    ForEachView([&](auto tuple) {
        using D = decltype(tuple);
        PlanarRow<D> expected(count, offset);
        for (std::size_t i = 0; i < count; ++i) {
            PixelOf<D> pixel{};
            ConvertPixel<D, S>(pixel, source.Get(i));
            expected.Set(i, pixel);
        }
        OnEveryTarget([&] { ASSERT_TRUE((RowEquals<D, S>(expected, source, count, offset))); });
    });
}

template<class S, class Random>
void FillWithAny(PlanarRow<S> & row, std::size_t count, Random & random) {
    for (std::size_t i = 0; i < count; ++i) {
        PixelOf<S> pixel;
        for (auto & sample : pixel.channels)
            sample = AnySample<typename S::Storage>(random);
        row.Set(i, pixel);
    }
}
}

TEST(ConversionRows, AllPairsEqualPixelsForShortCountsAndOddOffsets) {
    MadeUpLab const lab;
    std::mt19937 random(2);
    ForEachView([&](auto tuple) {
        using S = decltype(tuple);
        for (std::size_t count = 0; count <= 100; ++count) {
            std::size_t const offset = count % 7;
            PlanarRow<S> source(count, offset);
            FillWithAny(source, count, random);
            ExpectAllRowsEqualPixels(source, count, offset);
            if (testing::Test::HasFatalFailure())
                return;
        }
    });
}

TEST(ConversionRows, AllPairsEqualPixelsForRowsLongerThanTheirInnerRuns) {
    MadeUpLab const lab;
    std::mt19937 random(3);
    ForEachView([&](auto tuple) {
        using S = decltype(tuple);
        for (std::size_t const count : {511u, 512u, 513u, 1024u, 1543u}) {
            PlanarRow<S> source(count, 1);
            FillWithAny(source, count, random);
            ExpectAllRowsEqualPixels(source, count, 1);
        }
    });
}

TEST(ConversionRows, OddFloatsInEachPlaceEqualPixels) {
    auto const & odd = GetOddFloats();
    std::size_t const count = odd.size() * odd.size();
    PlanarRow<RGBAUFTuple> unbounded(count, 0);
    PlanarRow<RGBAFTuple> bounded(count, 0);
    for (std::size_t i = 0; i < count; ++i) {
        float const first = odd[i % odd.size()], second = odd[i / odd.size()];
        unbounded.Set(i, {{first, second, 0.25f, second}});
        bounded.Set(i, {{0.75f, first, second, first}});
    }
    ExpectAllRowsEqualPixels(unbounded, count, 0);
    ExpectAllRowsEqualPixels(bounded, count, 0);
}

TEST(ConversionRows, EveryFloatNextToARoundingPlaceEqualsPixels) {
    for (float const largest : {255.0f, 65535.0f}) {
        std::vector<float> floats;
        for (float step = -1; step <= largest + 1; ++step) {
            float const turn = (step + 0.5f) / largest;
            float value = std::nextafter(std::nextafter(turn, -9.0f), -9.0f);
            for (int i = 0; i < 5; ++i, value = std::nextafter(value, 9.0f))
                floats.push_back(value);
        }
        PlanarRow<AFTuple> source(floats.size(), 0);
        for (std::size_t i = 0; i < floats.size(); ++i)
            source.Set(i, {{floats[i]}});
        ExpectAllRowsEqualPixels(source, floats.size(), 0);
    }
}

TEST(ConversionRows, EverySixteenBitValueEqualsPixels) {
    constexpr std::size_t count = 65536;
    PlanarRow<RGBA16Tuple> source(count, 0);
    for (std::size_t i = 0; i < count; ++i) {
        auto const value = std::uint16_t(i);
        source.Set(i, {{value, std::uint16_t(65535 - value), std::uint16_t(value * 7), value}});
    }
    ExpectAllRowsEqualPixels(source, count, 0);
}

TEST(ConversionRows, EveryColourOf24BitsBecomesGreyAndCMYKLikePixels) {
    constexpr std::size_t side = 255 / colourStep + 1, count = side * side;
    PlanarRow<RGBA8Tuple> source(count, 0);
    for (std::size_t red = 0; red < 256; red += colourStep) {
        for (std::size_t i = 0; i < count; ++i)
            source.Set(i, {{std::uint8_t(red), std::uint8_t(i / side * colourStep), std::uint8_t(i % side * colourStep),
                            std::uint8_t(i)}});
        auto const check = [&](auto tuple) {
            using D = decltype(tuple);
            PlanarRow<D> expected(count, 0);
            for (std::size_t i = 0; i < count; ++i) {
                PixelOf<D> pixel{};
                ConvertPixel<D, RGBA8Tuple>(pixel, source.Get(i));
                expected.Set(i, pixel);
            }
            OnEveryTarget([&] { ASSERT_TRUE((RowEquals<D, RGBA8Tuple>(expected, source, count, 0))); });
        };
        check(IA8Tuple());
        check(IA16Tuple());
        check(CMYKA8Tuple());
        if (HasFatalFailure())
            return;
    }
}

TEST(ConversionRows, ALatticeOfInksAndRandomOnesBecomeAllViewsLikePixels) {
    std::vector<PixelOf<CMYKA8Tuple>> inks;
    auto const onLattice = [](int place) { return std::uint8_t(place % 18 * 15); }; // 17 steps from 0 to 255
    for (int i = 0; i < 18 * 18 * 18 * 18; ++i)
        inks.push_back({{onLattice(i), onLattice(i / 18), onLattice(i / 324), onLattice(i / 5832), std::uint8_t(i)}});
    std::mt19937 random(4);
    for (int i = 0; i < randomInks; ++i) {
        auto const bits = std::uint32_t(random());
        inks.push_back({{std::uint8_t(bits), std::uint8_t(bits >> 8), std::uint8_t(bits >> 16),
                         std::uint8_t(bits >> 24), std::uint8_t(bits >> 4)}});
    }
    PlanarRow<CMYKA8Tuple> source(inks.size(), 0);
    for (std::size_t i = 0; i < inks.size(); ++i)
        source.Set(i, inks[i]);
    ExpectAllRowsEqualPixels(source, inks.size(), 0);
}

TEST(ConversionRows, SpansEqualPixelsForAllPairs) {
    MadeUpLab const lab;
    std::mt19937 random(5);
    ForEachView([&](auto sourceTuple) {
        using S = decltype(sourceTuple);
        PlanarPixelSpanOf<S> source;
        for (auto & run : source.runs)
            for (auto & sample : run)
                sample = AnySample<typename S::Storage>(random);
        ForEachView([&](auto destTuple) {
            using D = decltype(destTuple);
            PlanarPixelSpanOf<D> dest{};
            ConvertSpan<D, S>(dest, source);
            for (int i = 0; i < spanLength; ++i) {
                PixelOf<S> from;
                PixelOf<D> expected{};
                for (int channel = 0; channel < S::channelCount; ++channel)
                    from[std::size_t(channel)] = source.runs[channel][i];
                ConvertPixel<D, S>(expected, from);
                for (int channel = 0; channel < D::channelCount; ++channel)
                    ASSERT_TRUE(IsSame(expected[std::size_t(channel)], dest.runs[channel][i]))
                        << "view " << int(viewOf<S>) << " to view " << int(viewOf<D>) << ", pixel " << i;
            }
        });
    });
}

TEST(ConversionRows, PlanesOfASourceMayBeOneAndTheSame) {
    std::vector<std::uint8_t> plane(300), inks(4 * 300), alpha(300);
    for (std::size_t i = 0; i < plane.size(); ++i)
        plane[i] = std::uint8_t(i);
    void const * const source[]{plane.data(), plane.data(), plane.data(), plane.data()};
    void * const dest[]{inks.data(), inks.data() + 300, inks.data() + 600, inks.data() + 900, alpha.data()};
    GetConvertRows(CMYKA8, RGBA8)(dest, source, plane.size());
    for (std::size_t i = 0; i < plane.size(); ++i) {
        ASSERT_EQ(0, inks[i] + inks[300 + i] + inks[600 + i]) << i;
        ASSERT_EQ(255 - plane[i], inks[900 + i]) << i;
        ASSERT_EQ(plane[i], alpha[i]) << i;
    }
}

TEST(ConversionRows, NoPixelsTouchNothingNotEvenTheLists) {
    ForEachView([](auto destTuple) {
        ForEachView([](auto sourceTuple) {
            GetConvertRows(viewOf<decltype(destTuple)>, viewOf<decltype(sourceTuple)>)(nullptr, nullptr, 0);
        });
    });
}

TEST(ConversionRows, ExistForEachPairOfFormatsWithPixelsAndForNoOther) {
    for (std::uint32_t dest = 0; dest < 20; ++dest)
        for (std::uint32_t source = 0; source < 20; ++source) {
            auto const hasPixels = [](std::uint32_t value) { return value < formatCount && value != NoFormat; };
            EXPECT_EQ(hasPixels(dest) && hasPixels(source),
                      GetConvertRows(static_cast<Format>(dest), static_cast<Format>(source)) != nullptr)
                << dest << ' ' << source;
        }
    EXPECT_EQ(nullptr, GetConvertRows(PixelView::NoView, PixelView::RGBA8));
    EXPECT_EQ(nullptr, GetConvertRows(PixelView::RGBA8, static_cast<PixelView>(200)));
}
}
