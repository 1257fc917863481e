// Random operations on a few bitmaps that share tiles, against plain arrays.
#include "kernel/Counted.h"
#include "storage/BitmapPixels.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/StorageEnvironment.h"

#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <type_traits>
#include <vector>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

#ifdef RASTER_SANITIZED
bool const isConfigured = setenv("RC_PARAMS", "seed=20240731 max_success=20 max_size=60", /*overwrite=*/0) == 0;
#else
bool const isConfigured = setenv("RC_PARAMS", "seed=20240731 max_success=200 max_size=100", /*overwrite=*/0) == 0;
#endif

/// A picture as an array over its whole grid: what lies beyond the edges may come into sight when it grows.
template<class Tuple>
struct PlainPicture {
    using PixelType = PixelOf<Tuple>;
    static constexpr int tileWidth = 256 / Tuple::sampleSize;

    int width = 0, height = 0, gridWidth = 0, gridHeight = 0;
    std::vector<PixelType> pixels;

    static int RoundUp(int size, int tile) { return (size + tile - 1) / tile * tile; }

    PlainPicture(int w, int h)
        : width(w), height(h), gridWidth(RoundUp(w, tileWidth)), gridHeight(RoundUp(h, 256)),
          pixels(static_cast<std::size_t>(gridWidth) * static_cast<std::size_t>(gridHeight)) {}

    PixelType & At(int x, int y) {
        return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(gridWidth) + static_cast<std::size_t>(x)];
    }
    PixelType const & At(int x, int y) const { return const_cast<PlainPicture *>(this)->At(x, y); }

    using Storage = typename Tuple::Storage;

    static PixelType GetFull() {
        PixelType full;
        for (auto & sample : full.channels) {
            if constexpr (std::is_same_v<Storage, ComplexFloat>)
                sample = {1.0f, 1.0f}; // the full tile of its kind holds floats of 1.0 throughout
            else
                sample = static_cast<Storage>(Tuple::kind == ChannelKind::Float ? 1 : 65535);
        }
        return full;
    }

    void Inflate(Rect const & amounts, bool fillEmpty) {
        int const left = RoundUp(amounts.left, tileWidth), top = RoundUp(amounts.top, 256);
        PlainPicture grown(width + left + amounts.right, height + top + amounts.bottom);
        if (!fillEmpty)
            std::fill(grown.pixels.begin(), grown.pixels.end(), GetFull());
        for (int y = 0; y < gridHeight; ++y)
            std::copy_n(&At(0, y), gridWidth, &grown.At(left, top + y));
        *this = std::move(grown);
    }

    static bool IsFull(Storage sample) {
        if constexpr (std::is_same_v<Storage, ComplexFloat>)
            return !(sample.first < 1) && !(sample.second < 1);
        else
            return Tuple::kind == ChannelKind::Float ? !(sample < 1) : sample == GetFull().channels[0];
    }

    /// Around the pixels with a sample for which the question is answered with yes.
    template<class Question>
    Rect GetBox(Question question) const {
        Rect box;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                if (std::any_of(std::begin(At(x, y).channels), std::end(At(x, y).channels), question))
                    box = box.Unite({x, y, x + 1, y + 1});
        return box;
    }
};

struct Step {
    int operation, slot, other;
    std::array<int, 4> numbers;
};

std::ostream & operator<<(std::ostream & stream, Step const & step) {
    stream << step.operation << '(' << step.slot << ", " << step.other;
    for (int const number : step.numbers)
        stream << ", " << number;
    return stream << ')';
}

/// Ranges count at their full width: by default they grow with the test, and short tests would know few operations.
rc::Gen<Step> MakeStep() {
    using namespace rc;
    auto const parts = gen::tuple(gen::inRange(0, 13), gen::inRange(0, 3), gen::inRange(0, 3),
                                  gen::container<std::array<int, 4>>(gen::inRange(0, 1000)));
    return gen::map(gen::resize(kNominalSize, parts), [](auto const & values) {
        return Step{std::get<0>(values), std::get<1>(values), std::get<2>(values), std::get<3>(values)};
    });
}

template<class Tuple>
class Machine {
public:
    using BitmapType = BitmapOf<Tuple>;

