/// Random walks of every accessor over plain and tiled models, beside a plain array.
#include "pixel/Buffer.h"
#include "pixel/TestModels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace Raster {
namespace {
#ifdef RASTER_SANITIZED
constexpr int stepsPerWalk = 40;
#else
constexpr int stepsPerWalk = 250;
#endif
constexpr int sizes[] = {1, 31, 32, 33, 63, 64, 65, 255, 256, 257};

/// The slow twin: one pixel, straight from the definitions.
template<class Extend, class Transform>
struct Twin {
    static double Map(double centre, double translate, double scale) {
        if constexpr (std::is_same_v<Transform, TranslateTransform>)
            return centre + translate;
        else if constexpr (std::is_same_v<Transform, TranslateScaleTransform>)
            return (centre + translate) * scale;
        else
            return centre * scale;
    }
    /// @return false for a pixel that reads as zeros.
    static bool Locate(std::int64_t position, double translate, double scale, int size, int & pixel) {
        bool outside;
        double value;
        if constexpr (std::is_same_v<Transform, IdentityTransform>) {
            value = static_cast<double>(position);
            outside = position < 0 || position >= size;
        } else {
            value = Map(static_cast<double>(position) + 0.5, translate, scale);
            double const tested = std::is_same_v<Extend, Safe> ? std::trunc(value) : value;
            outside = tested < 0 || tested >= size;
        }
        if (std::is_same_v<Extend, Repeat>)
            pixel = value < 0 ? 0 : value >= size ? size - 1 : static_cast<int>(value);
        else if (!outside)
            pixel = static_cast<int>(value);
        return std::is_same_v<Extend, Repeat> || !outside;
    }
};

struct Shift {
    double tx = 0, ty = 0, sx = 1, sy = 1;
};

template<class Transform>
typename Transform::Params ParamsOf(Shift const & shift) {
    typename Transform::Params params;
    if constexpr (requires { params.tx; }) {
        params.tx = shift.tx;
        params.ty = shift.ty;
    }
    if constexpr (requires { params.sx; }) {
        params.sx = shift.sx;
        params.sy = shift.sy;
    }
    return params;
}

/// A position and pixels in an array, walked in step with an accessor.
template<class Model, class Extend, class Transform>
class Walk {
public:
    using PixelType = typename Model::PixelType;

    Walk(int givenWidth, int givenHeight, unsigned seed)
        : width(givenWidth), height(givenHeight), random(seed), model(MakeModel()), array(ReadAll()) {}

    void Run() {
        if constexpr (std::is_same_v<Transform, IdentityTransform> && std::is_same_v<Extend, Zero>) {
            typename Model::template PixelAccessor<AllChannels> writer(&model);
            for (int i = 0; i < stepsPerWalk && !testing::Test::HasFatalFailure(); ++i) {
                Step(writer);
                Write(writer);
                Check(writer);
            }
            writer.Reset();
            ASSERT_EQ(array, ReadAll());
        }
        shift = {Between(-3000, 3000) / 64.0, Between(-3000, 3000) / 64.0, Between(1, 400) / 100.0,
                 Between(1, 400) / 100.0};
        auto const params = ParamsOf<Transform>(shift);
        typename Model::template ConstPixelAccessor<Extend, Transform> reader(&model, &params, nullptr, false);
        CheckSafeRect(reader);
        x = y = 0;
        for (int i = 0; i < stepsPerWalk && !testing::Test::HasFatalFailure(); ++i) {
            Step(reader);
            Check(reader);
        }
    }

private:
    Model MakeModel() { return Model(width, height); }

