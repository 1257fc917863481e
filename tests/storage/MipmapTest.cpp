#include "kernel/Abort.h"
#include "kernel/Dispatch.h"
#include "kernel/Timer.h"
#include "storage/BitmapPixels.h"
#include "storage/Block.h"
#include "storage/StorageEnvironment.h"
#include "storage/TestHolder.h"
#include "storage/TileGuard.h"

#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

#ifdef RASTER_SANITIZED
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

enum class Alpha { Soft, Opaque, Transparent, Mixed };

template<class Storage>
Storage MakeFraction(std::uint32_t bits) { // 0 to full
    if constexpr (std::is_same_v<Storage, float>)
        return static_cast<float>(bits % 1001) / 1000.0f;
    else if constexpr (std::is_same_v<Storage, Half>)
        return ToHalf(static_cast<float>(bits % 1001) / 1000.0f);
    else if constexpr (std::is_same_v<Storage, ComplexFloat>)
        return {static_cast<float>(bits % 1001) / 1000.0f, static_cast<float>(bits % 101) / 100.0f};
    else
        return static_cast<Storage>(bits);
}

template<class Storage>
Storage MakeFull() {
    if constexpr (std::is_integral_v<Storage>)
        return static_cast<Storage>(-1);
    else if constexpr (std::is_same_v<Storage, Half>)
        return ToHalf(1.0f);
    else if constexpr (std::is_same_v<Storage, ComplexFloat>)
        return {1.0f, 1.0f};
    else
        return 1.0f;
}

/// A pixel without infinities and NaN. Mixed pictures have patches of each kind, larger than vectors and than tiles.
template<class Tuple>
PixelOf<Tuple> MakeSoftPixel(int x, int y, std::uint32_t seed, Alpha kind) {
    using Storage = typename Tuple::Storage;
    auto pixel = MakePixel<Tuple>(x, y, seed);
    for (std::size_t i = 0; i < Tuple::channelCount; ++i)
        if constexpr (std::is_same_v<Storage, Half>)
            pixel.channels[i] = MakeFraction<Half>(pixel.channels[i].bits * 7u);
    if constexpr (Tuple::hasAlpha) {
        auto const noise = Scramble(static_cast<std::uint32_t>(x * 7919 + y) ^ seed);
        if (kind == Alpha::Mixed) {
            auto const patch = Scramble(static_cast<std::uint32_t>(x / 300 * 31 + y / 270) ^ seed) % 4;
            auto const detail = Scramble(static_cast<std::uint32_t>(x / 41 * 37 + y / 5) ^ seed) % 4;
            kind = static_cast<Alpha>(patch == 3 ? detail : patch);
        }
        Storage alpha = MakeFraction<Storage>(noise);
        if (kind == Alpha::Opaque || (kind == Alpha::Mixed && noise % 3 == 0))
            alpha = MakeFull<Storage>();
        else if (kind == Alpha::Transparent || (kind == Alpha::Mixed && noise % 3 == 1))
            alpha = Storage{};
        pixel.channels[Tuple::alphaIndex - 1] = alpha;
    }
    return pixel;
}

template<class Tuple>
void Draw(BitmapOf<Tuple> & bitmap, Rect const & rect, std::uint32_t seed, Alpha kind) {
    ModelAccessor<BitmapOf<Tuple>> accessor(&bitmap);
    for (int y = rect.top; y < rect.bottom; ++y) {
        accessor.SetToXY(rect.left, y);
        for (int x = rect.left; x < rect.right; ++x, accessor.Increment())
            accessor.Write(MakeSoftPixel<Tuple>(x, y, seed, kind));
    }
}

// The filter once more, as plain as can be: a pixel at a time, and in other words than the library's.
template<class Storage>
struct Slow {
    static constexpr std::uint64_t full = static_cast<Storage>(-1);
    static Storage Filter(std::array<Storage, 4> const & colour) {
        return static_cast<Storage>((std::uint64_t(colour[0]) + colour[1] + colour[2] + colour[3]) / 4);
    }
    static std::uint64_t Weigh(std::uint64_t colour, std::uint64_t alpha) {
        if (alpha == full)
            return colour;
        if (full == 255)
            return (colour * alpha + 128 + colour * alpha / 256) / 256;
        return colour * alpha / 65535;
    }
    static Storage Filter(std::array<Storage, 4> const & colour, std::array<Storage, 4> const & alphas) {
        std::uint64_t sum = 0;
        for (std::size_t i = 0; i < 4; ++i)
            sum += Weigh(colour[i], alphas[i]);
        std::uint64_t const alpha = Filter(alphas);
        sum /= 4;
        return static_cast<Storage>(alpha >= 1 && alpha < full ? std::min(sum * full / alpha, full) : sum);
    }
};

template<>
struct Slow<float> {
    static float Filter(std::array<float, 4> const & c) { return (((c[0] + c[1]) + c[2]) + c[3]) / 4.0f; }
    static float Filter(std::array<float, 4> c, std::array<float, 4> const & alphas) {
        for (std::size_t i = 0; i < 4; ++i)
            if (alphas[i] != 1.0f)
                c[i] = c[i] * alphas[i];
        float const alpha = Filter(alphas), mean = Filter(c);
        return alpha != 1.0f && alpha != 0.0f ? mean / alpha : mean;
    }
};

