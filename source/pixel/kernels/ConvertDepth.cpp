#include "pixel/kernels/ConvertDepth.h"

#include "pixel/ConversionRules.h"
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "pixel/kernels/ConvertDepth.cpp"
#include <hwy/foreach_target.h> // before highway.h
#include <hwy/highway.h>

#include "pixel/kernels/ConversionRules-inl.h"

HWY_BEFORE_NAMESPACE();
namespace Raster::HWY_NAMESPACE {
template<class Dest, class Source>
HWY_INLINE std::size_t ThroughFloat(Dest * dest, Source const * source, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreUnit(LoadUnit(source + i), dest + i);
    return i;
}

void ConvertDepth8ToFloat(float * dest, std::uint8_t const * source, std::size_t count) {
    auto const done = ThroughFloat(dest, source, count);
    Scalar::ConvertDepth8ToFloat(dest + done, source + done, count - done);
}

void ConvertDepth16ToFloat(float * dest, std::uint16_t const * source, std::size_t count) {
    auto const done = ThroughFloat(dest, source, count);
    Scalar::ConvertDepth16ToFloat(dest + done, source + done, count - done);
}

void ConvertDepthFloatTo8(std::uint8_t * dest, float const * source, std::size_t count) {
    auto const done = ThroughFloat(dest, source, count);
    Scalar::ConvertDepthFloatTo8(dest + done, source + done, count - done);
}

void ConvertDepthFloatTo16(std::uint16_t * dest, float const * source, std::size_t count) {
    auto const done = ThroughFloat(dest, source, count);
    Scalar::ConvertDepthFloatTo16(dest + done, source + done, count - done);
}

// For all 256 values the rule's result is v * 257: the byte twice.
void ConvertDepth8To16(std::uint16_t * dest, std::uint8_t const * source, std::size_t count) {
    hn::ScalableTag<std::uint16_t> const wide;
    hn::Rebind<std::uint8_t, decltype(wide)> const narrow;
    std::size_t const lanes = hn::Lanes(wide);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const value = hn::PromoteTo(wide, hn::LoadU(narrow, source + i));
        hn::StoreU(hn::Or(value, hn::ShiftLeft<8>(value)), wide, dest + i);
    }
    Scalar::ConvertDepth8To16(dest + i, source + i, count - i);
}

// For all 65536 values the rule's result is v / 257 to nearest, which is (t - t / 256) / 256 with t = v + 128. Where
// the sum saturates the result is 255 all the same.
void ConvertDepth16To8(std::uint8_t * dest, std::uint16_t const * source, std::size_t count) {
    hn::ScalableTag<std::uint16_t> const wide;
    hn::RebindToSigned<decltype(wide)> const wideSigned;
    hn::Rebind<std::uint8_t, decltype(wide)> const narrow;
    std::size_t const lanes = hn::Lanes(wide);
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        auto const t = hn::SaturatedAdd(hn::LoadU(wide, source + i), hn::Set(wide, 128));
        auto const value = hn::ShiftRight<8>(hn::Sub(t, hn::ShiftRight<8>(t)));
        hn::StoreU(hn::DemoteTo(narrow, hn::BitCast(wideSigned, value)), narrow, dest + i);
    }
    Scalar::ConvertDepth16To8(dest + i, source + i, count - i);
}

void ConvertDepthClamp(float * dest, float const * source, std::size_t count) {
    std::size_t const lanes = hn::Lanes(FloatTag());
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes)
        StoreUnit(ClampUnit(LoadUnit(source + i)), dest + i);
    Scalar::ConvertDepthClamp(dest + i, source + i, count - i);
}
}
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace Raster {
namespace {
template<class Dest, class Source>
void ConvertEach(Dest * dest, Source const * source, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ConvertSample<Dest>(source[i]);
}
}

#define RASTER_DEFINE_DEPTH(name, Dest, Source)                                                                        \
    void Scalar::name(Dest * dest, Source const * source, std::size_t count) { ConvertEach(dest, source, count); }     \
    HWY_EXPORT(name);                                                                                                  \
    void name(Dest * dest, Source const * source, std::size_t count) {                                                 \
        HWY_DYNAMIC_DISPATCH(name)(dest, source, count);                                                               \
    }
RASTER_DEFINE_DEPTH(ConvertDepth8ToFloat, float, std::uint8_t)
RASTER_DEFINE_DEPTH(ConvertDepth16ToFloat, float, std::uint16_t)
RASTER_DEFINE_DEPTH(ConvertDepthFloatTo8, std::uint8_t, float)
RASTER_DEFINE_DEPTH(ConvertDepthFloatTo16, std::uint16_t, float)
RASTER_DEFINE_DEPTH(ConvertDepth8To16, std::uint16_t, std::uint8_t)
RASTER_DEFINE_DEPTH(ConvertDepth16To8, std::uint8_t, std::uint16_t)
#undef RASTER_DEFINE_DEPTH

void Scalar::ConvertDepthClamp(float * dest, float const * source, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dest[i] = Rules::ClampUnit(source[i]);
}
HWY_EXPORT(ConvertDepthClamp);
void ConvertDepthClamp(float * dest, float const * source, std::size_t count) {
    HWY_DYNAMIC_DISPATCH(ConvertDepthClamp)(dest, source, count);
}
}
#endif
