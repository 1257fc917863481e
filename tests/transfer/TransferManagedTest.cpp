#include "pixel/transfer/TransferManaged.h"

#include "colour/ICCManager.h"
#include "colour/SyntheticProfiles.h"
#include "kernel/Abort.h"
#include "kernel/Dispatch.h"
#include "transfer/TransferPixels.h"

#include <atomic>
#include <limits>
#include <stdexcept>

namespace Raster {
namespace {
class TransferManagedTest : public StorageTest {
protected:
    ~TransferManagedTest() override { Kernel::Dispatch::SetThreadCount(0); }

    static ICCManager::Profile GetProfile(Format format) {
        auto & manager = ICCManager::GetInstance();
        static auto const press = SyntheticProfiles::Take(SyntheticProfiles::CreateCMYK("managed press"));
        return format == CMYKA8 ? manager.AddProfileFromMemory(press.data(), unsigned(press.size()), nullptr)
                                : manager.GetDefaultProfileForFormat(format);
    }
    static void * GetTransform(Format from, Format to) {
        auto * const transform = ICCManager::GetInstance().GetTransformForProfiles(
            from, GetProfile(from), to, GetProfile(to), Intent::RelativeColorimetric, /*blackPointCompensation=*/true);
        EXPECT_TRUE(transform || from == to) << from << " to " << to;
        return transform;
    }

    // Every pixel by itself through the transform, its alpha by the rule of depths.
    template<class D, class S>
    static Slow::Picture<D> Convert(Slow::Picture<D> dest, Slow::Picture<S> const & source, void * transform,
                                    Kernel::RectT<int> const & clip) {
        for (int y = clip.top; y < clip.bottom; ++y)
            for (int x = clip.left; x < clip.right; ++x) {
                auto const from = source.At(x, y);
                PixelOf<D> to{};
                ConvertPixel<D, S>(to, from);
                if (transform) {
                    auto const alpha = to[D::channelCount - 1];
                    ICCManager::DoTransform(transform, reinterpret_cast<unsigned char const *>(&from),
                                            reinterpret_cast<unsigned char *>(&to), 1);
                    to[D::channelCount - 1] = alpha;
                }
                dest.At(x, y) = to;
            }
        return dest;
    }