template<>
struct Slow<Half> {
    template<class... Corners>
    static Half Filter(Corners const &... corners) {
        auto const widen = [](std::array<Half, 4> const & c) {
            return std::array<float, 4>{ToFloat(c[0]), ToFloat(c[1]), ToFloat(c[2]), ToFloat(c[3])};
        };
        return ToHalf(Slow<float>::Filter(widen(corners)...));
    }
};

template<>
struct Slow<ComplexFloat> {
    template<class... Corners>
    static ComplexFloat Filter(Corners const &... corners) {
        auto const take = [](std::array<ComplexFloat, 4> const & c, float ComplexFloat::*part) {
            return std::array<float, 4>{c[0].*part, c[1].*part, c[2].*part, c[3].*part};
        };
        return {Slow<float>::Filter(take(corners, &ComplexFloat::first)...),
                Slow<float>::Filter(take(corners, &ComplexFloat::second)...)};
    }
};

template<class Tuple>
struct Picture {
    int width, height;
    std::vector<PixelOf<Tuple>> pixels;

    PixelOf<Tuple> const & At(int x, int y) const {
        return pixels[static_cast<std::size_t>(std::min(y, height - 1)) * static_cast<std::size_t>(width) +
                      static_cast<std::size_t>(std::min(x, width - 1))];
    }
    Picture Halve() const {
        using Storage = typename Tuple::Storage;
        Picture half{(width + 1) / 2, (height + 1) / 2, {}};
        for (int y = 0; y < half.height; ++y)
            for (int x = 0; x < half.width; ++x) {
                auto const corners = [&](std::size_t channel) {
                    return std::array<Storage, 4>{
                        At(2 * x, 2 * y).channels[channel], At(2 * x + 1, 2 * y).channels[channel],
                        At(2 * x, 2 * y + 1).channels[channel], At(2 * x + 1, 2 * y + 1).channels[channel]};
                };
                PixelOf<Tuple> pixel{};
                for (std::size_t i = 0; i < Tuple::channelCount; ++i) {
                    if constexpr (Tuple::hasAlpha) {
                        if (i != Tuple::alphaIndex - 1) {
                            pixel.channels[i] = Slow<Storage>::Filter(corners(i), corners(Tuple::alphaIndex - 1));
                            continue;
                        }
                    }
                    pixel.channels[i] = Slow<Storage>::Filter(corners(i));
                }
                half.pixels.push_back(pixel);
            }
        return half;
    }
};

template<class Tuple>
Picture<Tuple> Read(BitmapOf<Tuple> const & bitmap) {
    return {bitmap.GetWidth(), bitmap.GetHeight(), ReadAll(bitmap)};
}

template<class Tuple>
void ExpectEqual(Picture<Tuple> const & expected, Picture<Tuple> const & actual, std::string const & what) {
    ASSERT_EQ(expected.width, actual.width) << what;
    ASSERT_EQ(expected.height, actual.height) << what;
    for (int y = 0; y < expected.height; ++y)
        for (int x = 0; x < expected.width; ++x)
            ASSERT_TRUE(expected.At(x, y) == actual.At(x, y)) << what << ", pixel " << x << ", " << y;
}

class MipmapTest : public StorageTest {
protected:
    ~MipmapTest() override { Kernel::Dispatch::SetThreadCount(0); }

    template<class Tuple = RGBA8Tuple>
    static Kernel::Counted<BitmapOf<Tuple>> Make(int width, int height, MipmapMode mode = MipmapModeManual) {
        return Kernel::MakeCounted<BitmapOf<Tuple>>(width, height, mode, HardwareCachePolicy::Default);
    }
    template<class Tuple = RGBA8Tuple>
    static Kernel::Counted<BitmapOf<Tuple>> MakeDrawn(int width, int height, Alpha kind = Alpha::Mixed,
                                                      std::uint32_t seed = 1) {
        auto const bitmap = Make<Tuple>(width, height);
        Draw<Tuple>(*bitmap, bitmap->GetBounds(), seed, kind);
        return bitmap;
    }

    /// Every level is there, valid, and the slow filter's picture of the one before.
    template<class Tuple>
    static void ExpectLevelsMatch(BitmapOf<Tuple> & bitmap, std::string const & what) {
        auto picture = Read<Tuple>(bitmap);
        int level = 0;
        for (int width = bitmap.GetWidth(), height = bitmap.GetHeight(); MipmapTable::HasLevelBelow(width, height);) {
            width = MipmapTable::GetHalf(width);
            height = MipmapTable::GetHalf(height);
            auto const mipmap = bitmap.GetMipmap(++level);
            ASSERT_TRUE(mipmap) << what << ", level " << level;
            picture = picture.Halve();
            ExpectEqual(picture, Read<Tuple>(*mipmap), what + ", level " + std::to_string(level));
            if (testing::Test::HasFatalFailure())
                return;
        }
    }

    template<class Tuple>
    static std::vector<Picture<Tuple>> ReadLevels(BitmapOf<Tuple> const & bitmap) {
        std::vector<Picture<Tuple>> pictures;
        for (auto const & [level, entry] : bitmap.GetMipmapTable().GetLevels())
            pictures.push_back(Read<Tuple>(static_cast<BitmapOf<Tuple> const &>(*entry.bitmap)));
        return pictures;
    }

