#include "pixel/transfer/UprightSampler.h"

#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/SampleRules.h"
#include "transfer/TransferPixels.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Raster {
namespace {
class UprightOnEveryTarget : public StorageTest, public ::testing::WithParamInterface<std::int64_t> {
protected:
    void SetUp() override {
        StorageTest::SetUp();
        hwy::SetSupportedTargetsForTest(GetParam());
    }
    void TearDown() override {
        hwy::SetSupportedTargetsForTest(0);
        StorageTest::TearDown();
    }
};

bool SameBits(float a, float b) { return (std::isnan(a) && std::isnan(b)) || std::memcmp(&a, &b, sizeof a) == 0; }

// Columns that a matrix of this scale meets, with a few that lie outside everything at the end.
std::unique_ptr<UprightColumns> MakeColumns(double scale, int count, std::mt19937 & random) {
    auto columns = std::make_unique<UprightColumns>();
    columns->count = count;
    double const shift = scale < 0 ? -scale * (count - 1) : 0.0;
    columns->left = -5;
    columns->right = columns->left;
    for (int i = 0; i < UprightColumns::longest; ++i) {
        int const column = std::min(i, count - 1);
        columns->cells[i] = int(shift + scale * column);
        columns->right = std::max(columns->right, columns->left + columns->cells[i] + 2);
        float const fx = random() % 4 == 0 ? float(random() % 2) : float(random() % 65536) / 65536.0f;
        bool const isOutside = i >= count || (count > 8 && i == count - 1);
        columns->weightsOfLeft[i] = isOutside ? 0.0f : 1.0f - fx;
        columns->weightsOfRight[i] = isOutside ? 0.0f : fx;
    }
    return columns;
}

template<class Sample>
void ComparePremultiplied(SampleType type) {
    std::mt19937 random(5);
    for (int const colours : {0, 1, 3, 4})
        for (std::size_t count = 0; count <= 70; ++count) {
            std::vector<std::vector<Sample>> source(std::size_t(colours) + 1);
            std::vector<std::vector<float>> actual(source.size(), std::vector<float>(count + 2, -7.0f));
            auto expected = actual;
            void const * from[5];
            float *a[5], *e[5];
            for (std::size_t c = 0; c < source.size(); ++c) {
                for (std::size_t i = 0; i < count; ++i)
                    source[c].push_back(RandomSample<Sample>(random));
                from[c] = source[c].data();
                a[c] = actual[c].data() + 1;
                e[c] = expected[c].data() + 1;
            }
            GetPremultiplyPlanes(type)(a, from, colours, count);
            Scalar::GetPremultiplyPlanes(type)(e, from, colours, count);
            ASSERT_EQ(expected, actual) << colours << " colours, " << count << " pixels";
        }
}

// Premultiplied samples: colours of alpha at most.
template<class Sample>
void FillRow(UprightRow & row, UprightColumns const & columns, int colours, std::mt19937 & random) {
    for (int i = 0; i < columns.right - columns.left; ++i) {
        float const alpha = float(RandomSample<Sample>(random));
        for (int c = 0; c < colours; ++c)
            row.planes[c][i] = alpha * float(random() % 256) / 255.0f;
        row.planes[colours][i] = alpha;
        if (std::is_same_v<Sample, float> && colours > 0 && random() % 50 == 0)
            row.planes[0][i] = std::numeric_limits<float>::infinity();
    }
}

template<class Sample>
void CompareMixed(SampleType type, double scale) {
    std::mt19937 random(6);
    auto const upper = std::make_unique<UprightRow>(), lower = std::make_unique<UprightRow>();
    for (int const colours : {0, 1, 3, 4})
        for (int const count : {1, 3, 15, 16, 17, 33, 64, 250, 256}) {
            auto const columns = MakeColumns(scale, count, random);
            FillRow<Sample>(*upper, *columns, colours, random);
            FillRow<Sample>(*lower, *columns, colours, random);
            std::vector<std::vector<Sample>> actual(std::size_t(colours) + 1,
                                                    std::vector<Sample>(std::size_t(count) + 2, Sample(9)));
            auto expected = actual;
            void *a[5], *e[5];
            for (std::size_t c = 0; c < actual.size(); ++c) {
                a[c] = actual[c].data() + 1;
                e[c] = expected[c].data() + 1;
            }
            for (float const fy : {0.0f, 0.3f, 1.0f}) {
                GetMixRows(type)(a, *upper, *lower, *columns, fy, colours);
                Scalar::GetMixRows(type)(e, *upper, *lower, *columns, fy, colours);
                for (std::size_t c = 0; c < actual.size(); ++c)
                    for (std::size_t i = 0; i < actual[c].size(); ++i)
                        ASSERT_TRUE(SameBits(float(expected[c][i]), float(actual[c][i])))
                            << "scale " << scale << ", " << colours << " colours, channel " << c << " of sample " << i
                            << " of " << count << ", fy " << fy << ": " << float(expected[c][i]) << ", "
                            << float(actual[c][i]);
            }
        }
}

struct Case {
    std::string name;
    double matrix[6];
};

// All turn nothing. Some meet hardly anything, some spread their columns too far for the short way.
std::vector<Case> MakeCases() {
    return {{"reduced", {1.6, 0, -3.3, 0, 1.9, 4.4}},
            {"reduced across by more than a vector holds", {3.7, 0, -20, 0, 1.1, 0.25}},
            {"reduced across by more than is kept", {9.3, 0, -1000, 0, 0.7, 0.5}},
            {"mirrored both ways", {-0.8, 0, 260.2, 0, -1.3, 290.6}},
            {"enlarged much", {0.031, 0, 120.2, 0, 0.017, 100.4}},
            {"one column", {0, 0, 17.25, 0, 0.5, 3}},
            {"one row", {0.5, 0, 3, 0, 0, 17.75}},
            {"halves above whole negative numbers", {0.5, 0, -3.5, 0, 0.25, -2.5}},
            {"beside the source", {0.9, 0, 5000, 0, 0.9, 0}},
            {"below the source", {0.9, 0, 0, 0, 0.9, 5000}},
            {"columns that leave the known world", {131072.5, 0, -16777300.0, 0, 1, 0.5}},
            {"rows that leave the known world", {1, 0, 0.5, 0, 131072.5, -16777300.0}},
            {"far off, where steps are coarse", {0.7, 0, 16777100.0, 0, 0.7, 1.0}}};
}

template<class D, class S>
void CompareWithSlowModel() {
#ifdef RASTER_SANITIZED
    int const width = 150, height = 24;
#else
    int const width = 300, height = 280;
#endif
    auto source = MakePicture<S>(290, 300, 7);
    for (int y = 0; y < 256; ++y) // a tile of the source that isn't there, whatever its width
        for (int x = 0; x < 128; ++x)
            source.At(x, y) = {};
    auto const sourceBitmap = MakeBitmap<S>(source);
    for (auto const & what : MakeCases()) {
        auto expected = MakePicture<D>(width, height, 8);
        auto const dest = MakeBitmap<D>(expected);
        float const opacity = 0.9f;
        Kernel::RectT<int> const clip{3, 1, width - 2, height - 1};
        TransferParams params;
        params.clip = &clip;
        Slow::Transfer<D, S>(expected, source, {clip.left, clip.top, clip.right, clip.bottom}, 256 / D::sampleSize,
                             opacity, what.matrix);
        Transfer(*dest, *sourceBitmap, &params, &opacity, what.matrix);
        ASSERT_EQ("", FindDifference<D>(expected, *dest)) << what.name << ", format " << formatOf<S>;
    }
}
}

