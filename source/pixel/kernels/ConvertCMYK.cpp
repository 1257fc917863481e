#include "pixel/kernels/ConvertCMYK.h"

#include "pixel/ConversionRules.h"
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/kernels/ConvertCMYK.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include "pixel/kernels/ConversionRules-inl.h"

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
template<class Sample>
HWY_INLINE std::size_t Separate(std::uint8_t * const * inks, Sample const * const * rgb, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    auto const one = hn::Set(FloatTag(), 1.0f);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const cyan = hn::Sub(one, ClampUnit(LoadUnit(rgb[0] + i)));
        auto const magenta = hn::Sub(one, ClampUnit(LoadUnit(rgb[1] + i)));
        auto const yellow = hn::Sub(one, ClampUnit(LoadUnit(rgb[2] + i)));
        auto const black = hn::Min(hn::Min(cyan, magenta), yellow);
        auto const light = hn::Sub(one, black);
        auto const isLit = hn::Lt(black, one); // elsewhere the quotient is 0 / 0
        StoreUnit(hn::IfThenElseZero(isLit, hn::Div(hn::Sub(cyan, black), light)), inks[0] + i);
        StoreUnit(hn::IfThenElseZero(isLit, hn::Div(hn::Sub(magenta, black), light)), inks[1] + i);
        StoreUnit(hn::IfThenElseZero(isLit, hn::Div(hn::Sub(yellow, black), light)), inks[2] + i);
        StoreUnit(black, inks[3] + i);
    }
    return i;
}

template<class Sample>
HWY_INLINE std::size_t Unite(Sample * const * rgb, std::uint8_t const * const * inks, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    auto const one = hn::Set(FloatTag(), 1.0f);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const black = LoadUnit(inks[3] + i);
        auto const light = hn::Sub(one, black);
        for (int channel = 0; channel < 3; ++channel) {
            auto const ink = hn::Add(hn::Mul(LoadUnit(inks[channel] + i), light), black);
            StoreUnit(hn::Sub(one, hn::Min(ink, one)), rgb[channel] + i);
        }
    }
    return i;
}

template<class Sample>
HWY_INLINE void SeparateRest(std::uint8_t * const * inks, Sample const * const * rgb, std::size_t done,
                             std::size_t count,
                             void (*twin)(std::uint8_t * const *, Sample const * const *, std::size_t)) {
    std::uint8_t * const inksLeft[]{inks[0] + done, inks[1] + done, inks[2] + done, inks[3] + done};
    Sample const * const rgbLeft[]{rgb[0] + done, rgb[1] + done, rgb[2] + done};
    twin(inksLeft, rgbLeft, count - done);
}

template<class Sample>
HWY_INLINE void UniteRest(Sample * const * rgb, std::uint8_t const * const * inks, std::size_t done, std::size_t count,
                          void (*twin)(Sample * const *, std::uint8_t const * const *, std::size_t)) {
    Sample * const rgbLeft[]{rgb[0] + done, rgb[1] + done, rgb[2] + done};
    std::uint8_t const * const inksLeft[]{inks[0] + done, inks[1] + done, inks[2] + done, inks[3] + done};
    twin(rgbLeft, inksLeft, count - done);
}

void ConvertCMYKFrom8(std::uint8_t * const * inks, std::uint8_t const * const * rgb, std::size_t count) {
    SeparateRest(inks, rgb, Separate(inks, rgb, count), count, Scalar::ConvertCMYKFrom8);
}
void ConvertCMYKFromFloat(std::uint8_t * const * inks, float const * const * rgb, std::size_t count) {
    SeparateRest(inks, rgb, Separate(inks, rgb, count), count, Scalar::ConvertCMYKFromFloat);
}
void ConvertCMYKTo8(std::uint8_t * const * rgb, std::uint8_t const * const * inks, std::size_t count) {
    UniteRest(rgb, inks, Unite(rgb, inks, count), count, Scalar::ConvertCMYKTo8);
}
void ConvertCMYKToFloat(float * const * rgb, std::uint8_t const * const * inks, std::size_t count) {
    UniteRest(rgb, inks, Unite(rgb, inks, count), count, Scalar::ConvertCMYKToFloat);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
namespace {
template<class Sample>
void SeparateEach(std::uint8_t * const * inks, Sample const * const * rgb, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        auto const colour = Rules::ToCMYK(
            Rules::ClampUnit({Rules::ToUnit(rgb[0][i]), Rules::ToUnit(rgb[1][i]), Rules::ToUnit(rgb[2][i])}));
        inks[0][i] = colour.cyan;
        inks[1][i] = colour.magenta;
        inks[2][i] = colour.yellow;
        inks[3][i] = colour.black;
    }
}

template<class Sample>
void UniteEach(Sample * const * rgb, std::uint8_t const * const * inks, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        auto const colour = Rules::FromCMYK({inks[0][i], inks[1][i], inks[2][i], inks[3][i]});
        rgb[0][i] = Rules::FromUnit<Sample>(colour.red);
        rgb[1][i] = Rules::FromUnit<Sample>(colour.green);
        rgb[2][i] = Rules::FromUnit<Sample>(colour.blue);
    }
}
}

#define RASTER_DEFINE_CMYK(name, Dest, Source, body)                                                                   \
    void Scalar::name(Dest * const * dest, Source const * const * source, std::size_t count) {                         \
        body(dest, source, count);                                                                                     \
    }                                                                                                                  \
    HWY_EXPORT(name);                                                                                                  \
    void name(Dest * const * dest, Source const * const * source, std::size_t count) {                                 \
        HWY_DYNAMIC_DISPATCH(name)(dest, source, count);                                                               \
    }
RASTER_DEFINE_CMYK(ConvertCMYKFrom8, std::uint8_t, std::uint8_t, SeparateEach)
RASTER_DEFINE_CMYK(ConvertCMYKFromFloat, std::uint8_t, float, SeparateEach)
RASTER_DEFINE_CMYK(ConvertCMYKTo8, std::uint8_t, std::uint8_t, UniteEach)
RASTER_DEFINE_CMYK(ConvertCMYKToFloat, float, std::uint8_t, UniteEach)
#undef RASTER_DEFINE_CMYK
}
#endif