    static std::vector<bool> GetValidity(BitmapCore const & bitmap) {
        std::vector<bool> result;
        for (auto const & [level, entry] : bitmap.GetMipmapTable().GetLevels())
            result.push_back(entry.valid);
        return result;
    }
    static bool AreAllValid(BitmapCore const & bitmap) {
        auto const validity = GetValidity(bitmap);
        return std::find(validity.begin(), validity.end(), false) == validity.end();
    }
    static bool AreAllInvalid(BitmapCore const & bitmap) {
        auto const validity = GetValidity(bitmap);
        return std::find(validity.begin(), validity.end(), true) == validity.end();
    }

    /// Fills all levels with one value and marks them up to date all the same, so that what an update writes shows.
    static void FillLevels(BitmapCore & bitmap, int value) {
        auto & table = bitmap.GetMipmapTable();
        for (auto const & [level, entry] : table.GetLevels()) {
            for (int plane = 0; plane < entry.bitmap->GetPlaneCount(); ++plane)
                for (std::size_t i = 0; i < entry.bitmap->GetPlane(plane).GetTileCount(); ++i)
                    std::memset(MutableTileGuard(entry.bitmap->GetPlane(plane).GetTile(i)).GetBuffer(), value,
                                Tile::ByteCount);
            table.Publish(level, entry);
        }
    }
    template<class Tuple>
    static Rect FindChange(Picture<Tuple> const & picture, std::uint8_t filledWith) {
        Rect changed;
        for (int y = 0; y < picture.height; ++y)
            for (int x = 0; x < picture.width; ++x)
                for (auto const sample : picture.At(x, y).channels)
                    if (sample != filledWith)
                        changed = changed.Unite({x, y, x + 1, y + 1});
        return changed;
    }
};

TEST_F(MipmapTest, LevelsExistWhileTheLongerSideIsAbove16AndTheShorterAbove1) {
    EXPECT_TRUE(GetValidity(*Make(16, 16, MipmapModeImmediate)).empty());
    EXPECT_TRUE(GetValidity(*Make(17, 1)).empty());
    auto const small = MakeDrawn(17, 2);
    small->UpdateMipmaps(0, nullptr);
    EXPECT_EQ(std::vector<bool>{true}, GetValidity(*small));
    EXPECT_EQ(9, small->GetMipmap(1)->GetWidth());
    EXPECT_EQ(1, small->GetMipmap(1)->GetHeight());
    auto const flat = MakeDrawn(1000, 10);
    flat->UpdateMipmaps(0, nullptr);
    EXPECT_EQ(std::vector<bool>(4, true), GetValidity(*flat));
    EXPECT_EQ(63, flat->GetMipmap(4)->GetWidth());
    EXPECT_EQ(1, flat->GetMipmap(4)->GetHeight());
}

TEST_F(MipmapTest, LevelIsNullUntilItHasBeenUpdated) {
    auto const bitmap = MakeDrawn(100, 100);
    EXPECT_FALSE(bitmap->GetMipmap(1));
    bitmap->UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(bitmap->GetMipmap(1));
    bitmap->InvalidateMipmaps({3, 3, 4, 4});
    EXPECT_FALSE(bitmap->GetMipmap(1));
}

TEST_F(MipmapTest, UpdateOfALevelIncludesTheNextOneButNoMore) {
    for (int level = 1; level < 5; ++level) {
        auto const bitmap = MakeDrawn(500, 500);
        bitmap->UpdateMipmaps(level, nullptr);
        for (int i = 1; i <= 5; ++i)
            EXPECT_EQ(i <= level + 1, bool(bitmap->GetMipmap(i))) << "asked for " << level << ", level " << i;
        bitmap->UpdateMipmaps(0, nullptr);
        ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "asked for " + std::to_string(level) + " before");
    }
}

TEST_F(MipmapTest, ModeWithoutLevelsAndNegativeLevelsChangeNothing) {
    auto const none = Make(100, 100, MipmapModeNone);
    none->UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(GetValidity(*none).empty());
    auto const bitmap = MakeDrawn(100, 100);
    bitmap->UpdateMipmaps(-1, nullptr);
    EXPECT_TRUE(AreAllInvalid(*bitmap));
}

TEST_F(MipmapTest, LevelsThatTheTableLacksAreMadeAnew) {
    auto const bitmap = MakeDrawn(100, 100);
    auto levels = bitmap->GetMipmapTable().GetLevels();
    levels.erase(2);
    bitmap->GetMipmapTable().Replace(std::move(levels));
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "without level 2");
    bitmap->GetMipmapTable().Replace({});
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "without any level");
}

TEST_F(MipmapTest, TransparentPixelsDoNotBleedTheirColour) {
    auto const bitmap = Make(18, 18);
    PixelOf<RGBA8Tuple> bright{}, black{};
    bright.channels[0] = bright.channels[1] = 255;
    black.channels[3] = 255;
    ModelAccessor<RGBA8Bitmap> accessor(bitmap.Get());
    for (int i = 0; i < 4; ++i) {
        accessor.SetToXY(i % 2, i / 2);
        accessor.Write(i == 2 ? bright : black);
    }
    accessor.Reset();
    bitmap->UpdateMipmaps(1, nullptr);
    auto const pixel = ReadAll(*bitmap->GetMipmap(1)).front();
    EXPECT_EQ(191, pixel.channels[3]);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(0, pixel.channels[i]);
}