TEST_P(UprightOnEveryTarget, PremultipliedPlanesEqualThePlainOnes) {
    ComparePremultiplied<std::uint8_t>(SampleType::Integer8);
    ComparePremultiplied<std::uint16_t>(SampleType::Integer16);
    ComparePremultiplied<float>(SampleType::Float);
}

TEST_P(UprightOnEveryTarget, MixedRowsEqualThePlainOnesHoweverFarColumnsLieApartAndTouchNothingBeside) {
    for (double const scale : {0.0, 0.3, 0.93, 1.0, 1.07, 1.9, 2.1, 3.9, -0.4, -1.7, -3.3}) {
        CompareMixed<std::uint8_t>(SampleType::Integer8, scale);
        CompareMixed<std::uint16_t>(SampleType::Integer16, scale);
        CompareMixed<float>(SampleType::Float, scale);
    }
}

TEST_P(UprightOnEveryTarget, TransfersEqualTheSlowModel) {
    CompareWithSlowModel<RGBA8Tuple, RGBA8Tuple>();
    CompareWithSlowModel<RGBAUFTuple, RGBA8Tuple>();
    CompareWithSlowModel<CMYKA8Tuple, CMYKA8Tuple>();
    CompareWithSlowModel<RGBA16Tuple, RGBA16Tuple>();
    CompareWithSlowModel<RGBAUFTuple, RGBAUFTuple>();
    CompareWithSlowModel<A8Tuple, AFTuple>();
}

INSTANTIATE_TEST_SUITE_P(Upright, UprightOnEveryTarget, ::testing::ValuesIn(hwy::SupportedAndGeneratedTargets()),
                         [](auto const & target) { return std::string(hwy::TargetName(target.param)); });
}
