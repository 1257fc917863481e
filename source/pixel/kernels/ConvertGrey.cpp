#include "pixel/kernels/ConvertGrey.h"

#include "pixel/ConversionRules.h"
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/kernels/ConvertGrey.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include "pixel/kernels/ConversionRules-inl.h"

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
HWY_INLINE Floats Luminance(Floats red, Floats green, Floats blue) {
    FloatTag const tag;
    auto const greenAndRed =
        hn::Add(hn::Mul(green, hn::Set(tag, Rules::greenWeight)), hn::Mul(red, hn::Set(tag, Rules::redWeight)));
    return hn::Add(greenAndRed, hn::Mul(blue, hn::Set(tag, Rules::blueWeight)));
}

void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * const * rgb, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreBounded(Luminance(LoadUnit(rgb[0] + i), LoadUnit(rgb[1] + i), LoadUnit(rgb[2] + i)), dest + i);
    std::uint8_t const * const rest[]{rgb[0] + i, rgb[1] + i, rgb[2] + i};
    Scalar::ConvertGrey8From8(dest + i, rest, count - i);
}

void ConvertGrey8FromFloat(std::uint8_t * dest, float const * const * rgb, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreUnit(Luminance(ClampUnit(LoadUnit(rgb[0] + i)), ClampUnit(LoadUnit(rgb[1] + i)),
                            ClampUnit(LoadUnit(rgb[2] + i))),
                  dest + i);
    float const * const rest[]{rgb[0] + i, rgb[1] + i, rgb[2] + i};
    Scalar::ConvertGrey8FromFloat(dest + i, rest, count - i);
}

void ConvertGrey16FromFloat(std::uint16_t * dest, float const * const * rgb, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    auto const three = hn::Set(FloatTag(), 3.0f);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const redAndGreen = hn::Add(ClampUnit(LoadUnit(rgb[0] + i)), ClampUnit(LoadUnit(rgb[1] + i)));
        StoreUnit(hn::Div(hn::Add(redAndGreen, ClampUnit(LoadUnit(rgb[2] + i))), three), dest + i);
    }
    float const * const rest[]{rgb[0] + i, rgb[1] + i, rgb[2] + i};
    Scalar::ConvertGrey16FromFloat(dest + i, rest, count - i);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
void Scalar::ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * const * rgb, std::size_t count) {
    auto const *red = rgb[0], *green = rgb[1], *blue = rgb[2];
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey8({Rules::ToUnit(red[i]), Rules::ToUnit(green[i]), Rules::ToUnit(blue[i])});
}

void Scalar::ConvertGrey8FromFloat(std::uint8_t * dest, float const * const * rgb, std::size_t count) {
    auto const *red = rgb[0], *green = rgb[1], *blue = rgb[2];
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey8(Rules::ClampUnit({red[i], green[i], blue[i]}));
}

void Scalar::ConvertGrey16FromFloat(std::uint16_t * dest, float const * const * rgb, std::size_t count) {
    auto const *red = rgb[0], *green = rgb[1], *blue = rgb[2];
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey16(Rules::ClampUnit({red[i], green[i], blue[i]}));
}

HWY_EXPORT(ConvertGrey8From8);
void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * const * rgb, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey8From8)(dest, rgb, count);
}

HWY_EXPORT(ConvertGrey8FromFloat);
void ConvertGrey8FromFloat(std::uint8_t * dest, float const * const * rgb, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey8FromFloat)(dest, rgb, count);
}

HWY_EXPORT(ConvertGrey16FromFloat);
void ConvertGrey16FromFloat(std::uint16_t * dest, float const * const * rgb, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey16FromFloat)(dest, rgb, count);
}
}
#endif