TEST_F(MipmapTest, OpaqueMeansAreTruncated) {
    auto const bitmap = MakeDrawn(18, 18, Alpha::Opaque);
    ModelAccessor<RGBA8Bitmap> accessor(bitmap.Get());
    for (int i = 0; i < 4; ++i) {
        PixelOf<RGBA8Tuple> pixel{};
        pixel.channels[0] = i == 3 ? 3 : 0;
        pixel.channels[1] = i == 3 ? 4 : 0;
        pixel.channels[2] = i == 3 ? 255 : 254;
        pixel.channels[3] = 255;
        accessor.SetToXY(i % 2, i / 2);
        accessor.Write(pixel);
    }
    accessor.Reset();
    bitmap->UpdateMipmaps(1, nullptr);
    auto const pixel = ReadAll(*bitmap->GetMipmap(1)).front();
    EXPECT_EQ(0, pixel.channels[0]);
    EXPECT_EQ(1, pixel.channels[1]);
    EXPECT_EQ(254, pixel.channels[2]);
    EXPECT_EQ(255, pixel.channels[3]);
}

TEST_F(MipmapTest, ColourUnderTransparentPixelsNeverChangesALevel) {
    auto const check = [](auto tuple) {
        using Tuple = decltype(tuple);
        auto const one = Make<Tuple>(300, 290), other = Make<Tuple>(300, 290);
        for (auto const & [bitmap, hidden] : {std::pair(one, 1u), std::pair(other, 999u)}) {
            ModelAccessor<BitmapOf<Tuple>> accessor(bitmap.Get());
            for (int y = 0; y < 290; ++y)
                for (int x = 0; x < 300; ++x) {
                    auto pixel = MakeSoftPixel<Tuple>(x, y, 1, Alpha::Soft);
                    if (Scramble(static_cast<std::uint32_t>(x / 3 + y * 1000)) % 2) {
                        pixel = MakeSoftPixel<Tuple>(x, y, hidden, Alpha::Soft);
                        pixel.channels[Tuple::alphaIndex - 1] = {};
                    }
                    accessor.SetToXY(x, y);
                    accessor.Write(pixel);
                }
            accessor.Reset();
            bitmap->UpdateMipmaps(0, nullptr);
        }
        auto const expected = ReadLevels<Tuple>(*one), actual = ReadLevels<Tuple>(*other);
        for (std::size_t i = 0; i < expected.size(); ++i)
            ExpectEqual(expected[i], actual[i], "level " + std::to_string(i + 1));
    };
    check(RGBA8Tuple());
    check(RGBA16Tuple());
    check(RGBAUFTuple());
    check(ChannelTuple<RedUH, GreenUH, BlueUH, AlphaH>());
}

TEST_F(MipmapTest, LevelsOfEveryTupleEqualTheSlowFilter) {
    auto const check = [](auto tuple, char const * name) {
        using Tuple = decltype(tuple);
        auto const bitmap = MakeDrawn<Tuple>(67, 35);
        bitmap->UpdateMipmaps(0, nullptr);
        ExpectLevelsMatch<Tuple>(*bitmap, name);
    };
#define RASTER_CHECK(...) check(ChannelTuple<__VA_ARGS__>(), #__VA_ARGS__);
    RASTER_FOR_EACH_TUPLE(RASTER_CHECK)
#undef RASTER_CHECK
}

// The sizes lie around multiples of tiles, of vectors and of powers of two.
template<class Test>
void ForVariousTuples(Test && test) {
    test(RGBA8Tuple(), "RGBA8");
    test(RGBA16Tuple(), "RGBA16");
    test(RGBAUFTuple(), "RGBAUF");
    test(ChannelTuple<Alpha8, Red8, Green8, Blue8>(), "ARGB8");
    test(IA8Tuple(), "IA8");
    test(A16Tuple(), "A16");
    test(CMYKA8Tuple(), "CMYKA8");
    test(ChannelTuple<Red8, Green8, Blue8>(), "RGB8");
    test(ChannelTuple<Red16, Green16, Blue16>(), "RGB16");
    test(ChannelTuple<RedF, GreenF, BlueF>(), "RGBF");
    test(ChannelTuple<RedUH, GreenUH, BlueUH, AlphaH>(), "RGBAH");
    test(ChannelTuple<RedComplexUF, GreenComplexUF, BlueComplexUF, AlphaComplexUF>(), "complex RGBA");
}

