#include "pixel/transfer/TransferManaged.h"

#include "colour/ICCManager.h"
#include "kernel/Dispatch.h"
#include "transfer/TransferPixels.h"

namespace Raster {
namespace {
class TransferManagedTest : public StorageTest {
protected:
    static void * GetTransform(Format from, Format to) {
        auto & manager = ICCManager::GetInstance();
        return manager.GetTransformForProfiles(from, manager.GetDefaultProfileForFormat(from), to,
                                               manager.GetDefaultProfileForFormat(to), Intent::RelativeColorimetric,
                                               /*blackPointCompensation=*/true);
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
        Kernel::Dispatch::SetThreadCount(0);
    }
};
}

TEST_F(TransferManagedTest, ColoursGoThroughTheTransformAndAlphaByDepth) {
    Compare<RGBAUFTuple, RGBA8Tuple>(GetTransform(RGBA8, RGBAUF));
    Compare<RGBA8Tuple, RGBAUFTuple>(GetTransform(RGBAUF, RGBA8));
    Compare<IA16Tuple, RGBA8Tuple>(GetTransform(RGBA8, IA16));
    Compare<LABA16Tuple, RGBA16Tuple>(GetTransform(RGBA16, LABA16));
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
