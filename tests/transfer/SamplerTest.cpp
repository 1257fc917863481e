#include "pixel/transfer/Sampler.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace Raster {
namespace {
class SamplerOnEveryTarget : public ::testing::TestWithParam<std::int64_t> {
protected:
    void SetUp() override { hwy::SetSupportedTargetsForTest(GetParam()); }
    void TearDown() override { hwy::SetSupportedTargetsForTest(0); }
};

bool SameBits(float a, float b) { return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0; }

// A picture of planar samples, and its premultiplied window.
template<class Sample>
struct Picture {
    Picture(int w, int h, int colourCount, unsigned seed)
        : width(w), height(h), colours(colourCount), planes(std::size_t(colourCount) + 1) {
        std::mt19937 random(seed);
        for (auto & plane : planes)
            for (int i = 0; i < w * h; ++i)
                plane.push_back(MakeSample(random));
    }
    static Sample MakeSample(std::mt19937 & random) {
        bool const extreme = random() % 3 == 0;
        if constexpr (std::is_same_v<Sample, float>)
            return extreme ? float(random() % 2) : float(random()) / float(0xffffffffu);
        else
            return extreme ? Sample(random() % 2 ? 0 : -1) : Sample(random());
    }
    std::vector<void const *> Rows(int y) const {
        std::vector<void const *> rows;
        for (auto const & plane : planes)
            rows.push_back(plane.data() + std::size_t(y) * std::size_t(width));
        return rows;
    }
    SampleWindow Window(PremultiplyRow premultiply, std::vector<float> & first, std::vector<float> & second) const {
        first.assign(std::size_t(width * height) * 4, -7.0f);
        second.assign(colours == 4 ? first.size() : 0, -7.0f);
        for (int y = 0; y < height; ++y) {
            auto const at = std::size_t(y) * std::size_t(width) * 4;
            float * const groups[2]{first.data() + at, colours == 4 ? second.data() + at : nullptr};
            premultiply(groups, Rows(y).data(), colours, std::size_t(width));
        }
        return {{0, 0, width, height}, width * 4, {first.data(), colours == 4 ? second.data() : nullptr}};
    }
    int width, height, colours;
    std::vector<std::vector<Sample>> planes;
};

template<class Sample>
void CompareWithTwins(SampleType type) {
    std::mt19937 random(17);
    for (int const colours : {0, 1, 3, 4}) {
        Picture<Sample> const picture(37, 23, colours, unsigned(colours) + 1);
        std::vector<float> first, second, plainFirst, plainSecond;
        auto const window = picture.Window(GetPremultiplyRow(type), first, second);
        picture.Window(Scalar::GetPremultiplyRow(type), plainFirst, plainSecond);
        for (std::size_t i = 0; i < first.size(); ++i)
            ASSERT_TRUE(SameBits(plainFirst[i], first[i])) << colours << " colours, lane " << i;
        ASSERT_EQ(plainSecond, second);

        for (std::size_t count = 0; count <= 140; count += count < 40 ? 1 : 33) {
            std::vector<float> u, v;
            for (std::size_t i = 0; i < count; ++i) {
                u.push_back(0.5f + float(random() % (35 * 64)) / 64.0f); // whole, and at every quarter
                v.push_back(0.5f + float(random()) / float(0xffffffffu) * 21.0f);
                if (random() % 10 == 0)
                    u.back() = 3e8f;
                if (random() % 10 == 0)
                    v.back() = std::numeric_limits<float>::quiet_NaN();
            }
            std::vector<std::vector<Sample>> actual(std::size_t(colours) + 1,
                                                    std::vector<Sample>(count + 3, Sample(9)));
            auto expected = actual;
            void *a[5], *e[5];
            for (int c = 0; c <= colours; ++c) {
                a[c] = actual[std::size_t(c)].data() + 1;
                e[c] = expected[std::size_t(c)].data() + 1;
            }
            GetSampleRow(type)(a, window, u.data(), v.data(), colours, count);
            Scalar::GetSampleRow(type)(e, window, u.data(), v.data(), colours, count);
            for (int c = 0; c <= colours; ++c)
                for (std::size_t i = 0; i < count + 3; ++i)
                    ASSERT_TRUE(SameBits(float(expected[std::size_t(c)][i]), float(actual[std::size_t(c)][i])))
                        << colours << " colours, channel " << c << " of sample " << i << " of " << count;
        }
    }
}
}