TEST_F(MipmapTest, LevelsEqualTheSlowFilterForAnySizeAndAlpha) {
    ForVariousTuples([](auto tuple, char const * name) {
        using Tuple = decltype(tuple);
        std::mt19937 random(5);
        constexpr int tileWidth = 256 / Tuple::sampleSize;
        for (int i = 0; i < (isSanitized ? 3 : 12); ++i) {
            int const width = 1 + static_cast<int>(random() % (3 * tileWidth + 40));
            int const height = 1 + static_cast<int>(random() % (isSanitized ? 300 : 800));
            for (auto const kind : {Alpha::Mixed, static_cast<Alpha>(i % 3)}) {
                auto const bitmap = MakeDrawn<Tuple>(width, height, kind, static_cast<std::uint32_t>(i));
                if (i % 2)
                    bitmap->Scrub(nullptr);
                bitmap->UpdateMipmaps(0, nullptr);
                ExpectLevelsMatch<Tuple>(*bitmap, std::string(name) + " " + std::to_string(width) + " by " +
                                                      std::to_string(height) + ", case " + std::to_string(i));
                if (HasFatalFailure())
                    return;
            }
        }
    });
}

TEST_F(MipmapTest, SizesAroundMultiplesOfTilesAreFilteredToTheEdge) {
    for (int const width : {255, 256, 257, 511, 512, 513})
        for (int const height : {2, 3, 511, 512, 513}) {
            auto const bitmap = MakeDrawn<IA8Tuple>(width, height, Alpha::Soft);
            bitmap->UpdateMipmaps(0, nullptr);
            ExpectLevelsMatch<IA8Tuple>(*bitmap, std::to_string(width) + " by " + std::to_string(height));
        }
}

TEST_F(MipmapTest, InfinitiesAndNoNumbersPassOnInFloats) {
    auto const bitmap = Make<AFTuple>(18, 18);
    float const infinity = std::numeric_limits<float>::infinity();
    ModelAccessor<BitmapOf<AFTuple>> accessor(bitmap.Get());
    auto const write = [&](int x, int y, float value) {
        PixelOf<AFTuple> pixel{};
        pixel.channels[0] = value;
        accessor.SetToXY(x, y);
        accessor.Write(pixel);
    };
    write(0, 0, infinity);
    write(2, 0, infinity);
    write(3, 1, -infinity);
    write(5, 1, std::nanf(""));
    accessor.Reset();
    bitmap->UpdateMipmaps(0, nullptr);
    auto const pixels = ReadAll(*bitmap->GetMipmap(1));
    EXPECT_EQ(infinity, pixels[0].channels[0]);
    EXPECT_TRUE(std::isnan(pixels[1].channels[0]));
    EXPECT_TRUE(std::isnan(pixels[2].channels[0]));
    EXPECT_EQ(0.0f, pixels[3].channels[0]);
}

TEST_F(MipmapTest, OnlyTheScaledChangeIsFilteredAgain) {
    auto const bitmap = MakeDrawn(100, 100, Alpha::Opaque);
    bitmap->UpdateMipmaps(0, nullptr);
    FillLevels(*bitmap, 1);
    bitmap->InvalidateMipmaps({10, 10, 11, 11});
    bitmap->UpdateMipmaps(0, nullptr);
    auto const levels = ReadLevels<RGBA8Tuple>(*bitmap);
    EXPECT_EQ((Rect{5, 5, 6, 6}), FindChange(levels[0], 1));
    // All that level 2 reads but one pixel is filled with 1, so look for its mean.
    auto const expected = levels[0].Halve().At(2, 2);
    EXPECT_TRUE(expected == levels[1].At(2, 2));
    EXPECT_EQ((Rect{2, 2, 3, 3}), FindChange(levels[1], 1));
}

TEST_F(MipmapTest, RandomChangesAreScaledOutward) {
    auto const bitmap = MakeDrawn(611, 530, Alpha::Opaque);
    bitmap->UpdateMipmaps(0, nullptr);
    std::mt19937 random(3);
    for (int i = 0; i < (isSanitized ? 5 : 40); ++i) {
        FillLevels(*bitmap, 0); // so nothing is opaque that was not written
        int const left = static_cast<int>(random() % 611), top = static_cast<int>(random() % 530);
        Rect const changed{left, top, std::min(611, left + 1 + static_cast<int>(random() % 200)),
                           std::min(530, top + 1 + static_cast<int>(random() % 200))};
        bitmap->InvalidateMipmaps(changed);
        bitmap->UpdateMipmaps(1, nullptr);
        auto const levels = ReadLevels<RGBA8Tuple>(*bitmap);
        for (int level = 1; level <= 2; ++level) {
            int const scale = 1 << level;
            Rect const expected{changed.left / scale, changed.top / scale, (changed.right + scale - 1) / scale,
                                (changed.bottom + scale - 1) / scale};
            EXPECT_EQ(expected, FindChange(levels[static_cast<std::size_t>(level - 1)], 0)) << "case " << i;
        }
    }
}

TEST_F(MipmapTest, ChangesOutsideTheImageOnlyMakeLevelsValidAgain) {
    auto const bitmap = MakeDrawn(100, 100, Alpha::Opaque);
    bitmap->UpdateMipmaps(0, nullptr);
    FillLevels(*bitmap, 1);
    bitmap->GetMipmapTable().RecordChange({-50, -50, -10, -10});
    EXPECT_TRUE(AreAllInvalid(*bitmap));
    bitmap->UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(AreAllValid(*bitmap));
    for (auto const & level : ReadLevels<RGBA8Tuple>(*bitmap))
        EXPECT_EQ(Rect(), FindChange(level, 1));
}

