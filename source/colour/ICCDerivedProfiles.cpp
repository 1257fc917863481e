// Linear RGB profiles, and profiles with a curve made from linear ones.
#include "colour/ColourEngine.h"
#include "colour/ICCManager.h"
#include "colour/ProfileBytes.h"
#include "kernel/AppendFormat.h"
#include "kernel/ConvertEnc.h"

#include <lcms2.h>

#include <cmath>

namespace Raster {
namespace {
struct FreeCurve {
    void operator()(cmsToneCurve * curve) const noexcept { cmsFreeToneCurve(curve); }
};
using Curve = std::unique_ptr<cmsToneCurve, FreeCurve>;

struct FreeText {
    void operator()(cmsMLU * text) const noexcept { cmsMLUfree(text); }
};

struct Primaries {
    cmsCIExyY white;
    cmsCIExyYTRIPLE colours;
};

/// A tag of a damaged file may hold any numbers; those that name no chromaticity give nothing.
std::optional<cmsCIExyY> ReadChromaticity(void * handle, cmsTagSignature tag) {
    auto const * const xyz = static_cast<cmsCIEXYZ const *>(cmsReadTag(handle, tag));
    if (!xyz || !std::isnormal(xyz->X + xyz->Y + xyz->Z))
        return std::nullopt;
    cmsCIExyY result;
    cmsXYZ2xyY(&result, xyz);
    return result;
}

std::optional<Primaries> ReadPrimaries(void * handle) {
    auto const white = ReadChromaticity(handle, cmsSigMediaWhitePointTag);
    auto const red = ReadChromaticity(handle, cmsSigRedColorantTag);
    auto const green = ReadChromaticity(handle, cmsSigGreenColorantTag);
    auto const blue = ReadChromaticity(handle, cmsSigBlueColorantTag);
    if (!white || !red || !green || !blue)
        return std::nullopt;
    return Primaries{*white, {*red, *green, *blue}};
}

bool WriteDescription(void * handle, Kernel::StringUtf8 const & description) {
    auto const context = cmsGetProfileContextID(handle);
    std::unique_ptr<cmsMLU, FreeText> const text(cmsMLUalloc(context, 1));
    auto const units = Kernel::ConvertEnc<Kernel::TEncUtf16>(description);
    std::wstring const wide(units.GetView().begin(), units.GetView().end()); // one UTF-16 unit in each
    return text && cmsMLUsetWide(text.get(), "en", "US", wide.c_str()) &&
           cmsWriteTag(handle, cmsSigProfileDescriptionTag, text.get());
}

bool IsRGB(ICCProfile const & profile) {
    auto const space = profile.GetColourSpace();
    return space == ColourSpaceRGB || space == ColourSpaceRGBUF;
}

cmsContext GetContext() { return static_cast<cmsContext>(ColourEngine::GetContext(ColourEngine::Messages::Traced)); }

// f(x) = ((x + 0.055) / 1.055)^2.4 above 0.04045, x / 12.92 below
Curve BuildSRGBCurve() {
    double const parameters[] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
    return Curve(cmsBuildParametricToneCurve(GetContext(), 4, parameters));
}
}

/// @param curve  the same for all three channels. @param gamma, isLinear  stand whatever the curve looks like; a
///               missing `isLinear` is as found.
ICCManager::Profile ICCManager::MakeRGBProfile(ICCProfile const & source, Kernel::StringUtf8 const & name, void * curve,
                                               double gamma, std::optional<bool> isLinear) {
    auto const primaries = ReadPrimaries(source.handle);
    if (!primaries || !curve)
        return {};
    auto * const channelCurve = static_cast<cmsToneCurve *>(curve);
    cmsToneCurve * curves[] = {channelCurve, channelCurve, channelCurve};
    ColourEngine::ProfileHandle handle(
        cmsCreateRGBProfileTHR(GetContext(), &primaries->white, &primaries->colours, curves));
    if (!handle || !WriteDescription(handle.get(), name))
        return {};
    Kernel::Counted<ICCProfile> const profile(new ICCProfile);
    profile->handle = handle.release();
    profile->name = name;
    if (!CreateProfileRawData(*profile))
        return {};
    ProfileBytes::ForgetTime({profile->rawData.get(), profile->rawDataSize});
    profile->gamma = gamma;
    profile->isLinear = isLinear.value_or(profile->isLinear);
    return Profile::ConsolidateObjectSacrifice(profile);
}

ICCManager::Profile ICCManager::GetLinearRGBProfile(Profile const & profile) const {
    if (!profile || profile->IsLinear())
        return profile;
    if (!IsRGB(*profile))
        return {};
    Curve const straight(cmsBuildGamma(GetContext(), 1.0));
    auto const name = profile->GetProfileName() + " (Linear)";
    return MakeRGBProfile(*profile, name, straight.get(), /*gamma=*/1.0, /*isLinear=*/std::nullopt);
}

ICCManager::Profile ICCManager::GetGammaCorrectedRGBProfile(Profile const & profile, double gamma) const {
    if (!profile || !profile->IsLinear() || !IsRGB(*profile) || !std::isfinite(gamma))
        return {};
    bool const hasExponent = std::abs(gamma) > 1e-6;
    Curve const curve = hasExponent ? Curve(cmsBuildGamma(GetContext(), gamma)) : BuildSRGBCurve();
    double const shown = hasExponent ? gamma : 2.2; // what the sRGB curve comes closest to
    auto const name = profile->GetProfileName() + Kernel::FormatString(" (gamma %1)", shown);
    return MakeRGBProfile(*profile, name, curve.get(), shown, /*isLinear=*/false);
}

float ICCManager::GetGammaForProfile(Profile const & profile) { return profile && profile->IsLinear() ? 1.0f : 2.2f; }
}