    template<class D, class S>
    static void Compare(void * transform) {
        auto const source = MakePicture<S>(300, 270, 1);
        auto const before = MakePicture<D>(280, 290, 2);
        Kernel::RectT<int> const clip{5, 7, 270, 265};
        auto const expected = Convert<D, S>(before, source, transform, clip);
        for (unsigned const threads : {1u, 2u, 8u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            DynamicBitmap dest(MakeBitmap<D>(before));
            DynamicBitmap const from(MakeBitmap<S>(source));
            TransferParams params;
            params.clip = &clip;
            TransferManaged(dest, from, transform, &params);
            ASSERT_EQ("", FindDifference<D>(expected, *dest.GetTyped<D>()))
                << formatOf<S> << " to " << formatOf<D> << " on " << threads << " threads";
        }
    }

    // The formats that have profiles, all onto one.
    template<class D>
    static void CompareAllOnto() {
        CompareSmall<D, RGBA8Tuple>();
        CompareSmall<D, RGBA16Tuple>();
        CompareSmall<D, IA8Tuple>();
        CompareSmall<D, IA16Tuple>();
        CompareSmall<D, CMYKA8Tuple>();
        CompareSmall<D, LABA16Tuple>();
        CompareSmall<D, RGBAUFTuple>();
    }

private:
    template<class D, class S>
    static void CompareSmall() {
        void * const transform = GetTransform(formatOf<S>, formatOf<D>);
        auto const source = MakePicture<S>(290, 12, 1);
        auto const before = MakePicture<D>(270, 20, 2);
        auto const expected = Convert<D, S>(before, source, transform, {0, 0, 270, 12});
        DynamicBitmap dest(MakeBitmap<D>(before));
        TransferManaged(dest, DynamicBitmap(MakeBitmap<S>(source)), transform, nullptr);
        EXPECT_EQ("", FindDifference<D>(expected, *dest.GetTyped<D>())) << formatOf<S> << " to " << formatOf<D>;
    }
};

struct StopAfter {
    bool abort = false;
    unsigned count;
    std::atomic<unsigned> reports{0};
};
}

TEST_F(TransferManagedTest, ColoursGoThroughTheTransformAndAlphaByDepth) {
    Compare<RGBAUFTuple, RGBA8Tuple>(GetTransform(RGBA8, RGBAUF));
    Compare<RGBA8Tuple, RGBAUFTuple>(GetTransform(RGBAUF, RGBA8));
    Compare<IA16Tuple, RGBA8Tuple>(GetTransform(RGBA8, IA16));
    Compare<CMYKA8Tuple, RGBA8Tuple>(GetTransform(RGBA8, CMYKA8));
    Compare<RGBA8Tuple, CMYKA8Tuple>(GetTransform(CMYKA8, RGBA8));
}

TEST_F(TransferManagedTest, EveryPairOfFormatsWithAProfileEqualsTheSlowModel) {
    CompareAllOnto<RGBA8Tuple>();
    CompareAllOnto<RGBA16Tuple>();
    CompareAllOnto<IA8Tuple>();
    CompareAllOnto<IA16Tuple>();
    CompareAllOnto<CMYKA8Tuple>();
    CompareAllOnto<LABA16Tuple>();
    CompareAllOnto<RGBAUFTuple>();
}

TEST_F(TransferManagedTest, OddFloatsChangeNoPixelButTheirOwn) {
    float const infinity = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    auto const clean = MakePicture<RGBAUFTuple>(100, 10, 3);
    auto odd = clean;
    std::mt19937 random(4);
    std::vector<std::size_t> places;
    for (float const value : {infinity, -infinity, nan, 1e30f, -1e30f})
        for (int channel = 0; channel < 3; ++channel) {
            places.push_back(random() % odd.pixels.size());
            odd.pixels[places.back()][std::size_t(channel)] = value;
        }
    void * const transform = GetTransform(RGBAUF, RGBA8);
    auto const convert = [&](auto const & picture) {
        DynamicBitmap dest(100, 10, RGBA8, MipmapModeNone, HardwareCachePolicy());
        TransferManaged(dest, DynamicBitmap(MakeBitmap<RGBAUFTuple>(picture)), transform, nullptr);
        return ReadAll(*dest.GetTyped<RGBA8Tuple>());
    };
    auto const expected = convert(clean), actual = convert(odd);
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (std::find(places.begin(), places.end(), i) == places.end())
            ASSERT_EQ(expected[i], actual[i]) << i;
        else
            ASSERT_EQ(expected[i][3], actual[i][3]) << i;
}

TEST_F(TransferManagedTest, PixelsOutsideEitherSizeOrTheClipStayAsTheyAre) {
    auto const source = MakePicture<RGBA8Tuple>(300, 100, 1);
    auto const before = MakePicture<RGBA16Tuple>(120, 290, 2);
    for (Kernel::RectT<int> const & clip :
         {Kernel::RectT<int>{-10, -10, 1000, 1000}, {60, 50, 400, 60}, {0, 150, 120, 290}, {50, 50, 50, 90}}) {
        auto const expected =
            Convert<RGBA16Tuple, RGBA8Tuple>(before, source, nullptr, clip.Intersect({0, 0, 120, 100}));
        DynamicBitmap dest(MakeBitmap<RGBA16Tuple>(before));
        TransferParams params;
        params.clip = &clip;
        TransferManaged(dest, DynamicBitmap(MakeBitmap<RGBA8Tuple>(source)), nullptr, &params);
        EXPECT_EQ("", FindDifference<RGBA16Tuple>(expected, *dest.GetTyped<RGBA16Tuple>())) << clip.top;
    }
}

TEST_F(TransferManagedTest, WithoutAFormatNothingHappens) {
    DynamicBitmap nothing, dest(20, 20, RGBA8, MipmapModeNone, HardwareCachePolicy());
    TransferManaged(nothing, DynamicBitmap(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(20, 20, 1))), nullptr,
                    nullptr);
    TransferManaged(dest, nothing, nullptr, nullptr);
    TransferManaged(nothing, nothing, nullptr, nullptr);
    EXPECT_EQ(NoFormat, nothing.GetFormat());
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
}

TEST_F(TransferManagedTest, LevelsAreToldAndWithModeOneRebuilt) {
    auto const source = MakePicture<RGBA8Tuple>(200, 150, 1), before = MakePicture<RGBA8Tuple>(300, 280, 2);
    Kernel::RectT<int> const clip{10, 20, 250, 90};
    TransferParams params;
    params.clip = &clip;
    for (MipmapMode const mode : {MipmapModeImmediate, MipmapModeOnDemand, MipmapModeManual}) {
        DynamicBitmap dest(MakeBitmap<RGBA8Tuple>(before, mode));
        dest.InvalidateMipmaps();
        dest.UpdateMipmaps(0, nullptr);
        ASSERT_TRUE(dest.GetMipmap(1));
        TransferManaged(dest, DynamicBitmap(MakeBitmap<RGBA8Tuple>(source)), nullptr, &params);
        EXPECT_EQ(mode == MipmapModeImmediate, bool(dest.GetMipmap(1))) << mode;
        dest.UpdateMipmaps(0, nullptr);
        auto const fresh = MakeBitmap<RGBA8Tuple>(
            Convert<RGBA8Tuple, RGBA8Tuple>(before, source, nullptr, clip.Intersect({0, 0, 200, 150})),
            MipmapModeManual);
        fresh->UpdateMipmaps(0, nullptr);
        EXPECT_EQ(ReadAll(*fresh->GetMipmap(1)), ReadAll(*dest.GetMipmap(1)->GetTyped<RGBA8Tuple>())) << mode;
    }
}

TEST_F(TransferManagedTest, LevelsAreToldOfATransferThatThrew) {
    DynamicBitmap dest(600, 600, RGBA16, MipmapModeManual, HardwareCachePolicy());
    dest.UpdateMipmaps(0, nullptr);
    ASSERT_TRUE(dest.GetMipmap(1));
    TransferParams params;
    params.progressContext = &params;
    params.progress = [](unsigned, void *, double) { throw std::runtime_error("no memory"); };
    DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(600, 600, 1)));
    EXPECT_THROW(TransferManaged(dest, source, nullptr, &params), std::runtime_error);
    EXPECT_FALSE(dest.GetAllocatedBoundingBox().IsEmpty()) << "what was written stays";
    EXPECT_FALSE(dest.GetMipmap(1));
}