TEST_F(MipmapTest, WhollyDirtyLevelsAreRebuiltWholeWhateverIsRecorded) {
    auto const bitmap = MakeDrawn(300, 300);
    bitmap->InvalidateMipmaps({10, 10, 12, 12});
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "new levels");
    FillLevels(*bitmap, 1);
    bitmap->InvalidateMipmaps();
    bitmap->InvalidateMipmaps({10, 10, 12, 12});
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "after all were invalidated");
}

TEST_F(MipmapTest, ChangeByChangeGivesTheSameLevelsAsAllAtOnce) {
    ForVariousTuples([](auto tuple, char const * name) {
        using Tuple = decltype(tuple);
        std::mt19937 random(17);
        int const width = 256 / Tuple::sampleSize * 2 + 31, height = 573;
        auto const bitmap = Make<Tuple>(width, height);
        for (int i = 0; i < (isSanitized ? 4 : 15); ++i) {
            int const left = static_cast<int>(random() % static_cast<unsigned>(width));
            int const top = static_cast<int>(random() % static_cast<unsigned>(height));
            Rect const rect =
                Rect{left, top, left + 1 + static_cast<int>(random() % 300), top + 1 + static_cast<int>(random() % 300)}
                    .Intersect(bitmap->GetBounds());
            Draw<Tuple>(*bitmap, rect, static_cast<std::uint32_t>(i), static_cast<Alpha>(random() % 4));
            bitmap->InvalidateMipmaps(rect);
            if (i % 3)
                bitmap->UpdateMipmaps(i % 3 == 1 ? 0 : 1, nullptr);
        }
        bitmap->UpdateMipmaps(0, nullptr);
        ExpectLevelsMatch<Tuple>(*bitmap, name);
        auto const levels = ReadLevels<Tuple>(*bitmap);
        bitmap->InvalidateMipmaps();
        bitmap->UpdateMipmaps(0, nullptr);
        auto const rebuilt = ReadLevels<Tuple>(*bitmap);
        for (std::size_t i = 0; i < levels.size(); ++i)
            ExpectEqual(rebuilt[i], levels[i], name);
    });
}

TEST_F(MipmapTest, ThreadsDoNotChangeTheLevels) {
    auto const bitmap = MakeDrawn<RGBAUFTuple>(331, 700);
    bitmap->UpdateMipmaps(0, nullptr);
    auto const expected = ReadLevels<RGBAUFTuple>(*bitmap);
    for (unsigned const threads : {1u, 2u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        FillLevels(*bitmap, 77);
        bitmap->InvalidateMipmaps();
        bitmap->UpdateMipmaps(0, nullptr);
        auto const actual = ReadLevels<RGBAUFTuple>(*bitmap);
        for (std::size_t i = 0; i < expected.size(); ++i)
            ExpectEqual(expected[i], actual[i], std::to_string(threads) + " threads");
    }
}

TEST_F(MipmapTest, VectorTargetsDoNotChangeTheLevels) {
    ForVariousTuples([](auto tuple, char const * name) {
        using Tuple = decltype(tuple);
        auto const bitmap = MakeDrawn<Tuple>(277, 301);
        for (auto const target : hwy::SupportedAndGeneratedTargets()) {
            hwy::SetSupportedTargetsForTest(target);
            bitmap->InvalidateMipmaps();
            bitmap->UpdateMipmaps(0, nullptr);
            ExpectLevelsMatch<Tuple>(*bitmap, std::string(name) + " with " + hwy::TargetName(target));
        }
        hwy::SetSupportedTargetsForTest(0);
    });
}

TEST_F(MipmapTest, TilesBelowTransparentOnesStayUnallocated) {
    auto const bitmap = Make(1024, 1024);
    Draw<RGBA8Tuple>(*bitmap, {512, 0, 1024, 512}, 1, Alpha::Soft);
    Draw<RGBA8Tuple>(*bitmap, {0, 512, 512, 1024}, 1, Alpha::Transparent); // colour, but zero tiles in alpha
    bitmap->Scrub(nullptr);
    auto const check = [&](char const * what) {
        auto const level = bitmap->GetMipmap(1);
        for (int plane = 0; plane < 4; ++plane) {
            EXPECT_FALSE(level->GetPlane(plane).GetTile(0, 0).IsAllocated()) << what;
            EXPECT_TRUE(level->GetPlane(plane).GetTile(1, 0).IsAllocated()) << what;
            EXPECT_FALSE(level->GetPlane(plane).GetTile(0, 1).IsAllocated()) << what;
            EXPECT_FALSE(level->GetPlane(plane).GetTile(1, 1).IsAllocated()) << what;
        }
        ExpectLevelsMatch<RGBA8Tuple>(*bitmap, what);
    };
    bitmap->UpdateMipmaps(0, nullptr);
    check("new");
    FillLevels(*bitmap, 9);
    bitmap->InvalidateMipmaps();
    bitmap->UpdateMipmaps(0, nullptr);
    check("levels held something before");
}

TEST_F(MipmapTest, SolidTilesOfLevelsAreStaticOnes) {
    auto const bitmap = MakeDrawn(700, 512, Alpha::Opaque);
    Draw<RGBA8Tuple>(*bitmap, bitmap->GetBounds(), 1, Alpha::Opaque);
    for (bool const isScrubbed : {false, true}) {
        if (isScrubbed)
            bitmap->Scrub(nullptr);
        bitmap->InvalidateMipmaps();
        bitmap->UpdateMipmaps(0, nullptr);
        EXPECT_TRUE(bitmap->GetMipmap(1)->GetPlane(3).GetTile(0, 0).IsFullTileBuffer());
        EXPECT_FALSE(bitmap->GetMipmap(1)->GetPlane(0).GetTile(0, 0).IsFullTileBuffer());
        ExpectLevelsMatch<RGBA8Tuple>(*bitmap, isScrubbed ? "scrubbed" : "not scrubbed");
    }
    auto const empty = Make<ChannelTuple<Red16, Green16, Blue16>>(256, 512);
    empty->UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(empty->GetMipmap(1)->GetPlane(0).GetTile(0, 0).IsZeroTileBuffer());
    auto const half = Make<ChannelTuple<IntensityH, AlphaH>>(256, 512); // full, as its kind has it, but not opaque
    for (int plane = 0; plane < 2; ++plane)
        for (std::size_t i = 0; i < half->GetPlane(plane).GetTileCount(); ++i)
            half->GetPlane(plane).GetTile(i) = half->GetPlane(plane).GetFullTileOfKind();
    half->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<ChannelTuple<IntensityH, AlphaH>>(*half, "full float tiles of halves");
}

TEST_F(MipmapTest, EvictedTilesComeBackForTheLevels) {
    auto const bitmap = MakeDrawn(600, 600);
    bitmap->UpdateMipmaps(1, nullptr);
    EvictEverything();
    bitmap->UpdateMipmaps(0, nullptr);
    EvictEverything();
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "evicted");
}

