#include "pixel/kernels/Interleave.h"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace Raster {
namespace {
class InterleaveOnEveryTarget : public ::testing::TestWithParam<std::int64_t> {
protected:
    void SetUp() override { hwy::SetSupportedTargetsForTest(GetParam()); }
    void TearDown() override { hwy::SetSupportedTargetsForTest(0); }
};

// There and back for every number of channels and pixels, with guards around each row.
template<class Sample>
void GoThereAndBack(void (*join)(Sample *, Sample const * const *, int, std::size_t),
                    void (*part)(Sample * const *, Sample const *, int, std::size_t)) {
    unsigned next = 1;
    for (int channels = 1; channels <= 5; ++channels)
        for (std::size_t count = 0; count <= 300; count += count < 140 ? 1 : 53) {
            std::vector<std::vector<Sample>> rows(static_cast<std::size_t>(channels));
            Sample const * from[5];
            for (std::size_t channel = 0; channel < rows.size(); ++channel) {
                for (std::size_t i = 0; i < count; ++i)
                    rows[channel].push_back(static_cast<Sample>((next = next * 1664525u + 1013904223u) >> 16));
                from[channel] = rows[channel].data();
            }
            std::vector<Sample> pixels(count * rows.size() + 2, Sample(7)), expected = pixels;
            join(pixels.data() + 1, from, channels, count);
            Scalar::Interleave(expected.data() + 1, from, channels, 0, count);
            ASSERT_EQ(expected, pixels) << channels << " channels, " << count << " pixels";

            std::vector<std::vector<Sample>> actual(rows.size(), std::vector<Sample>(count + 2, Sample(7)));
            Sample * to[5];
            for (std::size_t channel = 0; channel < rows.size(); ++channel)
                to[channel] = actual[channel].data() + 1;
            part(to, pixels.data() + 1, channels, count);
            for (std::size_t channel = 0; channel < rows.size(); ++channel) {
                auto row = std::vector<Sample>(count + 2, Sample(7));
                if (channel + 1 < rows.size()) // the last is left alone
                    std::copy(rows[channel].begin(), rows[channel].end(), row.begin() + 1);
                ASSERT_EQ(row, actual[channel]) << channels << " channels, " << count << " pixels";
            }
        }
}
}

TEST_P(InterleaveOnEveryTarget, PixelsArePutTogetherAndTakenApart) {
    GoThereAndBack<std::uint8_t>(Interleave8, DeinterleaveColours8);
    GoThereAndBack<std::uint16_t>(Interleave16, DeinterleaveColours16);
    GoThereAndBack<float>(InterleaveFloat, DeinterleaveColoursFloat);
}

INSTANTIATE_TEST_SUITE_P(Interleave, InterleaveOnEveryTarget, ::testing::ValuesIn(hwy::SupportedAndGeneratedTargets()),
                         [](auto const & target) { return std::string(hwy::TargetName(target.param)); });
}