    Machine() {
        int const tileWidth = PlainPicture<Tuple>::tileWidth;
        for (auto const & [width, height] :
             {std::pair(tileWidth, 256), std::pair(tileWidth + 7, 300), std::pair(5, 3)}) {
            bitmaps.push_back(
                Kernel::MakeCounted<BitmapType>(width, height, MipmapModeManual, HardwareCachePolicy::Default));
            pictures.emplace_back(width, height);
        }
    }

    void Run(Step const & step) {
        auto & bitmap = bitmaps[Index(step.slot)];
        auto & picture = pictures[Index(step.slot)];
        switch (step.operation) {
        case 0:
        case 1:
            Write(bitmap, picture, MakeRect(picture, step), step.operation == 0 ? 3 : step.numbers[3] % 3);
            return;
        case 2: // the whole picture solid, so that tiles have something to be scrubbed for
            Write(bitmap, picture, {0, 0, picture.width, picture.height}, step.numbers[0] % 2);
            return;
        case 3:
            bitmaps[Index(step.other)] = bitmap->Clone();
            pictures[Index(step.other)] = PlainPicture<Tuple>(picture);
            return;
        case 4:
            MemoryManager::Instance().SetDRAMLimit(0), MemoryManager::Instance().SetDRAMLimit(1);
            return;
        case 5:
            bitmap->Scrub(nullptr);
            return;
        case 6:
            Inflate(bitmap, picture, step);
            return;
        case 7: {
            BlockDeduplicationSupport support;
            for (auto const & each : bitmaps)
                each->Deduplicate(support, nullptr);
            return;
        }
        case 8: {
            auto const & other = pictures[Index(step.other)];
            if (other.width == picture.width && other.height == picture.height)
                picture = PlainPicture<Tuple>(other);
            bitmap->CopyPlanesFrom(bitmaps[Index(step.other)].Get());
            return;
        }
        case 9:
            CheckBoxes(*bitmap, picture);
            return;
        case 10:
            CheckPixels(*bitmap, picture);
            return;
        case 11:
            CheckLevels(*bitmap);
            return;
        default: // a reader that stays open while its tiles are written and shared
            Kernel::Counted<BitmapType> const keeper = bitmap->Clone();
            Write(bitmap, picture, MakeRect(picture, step), 3);
            return;
        }
    }

    void CheckAll() const {
        for (std::size_t i = 0; i < bitmaps.size(); ++i)
            CheckPixels(*bitmaps[i], pictures[i]);
    }

private:
    static std::size_t Index(int slot) { return static_cast<std::size_t>(slot); }

    static Rect MakeRect(PlainPicture<Tuple> const & picture, Step const & step) {
        int const left = step.numbers[0] % picture.width, top = step.numbers[1] % picture.height;
        return {left, top, std::min(picture.width, left + 1 + step.numbers[2] % 150),
                std::min(picture.height, top + 1 + step.numbers[3] % 150)};
    }

    /// @param colour  0 for zeros, 1 for full, 2 for the pattern whose pixels have the first picture's seed, else
    /// another
    static void Write(Kernel::Counted<BitmapType> const & bitmap, PlainPicture<Tuple> & picture, Rect const & rect,
                      int colour) {
        ModelAccessor<BitmapType> accessor(bitmap.Get());
        for (int y = rect.top; y < rect.bottom; ++y) {
            accessor.SetToXY(rect.left, y);
            for (int x = rect.left; x < rect.right; ++x, accessor.Increment()) {
                picture.At(x, y) = colour == 0   ? PixelOf<Tuple>()
                                   : colour == 1 ? PlainPicture<Tuple>::GetFull()
                                                 : MakePixel<Tuple>(x, y, static_cast<std::uint32_t>(colour));
                accessor.Write(picture.At(x, y));
            }
        }
        bitmap->InvalidateMipmaps(rect);
    }