TEST_F(MipmapTest, WritesAfterACloneLeaveTheOthersLevelsAlone) {
    auto const bitmap = MakeDrawn(600, 600);
    bitmap->UpdateMipmaps(0, nullptr);
    Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone();
    Draw<RGBA8Tuple>(*clone, {100, 100, 400, 300}, 7, Alpha::Opaque);
    clone->InvalidateMipmaps({100, 100, 400, 300});
    clone->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*clone, "the clone");
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "the original");
}

// Until the write is recorded, only the mark says that the levels are older than the pixels.
TEST_F(MipmapTest, CopiesThatAreTakenAmidAWriteBuildTheirOwnLevels) {
    auto const bitmap = MakeDrawn(600, 600), copy = MakeDrawn(600, 600, Alpha::Opaque);
    bitmap->UpdateMipmaps(0, nullptr);
    Kernel::Counted<RGBA8Bitmap> clone;
    {
        BitmapCore::WriteInProgress const mark(*bitmap);
        Draw<RGBA8Tuple>(*bitmap, {100, 100, 400, 300}, 7, Alpha::Opaque);
        clone = Kernel::Counted<RGBA8Bitmap>(bitmap->Clone());
        copy->CopyPlanesFrom(bitmap.Get());
        bitmap->InvalidateMipmaps({100, 100, 400, 300});
    }
    for (auto const & taken : {clone, copy}) {
        EXPECT_FALSE(taken->GetMipmap(1));
        taken->UpdateMipmaps(0, nullptr);
        ExpectLevelsMatch<RGBA8Tuple>(*taken, "taken amid a write");
    }
}

TEST_F(MipmapTest, PendingBitmapIsLeftAlone) {
    auto const bitmap = MakeDrawn(100, 100);
    bitmap->UpdateMipmaps(1, nullptr);
    bitmap->InvalidateMipmaps({1, 2, 3, 4});
    auto const before = bitmap->GetMipmapTable().GetLevels();
    bitmap->SetPendingBacking(TestHolder::Create());
    bitmap->UpdateMipmaps(0, nullptr);
    EXPECT_TRUE(bitmap->IsPendingDelayLoad());
    for (auto const & [level, entry] : bitmap->GetMipmapTable().GetLevels()) {
        EXPECT_FALSE(entry.valid);
        EXPECT_EQ(before.at(level).dirtyRect, entry.dirtyRect);
        EXPECT_EQ(before.at(level).changeCount, entry.changeCount);
    }
}

TEST_F(MipmapTest, AbortThatIsSetBeforehandChangesNothing) {
    auto const bitmap = MakeDrawn(300, 300, Alpha::Opaque);
    bitmap->UpdateMipmaps(0, nullptr);
    FillLevels(*bitmap, 1);
    bitmap->InvalidateMipmaps({10, 10, 40, 40});
    bool abort = true;
    bitmap->UpdateMipmaps(0, &abort);
    for (auto const & [level, entry] : bitmap->GetMipmapTable().GetLevels()) {
        EXPECT_FALSE(entry.valid);
        EXPECT_EQ((Rect{10, 10, 40, 40}), entry.dirtyRect);
    }
    for (auto const & level : ReadLevels<RGBA8Tuple>(*bitmap))
        EXPECT_EQ(Rect(), FindChange(level, 1));
}

