#include "pixel/transfer/Blend.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace Raster {
namespace {
// The rules once more, in the plainest words, with every case apart.
struct Sample8 {
    int colour, alpha;
};
int Round8(int p, int q) {
    int const t = p * q;
    return (t + 128 + (t >> 8)) >> 8;
}
Sample8 Over8(Sample8 s, Sample8 d, float opacity) {
    int const o = int(opacity * 255.0f);
    int a = s.alpha;
    if (o < 255)
        a = Round8(o, a);
    if (a == 0)
        return d;
    if (d.alpha == 255)
        return {Round8(s.colour, a) + Round8(d.colour, 255 - a), 255};
    int const r = (Round8(255 - a, d.alpha) + a) % 256;
    int const k = r == 0 ? 0 : a * 255 / r;
    return {Round8(s.colour, k) + Round8(d.colour, 255 - k), r};
}

struct Sample16 {
    std::uint32_t colour, alpha;
};
Sample16 Over16(Sample16 s, Sample16 d, float opacity) {
    auto const o = std::uint32_t(opacity * 65535.0f);
    std::uint32_t a = s.alpha;
    if (o < 65535)
        a = o * a / 65535;
    if (a == 0)
        return d;
    if (d.alpha == 65535)
        return {(s.colour * a + d.colour * (65535 - a)) / 65535, 65535};
    std::uint32_t const r = (65535 - a) * d.alpha / 65535 + a;
    std::uint32_t const k = a * 65535 / r;
    return {(s.colour * k + d.colour * (65535 - k)) / 65535, r};
}

struct SampleFloat {
    float colour, alpha;
};
SampleFloat OverFloat(SampleFloat s, SampleFloat d, float opacity) {
    float a = s.alpha;
    if (opacity != 1.0f)
        a = a * opacity;
    if (a == 0.0f)
        return d;
    if (a == 1.0f && d.alpha == 1.0f)
        return {s.colour, d.alpha};
    if (d.alpha == 1.0f) {
        float const left = a * s.colour, right = (1.0f - a) * d.colour;
        return {left + right, d.alpha};
    }
    float const rest = (1.0f - a) * d.alpha;
    float const r = rest + a;
    float const k = r == 0.0f ? 0.0f : a / r;
    if (k == 1.0f)
        return {s.colour, r};
    float const left = k * s.colour, right = (1.0f - k) * d.colour;
    return {left + right, r};
}

class EveryTarget : public ::testing::TestWithParam<std::int64_t> {
protected:
    void SetUp() override { hwy::SetSupportedTargetsForTest(GetParam()); }
    void TearDown() override { hwy::SetSupportedTargetsForTest(0); }
};

template<class Sample>
void Blend(BlendRows blend, std::vector<std::vector<Sample>> & dest, std::vector<std::vector<Sample>> const & source,
           float opacity, std::size_t begin, std::size_t count) {
    void * d[5];
    void const * s[5];
    for (std::size_t c = 0; c < dest.size(); ++c) {
        d[c] = dest[c].data() + begin;
        s[c] = source[c].data() + begin;
    }
    blend(d, s, int(dest.size()) - 1, count, opacity);
}

// Pairs of alpha and colour that touch every branch, and chance between them.
std::vector<std::uint16_t> Values16() {
    std::vector<std::uint16_t> values{0, 1, 2, 127, 128, 255, 256, 257, 32767, 32768, 65279, 65533, 65534, 65535};
    std::mt19937 random(7);
    while (values.size() < 40)
        values.push_back(std::uint16_t(random()));
    return values;
}
}

TEST_P(EveryTarget, EightBitsFollowTheRuleForEveryPairOfAlphas) {
    for (float const opacity : {1.0f, 0.999f, 0.5f, 1.0f / 255, 0.0f})
        for (int colour = 0; colour < 256; colour += 51)
            for (int destAlpha = 0; destAlpha < 256; ++destAlpha) {
                std::vector<std::vector<std::uint8_t>> dest(2, std::vector<std::uint8_t>(256)), source = dest;
                for (int i = 0; i < 256; ++i) {
                    source[0][std::size_t(i)] = std::uint8_t(colour);
                    source[1][std::size_t(i)] = std::uint8_t(i);
                    dest[0][std::size_t(i)] = std::uint8_t(255 - colour / 2);
                    dest[1][std::size_t(i)] = std::uint8_t(destAlpha);
                }
                Blend(GetBlendRows(SampleType::Integer8), dest, source, opacity, 0, 256);
                for (int i = 0; i < 256; ++i) {
                    auto const expected = Over8({colour, i}, {255 - colour / 2, destAlpha}, opacity);
                    ASSERT_EQ(expected.colour, dest[0][std::size_t(i)])
                        << "colour " << colour << " alpha " << i << " over alpha " << destAlpha << " at " << opacity;
                    ASSERT_EQ(expected.alpha, dest[1][std::size_t(i)])
                        << i << " over " << destAlpha << " at " << opacity;
                }
            }
}