namespace {
// Pixels as they are, but for the colour under alpha 0, which is gone.
template<class Sample>
void CheckWholePositions(SampleType type, Picture<Sample> const & picture) {
    std::vector<float> first, second;
    auto const window = picture.Window(GetPremultiplyRow(type), first, second);
    std::size_t const count = std::size_t(picture.width) - 1;
    std::vector<float> u(count), v(count);
    std::vector<Sample> colour(count), alpha(count);
    void * const dest[2]{colour.data(), alpha.data()};
    for (int y = 0; y + 1 < picture.height; ++y) {
        for (std::size_t x = 0; x < count; ++x) {
            u[x] = float(x) + 0.5f;
            v[x] = float(y) + 0.5f;
        }
        GetSampleRow(type)(dest, window, u.data(), v.data(), picture.colours, count);
        for (std::size_t x = 0; x < count; ++x) {
            std::size_t const at = std::size_t(y) * std::size_t(picture.width) + x;
            ASSERT_EQ(picture.planes[1][at], alpha[x]) << x << ", " << y;
            ASSERT_EQ(picture.planes[1][at] == 0 ? 0 : picture.planes[0][at], colour[x])
                << "under " << picture.planes[1][at];
        }
    }
}
}

TEST_P(SamplerOnEveryTarget, WholePositionsGiveIntegersAsTheyAre) {
    Picture<std::uint8_t> bytes(257, 257, 1, 1); // every colour under every alpha
    for (int y = 0; y < 257; ++y)
        for (int x = 0; x < 257; ++x) {
            bytes.planes[0][std::size_t(y * 257 + x)] = std::uint8_t(x);
            bytes.planes[1][std::size_t(y * 257 + x)] = std::uint8_t(y);
        }
    CheckWholePositions<std::uint8_t>(SampleType::Integer8, bytes);
    CheckWholePositions<std::uint16_t>(SampleType::Integer16, Picture<std::uint16_t>(500, 400, 1, 2));
}

TEST(SampleCell, IsTheFloorAndOneLowerForExactNegativeWholeNumbers) {
    auto const at = [](float x) { return FindSampleCell(x + 0.5f, 0.5f); };
    EXPECT_EQ(0, at(0.0f).x);
    EXPECT_EQ(3, at(3.75f).x);
    EXPECT_EQ(0.75f, at(3.75f).fx);
    EXPECT_EQ(-1, at(-0.25f).x);
    EXPECT_EQ(0.75f, at(-0.25f).fx);
    EXPECT_EQ(-2, at(-1.0f).x);
    EXPECT_EQ(1.0f, at(-1.0f).fx);
}

TEST(SampleCell, FarAndSenselessPositionsLieOutside) {
    float const infinity = std::numeric_limits<float>::infinity();
    for (float const far : {1e9f, -1e9f, infinity, -infinity, std::numeric_limits<float>::quiet_NaN(), 16777220.0f}) {
        EXPECT_EQ(SampleCell::outside, FindSampleCell(far, 0).x) << far;
        EXPECT_EQ(SampleCell::outside, FindSampleCell(0, far).x) << far;
    }
    EXPECT_NE(SampleCell::outside, FindSampleCell(16777216.0f, -16777215.0f).x);
}

TEST(Premultiply, ColourUnderAlphaZeroIsGoneWhateverItWas) {
    float const colour[2]{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()};
    float const alpha[2]{0, 0};
    void const * const rows[2]{colour, alpha};
    float lanes[8];
    float * const groups[2]{lanes, nullptr};
    for (auto const premultiply :
         {GetPremultiplyRow(SampleType::Float), Scalar::GetPremultiplyRow(SampleType::Float)}) {
        std::fill_n(lanes, 8, 5.0f);
        premultiply(groups, rows, 1, 2);
        for (float const lane : lanes)
            EXPECT_EQ(0.0f, lane);
    }
}