    int Between(int low, int high) { return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1)); }

    std::vector<PixelType> ReadAll() {
        std::vector<PixelType> all(std::size_t(width) * std::size_t(height));
        typename Model::template PixelAccessor<AllChannels> accessor(&model);
        for (int row = 0; row < height; ++row) {
            accessor.SetToXY(0, row);
            for (int column = 0; column < width; ++column, accessor.Increment())
                accessor.Read(all[std::size_t(row) * std::size_t(width) + std::size_t(column)]);
        }
        return all;
    }

    PixelType Expected(std::int64_t dx, std::int64_t dy) const {
        int column = 0, row = 0;
        bool const found = Twin<Extend, Transform>::Locate(x + dx, shift.tx, shift.sx, width, column) &
                           Twin<Extend, Transform>::Locate(y + dy, shift.ty, shift.sy, height, row);
        return found ? array[std::size_t(row) * std::size_t(width) + std::size_t(column)] : PixelType{};
    }

    template<class Accessor>
    void Step(Accessor & accessor) {
        int const n = Between(-80, 80);
        switch (random() % 16) {
        case 0:
        case 1:
        case 2:
            ++x, accessor.Increment();
            break;
        case 3:
        case 4:
            --x, accessor.Decrement();
            break;
        case 5:
        case 6:
            ++y, accessor.IncrementRow();
            break;
        case 7:
        case 8:
            --y, accessor.DecrementRow();
            break;
        case 9:
            x += n, accessor.Advance(n);
            break;
        case 10:
            x -= n, accessor.Rewind(n);
            break;
        case 11:
            y += n, accessor.AdvanceRow(n);
            break;
        case 12:
            y -= n, accessor.RewindRow(n);
            break;
        case 13:
            accessor.Reset();
            break;
        case 14: {
            constexpr int far[] = {std::numeric_limits<int>::min(), -100000, 100000, std::numeric_limits<int>::max()};
            if (random() % 8 == 0)
                SetTo(accessor, far[random() % 4], far[random() % 4]);
            break;
        }
        default:
            SetTo(accessor, Between(-40, width + 40), Between(-40, height + 40));
        }
    }

    template<class Accessor>
    void SetTo(Accessor & accessor, int newX, int newY) {
        x = newX;
        y = newY;
        accessor.SetToXY(newX, newY);
    }

    template<class Accessor>
    void Check(Accessor & accessor) {
        PixelType pixel;
        switch (random() % 8) {
        case 0:
            CheckSpan(accessor, false, false);
            break;
        case 1:
            CheckSpan(accessor, false, true);
            break;
        case 2:
            CheckSpan(accessor, true, false);
            break;
        case 3:
            CheckSpan(accessor, true, true);
            break;
        default:
            accessor.Read(pixel);
            ASSERT_EQ(Expected(0, 0), pixel) << Where();
            typename Model::FloatPixelType floats;
            accessor.ReadFloat(floats);
            ASSERT_EQ(SampleToFloat(pixel.channels[0]), floats.channels[0]) << Where();
        }
    }

    template<class Accessor>
    void CheckSpan(Accessor & accessor, bool column, bool planar) {
        typename Model::InterleavedSpan span;
        if (planar) {
            typename Model::PlanarSpan planes;
            column ? accessor.SpanReadColumn(planes) : accessor.SpanRead(planes);
            Interleave(planes, span);
        } else
            column ? accessor.SpanReadColumn(span) : accessor.SpanRead(span);
        for (int i = 0; i < spanLength; ++i)
            ASSERT_EQ(Expected(column ? 0 : i, column ? i : 0), span.pixels[i]) << Where() << " + " << i;
        (column ? y : x) += spanLength - 1;
    }

    template<class Accessor>
    void Write(Accessor & accessor) {
        bool const column = random() % 2, planar = random() % 2;
        if (random() % 4) {
            auto const pixel = RandomPixel<PixelType>(random);
            accessor.Write(pixel);
            Store(x, y, pixel);
            return;
        }
        typename Model::InterleavedSpan span;
        for (int i = 0; i < spanLength; ++i) {
            span.pixels[i] = RandomPixel<PixelType>(random);
            Store(column ? x : x + i, column ? y + i : y, span.pixels[i]);
        }
        if (planar) {
            typename Model::PlanarSpan planes;
            Deinterleave(span, planes);
            column ? accessor.SpanWriteColumn(planes) : accessor.SpanWrite(planes);
        } else
            column ? accessor.SpanWriteColumn(span) : accessor.SpanWrite(span);
        (column ? y : x) += spanLength - 1;
    }

    void Store(std::int64_t column, std::int64_t row, PixelType const & pixel) {
        if (column >= 0 && row >= 0 && column < width && row < height)
            array[std::size_t(row) * std::size_t(width) + std::size_t(column)] = pixel;
    }

    /// Within the safe rectangle every policy reads the same pixels; just outside a `Zero` reader gets zeros.
    template<class Accessor>
    void CheckSafeRect(Accessor & accessor) {
        auto const rect = accessor.GetSafeRect();
        int pixel = 0;
        auto const inside = [&](std::int64_t px, std::int64_t py) {
            return Twin<Zero, Transform>::Locate(px, shift.tx, shift.sx, width, pixel) &&
                   Twin<Zero, Transform>::Locate(py, shift.ty, shift.sy, height, pixel);
        };
        if (rect.IsEmpty()) // a large scale can skip a small model
            return;
        EXPECT_TRUE(inside(rect.left, rect.top));
        EXPECT_TRUE(inside(rect.right - 1, rect.bottom - 1));
        EXPECT_FALSE(inside(rect.left - 1, rect.top));
        EXPECT_FALSE(inside(rect.left, rect.top - 1));
        EXPECT_FALSE(inside(rect.right, rect.top));
        EXPECT_FALSE(inside(rect.left, rect.bottom));
    }

    std::string Where() const {
        return std::to_string(width) + " by " + std::to_string(height) + " at " + std::to_string(x) + ", " +
               std::to_string(y);
    }

    int width, height;
    std::mt19937 random;
    Model model;
    std::vector<PixelType> array;
    std::int64_t x = 0, y = 0;
    Shift shift;
};

/// A buffer that a walk can make from a size alone; cleared, so that the array starts equal.
template<class C1, class C2, class C3, class C4, class C5>
class ClearBuffer : public Buffer<C1, C2, C3, C4, C5> {
public:
    ClearBuffer(int width, int height) : Buffer<C1, C2, C3, C4, C5>(width, height, nullptr) { this->Clear(); }
};

template<class Model>
void WalkAll() {
    unsigned seed = 1;
    for (int width : sizes)
        for (int height : sizes) {
#define RASTER_WALK(Extend, Transform, ...) Walk<Model, Extend, Transform>(width, height, ++seed).Run();
            RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_WALK, )
#undef RASTER_WALK
            if (testing::Test::HasFatalFailure())
                return;
        }
}
}

TEST(AccessorWalk, PlainModelEqualsArray) { WalkAll<RGBA8Tuple::Apply<ClearBuffer>>(); }
TEST(AccessorWalk, PlainModelOfFloatsEqualsArray) { WalkAll<RGBAUFTuple::Apply<ClearBuffer>>(); }
TEST(AccessorWalk, PlainModelOfFiveChannelsEqualsArray) { WalkAll<CMYKA8Tuple::Apply<ClearBuffer>>(); }
TEST(AccessorWalk, TiledModelEqualsArray) { WalkAll<RGBA8Tuple::Apply<TiledTestModel>>(); }
TEST(AccessorWalk, TiledModelOfOneDeepChannelEqualsArray) { WalkAll<A16Tuple::Apply<TiledTestModel>>(); }
}