    static void Inflate(Kernel::Counted<BitmapType> const & bitmap, PlainPicture<Tuple> & picture, Step const & step) {
        if (picture.gridWidth > 2 * PlainPicture<Tuple>::tileWidth || picture.gridHeight > 2 * 256)
            return; // large enough
        Rect const amounts{step.numbers[0] % 2, step.numbers[1] % 2, step.numbers[2] % 200, step.numbers[3] % 300};
        bool const fillEmpty = step.numbers[0] % 3 != 0;
        bitmap->InflateByPixels(amounts, fillEmpty);
        picture.Inflate(amounts, fillEmpty);
    }

    /// Exact where garbage beyond the edges can't reach in; else at least around what is there.
    static void CheckBoxes(BitmapType const & bitmap, PlainPicture<Tuple> const & picture) {
        auto const data = bitmap.GetNonZeroBoundingBox(), inverse = bitmap.GetNonFullBoundingBox();
        auto const isSet = [](auto sample) { return !(sample == decltype(sample){}); };
        RC_ASSERT(data.Unite(picture.GetBox(isSet)) == data);
        RC_ASSERT(bitmap.GetBounds().Contains(data));
        RC_ASSERT(inverse == picture.GetBox([](auto sample) { return !PlainPicture<Tuple>::IsFull(sample); }));
    }

    /// Levels that followed every change are those that are built anew.
    static void CheckLevels(BitmapType const & bitmap) {
        bitmap.UpdateMipmaps(0, nullptr);
        Kernel::Counted<BitmapType> const fresh(bitmap.Clone());
        fresh->InvalidateMipmaps();
        fresh->UpdateMipmaps(0, nullptr);
        for (int level = 1;; ++level) {
            auto const followed = bitmap.GetMipmap(level);
            Kernel::Counted<BitmapType const> const built = fresh->GetMipmap(level);
            RC_ASSERT(bool(followed) == bool(built));
            if (!built)
                return;
            RC_ASSERT(ReadAll(*followed) == ReadAll(*built));
        }
    }

    static void CheckPixels(BitmapType const & bitmap, PlainPicture<Tuple> const & picture) {
        RC_ASSERT(bitmap.GetWidth() == picture.width);
        RC_ASSERT(bitmap.GetHeight() == picture.height);
        ModelConstAccessor<BitmapType, Safe, IdentityTransform> accessor(&bitmap);
        for (int y = 0; y < picture.height; ++y) {
            accessor.SetToXY(0, y);
            for (int x = 0; x < picture.width; ++x, accessor.Increment()) {
                PixelOf<Tuple> pixel;
                accessor.Read(pixel);
                if (!(pixel == picture.At(x, y)))
                    RC_FAIL("pixel " + std::to_string(x) + ", " + std::to_string(y));
            }
            if (y % 256 == 255)
                accessor.Reset(); // or the limit could not be kept
        }
    }

    std::vector<Kernel::Counted<BitmapType>> bitmaps;
    std::vector<PlainPicture<Tuple>> pictures;
};
}

template<class Tuple>
class BitmapModelTest : public StorageTest {};
using ModelTuples = testing::Types<IA8Tuple, A16Tuple, ChannelTuple<IntensityUF, AlphaF>,
                                   ChannelTuple<IntensityComplexUF, AlphaComplexUF>>; // samples of 1, 2, 4 and 8 bytes
TYPED_TEST_SUITE(BitmapModelTest, ModelTuples);

TYPED_TEST(BitmapModelTest, HoldsWhatAPlainArrayHoldsUnderASmallLimit) {
    MemoryManager::Instance().SetDRAMLimit(1);
    auto const planarBefore = MemoryManager::Instance().GetPlanarUsage();
    auto const diskBefore = MemoryManager::Instance().GetBackstoreUsage();
    EXPECT_TRUE(rc::check([] {
        auto const steps = *rc::gen::container<std::vector<Step>>(MakeStep());
        Machine<TypeParam> machine;
        for (auto const & step : steps)
            machine.Run(step);
        machine.CheckAll();
    }));
    EXPECT_GT(MemoryManager::Instance().GetBackstorePeakUsage(), 0u); // the limit was felt
    // The static tiles never leave memory, and nothing else remains.
    EXPECT_EQ(planarBefore, MemoryManager::Instance().GetPlanarUsage());
    EXPECT_EQ(diskBefore, MemoryManager::Instance().GetBackstoreUsage());
}
}