TEST_P(EveryTarget, EightBitColoursFollowTheRuleForEveryPairAndShare) {
    for (int share = 0; share < 256; share += 5)
        for (int below = 0; below < 256; ++below) {
            std::vector<std::vector<std::uint8_t>> dest(2, std::vector<std::uint8_t>(256)), source = dest;
            for (int i = 0; i < 256; ++i) {
                source[0][std::size_t(i)] = std::uint8_t(i);
                source[1][std::size_t(i)] = std::uint8_t(share);
                dest[0][std::size_t(i)] = std::uint8_t(below);
                dest[1][std::size_t(i)] = 255;
            }
            Blend(GetBlendRows(SampleType::Integer8), dest, source, 1.0f, 0, 256);
            for (int i = 0; i < 256; ++i)
                ASSERT_EQ(Over8({i, share}, {below, 255}, 1.0f).colour, dest[0][std::size_t(i)])
                    << i << " over " << below << " at " << share;
        }
}

TEST_P(EveryTarget, SixteenBitsFollowTheRule) {
    auto const values = Values16();
    for (float const opacity : {1.0f, 0.99999f, 0.3f, 0.0f})
        for (auto const sourceColour : {0, 1, 40000, 65535})
            for (auto const destColour : {0, 30000, 65534, 65535})
                for (auto const destAlpha : values) {
                    std::vector<std::vector<std::uint16_t>> source{
                        std::vector<std::uint16_t>(values.size(), std::uint16_t(sourceColour)), values};
                    std::vector<std::vector<std::uint16_t>> dest{
                        std::vector<std::uint16_t>(values.size(), std::uint16_t(destColour)),
                        std::vector<std::uint16_t>(values.size(), destAlpha)};
                    Blend(GetBlendRows(SampleType::Integer16), dest, source, opacity, 0, values.size());
                    for (std::size_t i = 0; i < values.size(); ++i) {
                        auto const expected = Over16({std::uint32_t(sourceColour), values[i]},
                                                     {std::uint32_t(destColour), destAlpha}, opacity);
                        ASSERT_EQ(expected.colour, dest[0][i]) << values[i] << " over " << destAlpha;
                        ASSERT_EQ(expected.alpha, dest[1][i]) << values[i] << " over " << destAlpha;
                    }
                }
}

TEST_P(EveryTarget, SixteenBitSharesAreExactQuotients) {
    std::mt19937 random(11);
    constexpr std::size_t count = 1 << 16;
    std::vector<std::vector<std::uint16_t>> dest(1, std::vector<std::uint16_t>(count)), source = dest;
    for (int round = 0; round < 4; ++round) {
        for (std::size_t i = 0; i < count; ++i) {
            source[0][i] = std::uint16_t(random() >> (random() % 16));
            dest[0][i] = std::uint16_t(random() >> (random() % 16));
        }
        auto rows = dest, colours = source; // a colour plane of 65535 over 0 shows the share itself
        rows.insert(rows.begin(), std::vector<std::uint16_t>(count, 0));
        colours.insert(colours.begin(), std::vector<std::uint16_t>(count, 65535));
        Blend(GetBlendRows(SampleType::Integer16), rows, colours, 1.0f, 0, count);
        for (std::size_t i = 0; i < count; ++i) {
            auto const expected = Over16({65535, source[0][i]}, {0, dest[0][i]}, 1.0f);
            ASSERT_EQ(expected.colour, rows[0][i]) << source[0][i] << " over " << dest[0][i];
        }
    }
}