TEST_F(TransferManagedTest, AnAbortHalfwayLeavesWholeRowsAndAStateToGoOnFrom) {
    auto const source = MakePicture<RGBA8Tuple>(900, 600, 1);
    auto const before = MakePicture<RGBA16Tuple>(900, 600, 2);
    DynamicBitmap const from(MakeBitmap<RGBA8Tuple>(source));
    auto const expected = Convert<RGBA16Tuple, RGBA8Tuple>(before, source, nullptr, {0, 0, 900, 600});
    for (unsigned const threads : {1u, 8u})
        for (unsigned const after : {1u, 4u, 11u}) {
            Kernel::Dispatch::SetThreadCount(threads);
            DynamicBitmap dest(MakeBitmap<RGBA16Tuple>(before, MipmapModeManual));
            dest.UpdateMipmaps(0, nullptr);
            StopAfter stop{false, after};
            TransferParams params;
            params.abort = &stop.abort;
            params.progressContext = &stop;
            params.progress = [](unsigned count, void * context, double) {
                auto & self = *static_cast<StopAfter *>(context);
                ++self.reports;
                if (count >= self.count)
                    Kernel::RequestAbort(&self.abort);
            };
            TransferManaged(dest, from, nullptr, &params);
            EXPECT_GE(stop.reports, after);
            EXPECT_LE(stop.reports, after + threads); // tasks that were running end; 24 tiles are never all of them
            EXPECT_FALSE(dest.GetMipmap(1)) << "levels know of what was written";
            auto const pixels = ReadAll(*dest.GetTyped<RGBA16Tuple>());
            for (std::size_t y = 0; y < 600; ++y)
                for (std::size_t left = 0; left < 900; left += 128) {
                    auto const begin = y * 900 + left, count = std::min<std::size_t>(128, 900 - left);
                    auto const equals = [&](auto const & other) {
                        return std::equal(&pixels[begin], &pixels[begin] + count, &other.pixels[begin]);
                    };
                    ASSERT_TRUE(equals(before) || equals(expected)) << "row " << y << " from " << left;
                }
            TransferManaged(dest, from, nullptr, nullptr);
            ASSERT_EQ("", FindDifference<RGBA16Tuple>(expected, *dest.GetTyped<RGBA16Tuple>()));
        }
}