TEST_P(SamplerOnEveryTarget, PositionsDriftAsSinglePrecisionDoes) {
    std::mt19937 random(2);
    for (int const rows : {1, 2, 7, 8, 9, 63, 64})
        for (int const columns : {1, 31, 64}) {
            bool const turned = random() % 2 == 0; // without rotation, rows are alike in u and v stands still
            double const du = 0.7317 + double(random() % 100) / 977, dv = turned ? -1e-3 * double(random() % 100) : 0.0;
            float u[sampleBlockSize], v[sampleBlockSize], plainU[sampleBlockSize], plainV[sampleBlockSize];
            for (int row = 0; row < sampleBlockSize; ++row) {
                u[row] = plainU[row] = turned ? float(row) * 1000.37f - 20000.0f : 0.7f;
                v[row] = plainV[row] = 1e6f - float(row);
            }
            auto const actual = std::make_unique<SamplePositions>(), expected = std::make_unique<SamplePositions>();
            for (int pass = 0; pass < 3; ++pass) {
                StepPositions(*actual, u, v, du, dv, rows, columns);
                Scalar::StepPositions(*expected, plainU, plainV, du, dv, rows, columns);
                for (int row = 0; row < rows; ++row) {
                    for (int column = 0; column < columns; ++column) {
                        ASSERT_EQ(expected->u[row][column], actual->u[row][column]) << row << ", " << column;
                        ASSERT_EQ(expected->v[row][column], actual->v[row][column]) << row << ", " << column;
                    }
                    ASSERT_EQ(plainU[row], u[row]);
                    ASSERT_EQ(plainV[row], v[row]);
                }
            }
        }
}

TEST_P(SamplerOnEveryTarget, BoundsHoldEveryCellAndNoMore) {
    std::mt19937 random(4);
    auto const positions = std::make_unique<SamplePositions>();
    for (int round = 0; round < 200; ++round) {
        int const left = int(random() % 64), top = int(random() % 64);
        Kernel::RectT<int> const block{left, top, left + 1 + int(random() % unsigned(64 - left)),
                                       top + 1 + int(random() % unsigned(64 - top))};
        bool const nothing = round % 20 == 0;
        float u[sampleBlockSize], v[sampleBlockSize];
        for (int row = 0; row < sampleBlockSize; ++row) {
            float const far = nothing ? 1e20f : round % 7 == 0 ? 16777000.0f : 0.0f; // some rows leave the known world
            u[row] = far + float(int(random() % 4000) - 2000) / 4.0f;
            v[row] = float(int(random() % 4000) - 2000) / 4.0f;
        }
        double const du = double(int(random() % 9) - 4) * 2.7, dv = double(int(random() % 9) - 4) / 3;
        Scalar::StepPositions(*positions, u, v, du, dv, sampleBlockSize, sampleBlockSize);
        auto const expected = Scalar::FindSampleBounds(*positions, block);
        auto const actual = FindSampleBounds(*positions, block);
        EXPECT_EQ(expected.left, actual.left);
        EXPECT_EQ(expected.top, actual.top);
        EXPECT_EQ(expected.right, actual.right);
        EXPECT_EQ(expected.bottom, actual.bottom);
        EXPECT_TRUE(!nothing || actual.left == actual.right);
    }
}

TEST_P(SamplerOnEveryTarget, RowsEqualThePlainOnesForEveryFormatAndCount) {
    CompareWithTwins<std::uint8_t>(SampleType::Integer8);
    CompareWithTwins<std::uint16_t>(SampleType::Integer16);
    CompareWithTwins<float>(SampleType::Float);
}

TEST_P(SamplerOnEveryTarget, InfiniteNeighboursWithoutWeightDoNotShow) {
    float const infinity = std::numeric_limits<float>::infinity();
    float const colour[4]{0.5f, infinity, infinity, infinity}, alpha[4]{1, 1, 1, 1};
    float lanes[16];
    for (int y = 0; y < 2; ++y) {
        float * const groups[2]{lanes + y * 8, nullptr};
        void const * const rows[2]{colour + y * 2, alpha + y * 2};
        GetPremultiplyRow(SampleType::Float)(groups, rows, 1, 2);
    }
    SampleWindow const window{{0, 0, 2, 2}, 8, {lanes, nullptr}};
    float sampled[2];
    void * const dest[2]{&sampled[0], &sampled[1]};
    float const centre = 0.5f;
    GetSampleRow(SampleType::Float)(dest, window, &centre, &centre, 1, 1);
    EXPECT_EQ(0.5f, sampled[0]);
    EXPECT_EQ(1.0f, sampled[1]);
}

INSTANTIATE_TEST_SUITE_P(Sampler, SamplerOnEveryTarget, ::testing::ValuesIn(hwy::SupportedAndGeneratedTargets()),
                         [](auto const & target) { return std::string(hwy::TargetName(target.param)); });
}