TEST_P(EveryTarget, FloatsFollowTheRuleToTheBit) {
    float const infinity = std::numeric_limits<float>::infinity();
    std::vector<float> alphas{0.0f,
                              -0.0f,
                              1e-30f,
                              0.1f,
                              0.25f,
                              0.5f,
                              0.99999994f,
                              1.0f,
                              1.0000001f,
                              2.0f,
                              -0.5f,
                              infinity,
                              std::numeric_limits<float>::quiet_NaN()};
    std::mt19937 random(3);
    while (alphas.size() < 37)
        alphas.push_back(float(random()) / float(0xffffffffu));
    std::vector<float> const colours{0.0f, 0.3f, -4.0f, 100.0f, infinity, std::numeric_limits<float>::quiet_NaN()};
    auto const same = [](float a, float b) {
        return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0;
    };
    for (float const opacity : {1.0f, 0.5f, 0.0f})
        for (float const sourceColour : colours)
            for (float const destColour : colours)
                for (float const destAlpha : alphas) {
                    std::vector<std::vector<float>> source{std::vector<float>(alphas.size(), sourceColour), alphas};
                    std::vector<std::vector<float>> dest{std::vector<float>(alphas.size(), destColour),
                                                         std::vector<float>(alphas.size(), destAlpha)};
                    Blend(GetBlendRows(SampleType::Float), dest, source, opacity, 0, alphas.size());
                    for (std::size_t i = 0; i < alphas.size(); ++i) {
                        auto const expected = OverFloat({sourceColour, alphas[i]}, {destColour, destAlpha}, opacity);
                        ASSERT_TRUE(same(expected.colour, dest[0][i]))
                            << expected.colour << " " << dest[0][i] << " alpha " << alphas[i] << " over " << destAlpha;
                        ASSERT_TRUE(same(expected.alpha, dest[1][i])) << alphas[i] << " over " << destAlpha;
                    }
                }
}

namespace {
template<class Sample>
Sample RandomSample(std::mt19937 & random) {
    if constexpr (std::is_same_v<Sample, float>)
        return random() % 4 == 0 ? float(random() % 2) : float(random()) / float(0xffffffffu);
    else
        return random() % 4 == 0 ? Sample(random() % 2 ? Sample(-1) : Sample(0)) : Sample(random());
}

template<class Sample>
void CompareWithTwin(SampleType type) {
    std::mt19937 random(5);
    for (int colours = 0; colours <= 4; ++colours)
        for (std::size_t count = 0; count <= 3000; count += count < 70 ? 1 : 77 + count / 3)
            for (float const opacity : {1.0f, 0.7f}) {
                std::size_t const begin = random() % 9;
                std::vector<std::vector<Sample>> source(std::size_t(colours) + 1,
                                                        std::vector<Sample>(begin + count + 8));
                auto dest = source;
                for (std::size_t c = 0; c < source.size(); ++c)
                    for (std::size_t i = 0; i < source[c].size(); ++i) {
                        source[c][i] = RandomSample<Sample>(random);
                        dest[c][i] = RandomSample<Sample>(random);
                    }
                auto expected = dest;
                Blend(GetBlendRows(type), dest, source, opacity, begin, count);
                Blend(Scalar::GetBlendRows(type), expected, source, opacity, begin, count);
                ASSERT_EQ(expected, dest) << colours << " colours, " << count << " pixels from " << begin;
            }
}
}

TEST_P(EveryTarget, EqualsThePlainRuleForEveryCountAndTouchesNothingBeside) {
    CompareWithTwin<std::uint8_t>(SampleType::Integer8);
    CompareWithTwin<std::uint16_t>(SampleType::Integer16);
    CompareWithTwin<float>(SampleType::Float);
}

TEST_P(EveryTarget, ColourUnderAlphaZeroNeverShows) {
    std::vector<std::vector<float>> source{{std::numeric_limits<float>::infinity(), 7.0f}, {0.0f, 0.0f}};
    std::vector<std::vector<float>> dest{{0.25f, 0.5f}, {1.0f, 0.0f}};
    auto const before = dest;
    Blend(GetBlendRows(SampleType::Float), dest, source, 1.0f, 0, 2);
    EXPECT_EQ(before, dest);
}

TEST_P(EveryTarget, NothingIsLeftOfAFloatColourThatIsCoveredWhole) {
    float const infinity = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    constexpr std::size_t count = 33; // whole vectors and a tail
    for (float const below : {infinity, -infinity, nan})
        for (auto const & [sourceAlpha, destAlpha] :
             {std::pair{1.0f, 1.0f}, {1.0f, 0.3f}, {1.0f, 0.0f}, {0.4f, 0.0f}, {1e-30f, 0.0f}}) {
            std::vector<std::vector<float>> dest{std::vector<float>(count, below),
                                                 std::vector<float>(count, destAlpha)};
            std::vector<std::vector<float>> const source{std::vector<float>(count, -0.0f),
                                                         std::vector<float>(count, sourceAlpha)};
            Blend(GetBlendRows(SampleType::Float), dest, source, 1.0f, 0, count);
            for (float const colour : dest[0]) {
                ASSERT_EQ(0.0f, colour) << below << " below, alpha " << sourceAlpha << " over " << destAlpha;
                ASSERT_TRUE(std::signbit(colour));
            }
        }
}

INSTANTIATE_TEST_SUITE_P(Blend, EveryTarget, ::testing::ValuesIn(hwy::SupportedAndGeneratedTargets()),
                         [](auto const & target) { return std::string(hwy::TargetName(target.param)); });
}