TEST_F(MipmapTest, AbortAtAnyInstantLeavesWhatIsMissingToTheNextUpdate) {
    auto const bitmap = MakeDrawn(isSanitized ? 700 : 1500, 1100);
    Kernel::Timer const timer;
    bitmap->UpdateMipmaps(0, nullptr);
    auto const longestDelay = 1 + static_cast<unsigned>(timer.GetSeconds() * 1e6);
    auto const expected = ReadLevels<RGBA8Tuple>(*bitmap);
    std::mt19937 random(2);
    int cut = 0;
    for (int i = 0; i < (isSanitized ? 10 : 60); ++i) {
        Kernel::Dispatch::SetThreadCount(1 + static_cast<unsigned>(i) % 2);
        FillLevels(*bitmap, 5);
        Rect const changed = i % 3 ? bitmap->GetBounds() : Rect();
        if (i % 3)
            bitmap->InvalidateMipmaps(changed);
        else
            bitmap->InvalidateMipmaps();
        bool abort = i == 0; // one that is cut for sure, however fast the machine is
        std::thread stopper([&abort, delay = random() % longestDelay] {
            std::this_thread::sleep_for(std::chrono::microseconds(delay));
            Kernel::RequestAbort(&abort);
        });
        bitmap->UpdateMipmaps(0, &abort);
        stopper.join();
        bool isValid = true;
        for (auto const & [level, entry] : bitmap->GetMipmapTable().GetLevels()) {
            EXPECT_TRUE(isValid || !entry.valid) << "level " << level << " is valid on an invalid one";
            isValid = entry.valid;
            EXPECT_EQ(isValid ? Rect() : changed, entry.dirtyRect);
            if (isValid)
                ExpectEqual(expected[static_cast<std::size_t>(level - 1)],
                            Read<RGBA8Tuple>(static_cast<RGBA8Bitmap const &>(*entry.bitmap)), "a valid level");
        }
        cut += !isValid;
        bitmap->UpdateMipmaps(0, nullptr);
        auto const levels = ReadLevels<RGBA8Tuple>(*bitmap);
        for (std::size_t level = 0; level < levels.size(); ++level)
            ExpectEqual(expected[level], levels[level], "after an abort");
    }
    EXPECT_LT(0, cut);
}

// A level that is built from one that missed a change has missed it too.
TEST_F(MipmapTest, ChangeRecordedDuringAnUpdateInvalidatesEveryLevel) {
    auto const bitmap = MakeDrawn(600, 600);
    Kernel::Dispatch::SetThreadCount(1);
    std::mt19937 random(9);
    for (int i = 0; i < (isSanitized ? 40 : 300); ++i) {
        bitmap->InvalidateMipmaps();
        std::thread recorder([&bitmap, delay = random() % (isSanitized ? 20000 : 1500)] {
            std::this_thread::sleep_for(std::chrono::microseconds(delay));
            bitmap->InvalidateMipmaps({7, 7, 9, 9});
        });
        bitmap->UpdateMipmaps(0, nullptr);
        recorder.join();
        EXPECT_TRUE(AreAllValid(*bitmap) || AreAllInvalid(*bitmap)) << "case " << i;
    }
}

TEST_F(MipmapTest, UpdatesAndRecordersMayRunSideBySide) {
    auto const bitmap = MakeDrawn(700, 600);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&, i] {
            while (!isOver) {
                bitmap->UpdateMipmaps(i, nullptr);
                std::this_thread::yield();
            }
        });
    threads.emplace_back([&] {
        std::mt19937 random(1);
        for (int i = 0; i < (isSanitized ? 100 : 500); ++i) {
            int const x = static_cast<int>(random() % 690), y = static_cast<int>(random() % 590);
            bitmap->InvalidateMipmaps({x, y, x + 10, y + 10});
            if (i % 50 == 0)
                bitmap->InvalidateMipmaps();
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
        }
        isOver = true;
    });
    threads.emplace_back([&] {
        while (!isOver) {
            if (auto const level = bitmap->GetMipmap(2)) {
                EXPECT_EQ(175, level->GetWidth());
            }
            Kernel::Counted<RGBA8Bitmap> const clone = bitmap->Clone(); // waits for updates
            if (auto const level = clone->GetMipmap(1)) {
                EXPECT_EQ(350, level->GetWidth());
            }
        }
    });
    for (auto & thread : threads)
        thread.join();
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<RGBA8Tuple>(*bitmap, "in the end");
}

TEST_F(MipmapTest, LevelsFollowAWriterThatRecordsEachChange) {
    auto const bitmap = MakeDrawn<A8Tuple>(1024, 1024);
    std::atomic<bool> isOver{false};
    std::mutex pixels; // who writes them keeps readers away; recording the change needs no lock
    std::thread writer([&] {
        for (std::uint32_t i = 0; i < (isSanitized ? 20 : 100); ++i) {
            int const x = static_cast<int>(Scramble(i) % 900), y = static_cast<int>(Scramble(i + 1000) % 900);
            Rect const rect{x, y, x + 100, y + 100};
            {
                std::lock_guard const guard(pixels);
                Draw<A8Tuple>(*bitmap, rect, i, Alpha::Soft);
            }
            bitmap->InvalidateMipmaps(rect); // meets updates at any instant
        }
        isOver = true;
    });
    while (!isOver) {
        std::lock_guard const guard(pixels);
        bitmap->UpdateMipmaps(0, nullptr);
    }
    writer.join();
    bitmap->UpdateMipmaps(0, nullptr);
    ExpectLevelsMatch<A8Tuple>(*bitmap, "in the end");
}
}
}
