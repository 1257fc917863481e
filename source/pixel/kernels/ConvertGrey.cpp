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

void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * red, std::uint8_t const * green,
                       std::uint8_t const * blue, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreBounded(Luminance(LoadUnit(red + i), LoadUnit(green + i), LoadUnit(blue + i)), dest + i);
    Scalar::ConvertGrey8From8(dest + i, red + i, green + i, blue + i, count - i);
}

void ConvertGrey8FromFloat(std::uint8_t * dest, float const * red, float const * green, float const * blue,
                           std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreUnit(
            Luminance(ClampUnit(LoadUnit(red + i)), ClampUnit(LoadUnit(green + i)), ClampUnit(LoadUnit(blue + i))),
            dest + i);
    Scalar::ConvertGrey8FromFloat(dest + i, red + i, green + i, blue + i, count - i);
}

void ConvertGrey16FromFloat(std::uint16_t * dest, float const * red, float const * green, float const * blue,
                            std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    auto const three = hn::Set(FloatTag(), 3.0f);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const redAndGreen = hn::Add(ClampUnit(LoadUnit(red + i)), ClampUnit(LoadUnit(green + i)));
        StoreUnit(hn::Div(hn::Add(redAndGreen, ClampUnit(LoadUnit(blue + i))), three), dest + i);
    }
    Scalar::ConvertGrey16FromFloat(dest + i, red + i, green + i, blue + i, count - i);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
void Scalar::ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * red, std::uint8_t const * green,
                               std::uint8_t const * blue, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey8({Rules::ToUnit(red[i]), Rules::ToUnit(green[i]), Rules::ToUnit(blue[i])});
}

void Scalar::ConvertGrey8FromFloat(std::uint8_t * dest, float const * red, float const * green, float const * blue,
                                   std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey8(Rules::ClampUnit({red[i], green[i], blue[i]}));
}

void Scalar::ConvertGrey16FromFloat(std::uint16_t * dest, float const * red, float const * green, float const * blue,
                                    std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ToGrey16(Rules::ClampUnit({red[i], green[i], blue[i]}));
}

HWY_EXPORT(ConvertGrey8From8);
void ConvertGrey8From8(std::uint8_t * dest, std::uint8_t const * red, std::uint8_t const * green,
                       std::uint8_t const * blue, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey8From8)(dest, red, green, blue, count);
}

HWY_EXPORT(ConvertGrey8FromFloat);
void ConvertGrey8FromFloat(std::uint8_t * dest, float const * red, float const * green, float const * blue,
                           std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey8FromFloat)(dest, red, green, blue, count);
}

HWY_EXPORT(ConvertGrey16FromFloat);
void ConvertGrey16FromFloat(std::uint16_t * dest, float const * red, float const * green, float const * blue,
                            std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertGrey16FromFloat)(dest, red, green, blue, count);
}
}
#endif