TEST_F(TransferManagedTest, ALevelMayReceiveItsPictureAndAPictureItsLevel) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 280, 1);
    DynamicBitmap bitmap(MakeBitmap<RGBA8Tuple>(picture, MipmapModeManual));
    bitmap.InvalidateMipmaps();
    bitmap.UpdateMipmaps(0, nullptr);
    auto const level = bitmap.GetMipmap(1);
    ASSERT_TRUE(level);
    Slow::Picture<RGBA8Tuple> levelBefore(150, 140);
    levelBefore.pixels = ReadAll(*level->GetTyped<RGBA8Tuple>());
    TransferManaged(*level, bitmap, nullptr, nullptr);
    EXPECT_EQ(
        "", FindDifference<RGBA8Tuple>(Convert<RGBA8Tuple, RGBA8Tuple>(levelBefore, picture, nullptr, {0, 0, 150, 140}),
                                       *level->GetTyped<RGBA8Tuple>()));
    auto const now = level->GetTyped<RGBA8Tuple>();
    levelBefore.pixels = ReadAll(*now);
    TransferManaged(bitmap, *level, nullptr, nullptr);
    EXPECT_EQ(
        "", FindDifference<RGBA8Tuple>(Convert<RGBA8Tuple, RGBA8Tuple>(picture, levelBefore, nullptr, {0, 0, 150, 140}),
                                       *bitmap.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferManagedTest, WithoutATransformFormulasConvert) {
    Compare<CMYKA8Tuple, RGBA16Tuple>(nullptr);
    Compare<RGBA8Tuple, RGBA8Tuple>(nullptr);
    Compare<A8Tuple, RGBAUFTuple>(nullptr);
}

TEST_F(TransferManagedTest, TransparentTilesBecomeEmptyAndEmptyOnesStayUnallocated) {
    DynamicBitmap const source(600, 300, RGBA8, MipmapModeNone, HardwareCachePolicy());
    DynamicBitmap dest(600, 300, RGBAUF, MipmapModeNone, HardwareCachePolicy());
    TransferManaged(dest, source, GetTransform(RGBA8, RGBAUF), nullptr);
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());

    DynamicBitmap painted(MakeBitmap<RGBAUFTuple>(MakePicture<RGBAUFTuple>(600, 300, 1)));
    TransferManaged(painted, source, GetTransform(RGBA8, RGBAUF), nullptr);
    EXPECT_TRUE(painted.GetNonZeroBoundingBox().IsEmpty());
}

TEST_F(TransferManagedTest, ABitmapMayBeConvertedInPlace) {
    auto const picture = MakePicture<RGBA8Tuple>(300, 270, 1);
    DynamicBitmap bitmap(MakeBitmap<RGBA8Tuple>(picture));
    TransferManaged(bitmap, bitmap, nullptr, nullptr);
    EXPECT_EQ("", FindDifference<RGBA8Tuple>(picture, *bitmap.GetTyped<RGBA8Tuple>()));
}

TEST_F(TransferManagedTest, ABitmapMayGoToAnotherProfileOfItsFormatInPlace) {
    auto & manager = ICCManager::GetInstance();
    auto const bytes = SyntheticProfiles::Take(SyntheticProfiles::CreateRGB("managed display", 1.8, 1.8, 1.8));
    auto const display = manager.AddProfileFromMemory(bytes.data(), unsigned(bytes.size()), nullptr);
    auto * const transform = manager.GetTransformForProfiles(RGBA8, manager.GetDefaultProfile(ColourSpaceRGB), RGBA8,
                                                             display, Intent::RelativeColorimetric, true);
    ASSERT_TRUE(transform);
    auto const picture = MakePicture<RGBA8Tuple>(600, 270, 1);
    auto const expected = Convert<RGBA8Tuple, RGBA8Tuple>(picture, picture, transform, {0, 0, 600, 270});
    ASSERT_NE(picture.pixels, expected.pixels);
    for (unsigned const threads : {1u, 8u}) {
        Kernel::Dispatch::SetThreadCount(threads);
        DynamicBitmap bitmap(MakeBitmap<RGBA8Tuple>(picture));
        TransferManaged(bitmap, bitmap, transform, nullptr);
        EXPECT_EQ("", FindDifference<RGBA8Tuple>(expected, *bitmap.GetTyped<RGBA8Tuple>())) << threads;
    }
}

TEST_F(TransferManagedTest, AnAbortThatIsSetWritesNothing) {
    bool abort = true;
    TransferParams params;
    params.abort = &abort;
    DynamicBitmap const source(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(300, 270, 1)));
    DynamicBitmap dest(300, 270, RGBAUF, MipmapModeNone, HardwareCachePolicy());
    TransferManaged(dest, source, nullptr, &params);
    EXPECT_TRUE(dest.GetAllocatedBoundingBox().IsEmpty());
}
}
