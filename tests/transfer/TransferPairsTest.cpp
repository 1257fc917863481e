#include "pixel/transfer/BitmapTransfer.h"
#include "transfer/EveryFormat.h"
#include "transfer/TransferPixels.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace Raster {
namespace {
struct Case {
    char const * name;
    std::vector<double> matrix;
    float opacity;
    Slow::Rect clip;
};

#ifdef RASTER_SANITIZED
constexpr int destWidth = 140, destHeight = 30, sourceWidth = 90, sourceHeight = 40;
#else
constexpr int destWidth = 300, destHeight = 270, sourceWidth = 270, sourceHeight = 280;
#endif

std::vector<Case> MakeCases() {
    Slow::Rect const all{0, 0, destWidth, destHeight}, odd{7, 3, destWidth - 9, destHeight - 5};
    double const c = std::cos(0.4) * 1.3, s = std::sin(0.4) * 1.3;
    return {{"as it is", {}, 1.0f, all},
            {"as it is at half opacity", {}, 0.5f, odd},
            {"moved by whole pixels", {1, 0, -13, 0, 1, 21}, 1.0f, odd},
            {"turned and scaled", {c, -s, 40.3, s, c, -30.7}, 1.0f, all},
            {"turned and scaled at 0.7", {c, -s, 40.3, s, c, -30.7}, 0.7f, odd},
            {"moved by half a pixel", {1, 0, 0.5, 0, 1, 0.25}, 1.0f, odd},
            {"enlarged", {0.37, 0, 1.5, 0, 0.61, -3}, 1.0f, all}};
}

// All sources onto one destination format.
template<class D>
class TransferPairs : public StorageTest {
protected:
    template<class S>
    static void Compare() {
        auto const source = MakePicture<S>(sourceWidth, sourceHeight, 3);
        auto const sourceBitmap = MakeBitmap<S>(source);
        for (auto const & what : MakeCases()) {
            auto expected = MakePicture<D>(destWidth, destHeight, 4);
            auto const dest = MakeBitmap<D>(expected);
            double const * const matrix = what.matrix.empty() ? nullptr : what.matrix.data();
            Slow::Transfer<D, S>(expected, source, what.clip, 256 / D::sampleSize, what.opacity, matrix);
            Kernel::RectT<int> const clip{what.clip.left, what.clip.top, what.clip.right, what.clip.bottom};
            TransferParams params;
            params.clip = &clip;
            Transfer(*dest, *sourceBitmap, &params, &what.opacity, matrix);
            ASSERT_EQ("", FindDifference<D>(expected, *dest))
                << what.name << ", from format " << formatOf<S> << " to " << formatOf<D>;
        }
    }
};

// Whatever lies under alpha 0 in the source, the destination gets the same.
template<class D>
class TransferPoison : public StorageTest {
protected:
    template<class S>
    static Slow::Picture<S> Poison(Slow::Picture<S> picture) {
        using Sample = typename S::Storage;
        for (auto & pixel : picture.pixels)
            for (std::size_t c = 0; pixel[S::channelCount - 1] == Sample(0) && c + 1 < S::channelCount; ++c)
                if constexpr (std::is_same_v<Sample, float>)
                    pixel[c] = c % 2 ? std::numeric_limits<float>::infinity() : std::numeric_limits<float>::quiet_NaN();
                else
                    pixel[c] = static_cast<Sample>(~pixel[c]);
        return picture;
    }

    // Where alpha is 0 the destination keeps whatever colour it had; it doesn't show.
    static bool ShowTheSame(std::vector<PixelOf<D>> const & one, std::vector<PixelOf<D>> const & other) {
        constexpr std::size_t alphaAt = D::channelCount - 1;
        return std::ranges::equal(one, other, [](auto const & p, auto const & q) {
            using Sample = typename D::Storage;
            return p[alphaAt] == Sample(0) ? q[alphaAt] == Sample(0) : p == q;
        });
    }

    template<class S>
    static void Compare() {
        auto const source = MakePicture<S>(90, 60, 3);
        auto const before = MakePicture<D>(100, 70, 4);
        auto const cleanSource = MakeBitmap<S>(source, MipmapModeOnDemand);
        auto const poisonedSource = MakeBitmap<S>(Poison(source), MipmapModeOnDemand);
        auto cases = MakeCases();
        cases.push_back({"shrunk through a level", {2.3, 0.2, -20.5, 0.1, 2.6, -30}, 1.0f, {}});
        cases.push_back({"shrunk through two levels at 0.7", {5.3, 0.2, -40.5, 0.1, 4.6, -60}, 0.7f, {}});
        for (auto const & what : cases) {
            double const * const matrix = what.matrix.empty() ? nullptr : what.matrix.data();
            auto const clean = MakeBitmap<D>(before), poisoned = MakeBitmap<D>(before);
            auto const poisonedDest = MakeBitmap<D>(Poison(before));
            Transfer(*clean, *cleanSource, nullptr, &what.opacity, matrix);
            Transfer(*poisoned, *poisonedSource, nullptr, &what.opacity, matrix);
            Transfer(*poisonedDest, *poisonedSource, nullptr, &what.opacity, matrix);
            auto const expected = ReadAll(*clean);
            ASSERT_EQ(expected, ReadAll(*poisoned))
                << what.name << ", from format " << formatOf<S> << " to " << formatOf<D>;
            ASSERT_TRUE(ShowTheSame(expected, ReadAll(*poisonedDest)))
                << what.name << " onto poison, from format " << formatOf<S> << " to " << formatOf<D>;
        }
        ASSERT_TRUE(cleanSource->GetMipmap(2));
    }
};

TYPED_TEST_SUITE(TransferPairs, EveryTuple, FormatNames);
TYPED_TEST_SUITE(TransferPoison, EveryTuple, FormatNames);
}

TYPED_TEST(TransferPairs, EverySourceEqualsTheSlowModel) {
#define RASTER_COMPARE(format, ...) this->template Compare<ChannelTuple<__VA_ARGS__>>();
    RASTER_FOR_EACH_FORMAT(RASTER_COMPARE)
}

TYPED_TEST(TransferPoison, ColourUnderAlphaZeroChangesNoResult) {
    RASTER_FOR_EACH_FORMAT(RASTER_COMPARE)
#undef RASTER_COMPARE
}
}
