#include "colour/ICCManager.h"

#include "colour/ColourEngine.h"
#include "kernel/ScopedLock.h"
#include "pixel/FormatFunctions.h"

#include <lcms2.h>

namespace Raster {
ICCManager::ICCManager() = default;

ICCManager & ICCManager::GetInstanceInternal() {
    static auto & instance = *new ICCManager;
    return instance;
}

ICCManager & ICCManager::GetInstance() {
    auto & instance = GetInstanceInternal();
    instance.Init();
    return instance;
}

void ICCManager::Init() {
    static bool const isMade = (MakeDefaults(), true);
    static_cast<void>(isMade);
}

namespace {
constexpr double defaultGreyGamma = 2.2;

cmsHPROFILE CreateGrey(cmsContext context) {
    cmsToneCurve * const curve = cmsBuildGamma(context, defaultGreyGamma);
    if (!curve)
        return nullptr;
    cmsHPROFILE const result = cmsCreateGrayProfileTHR(context, cmsD50_xyY(), curve);
    cmsFreeToneCurve(curve);
    return result;
}
}

// Before the end of this nobody else gets the manager but through consolidation, which only registers.
void ICCManager::MakeDefaults() {
    auto const context = static_cast<cmsContext>(ColourEngine::GetContext(ColourEngine::Messages::Traced));
    auto const sRGB = CreateProfile(cmsCreate_sRGBProfileTHR(context));
    auto const linear = GetLinearRGBProfile(sRGB);
    auto const lab = CreateProfile(cmsCreateLab2ProfileTHR(context, nullptr));
    auto const grey = CreateProfile(CreateGrey(context));
    {
        Kernel::ScopedLock const guard(registrySection);
        sRGBProfile = sRGB;
        linearRGBProfile = linear;
        labProfile = lab;
        greyProfile = grey;
    }
    MakeLabTransforms(lab, sRGB);
}

ICCManager::Profile ICCManager::GetDefaultProfile(ColourSpace space) const {
    Kernel::ScopedLock const guard(registrySection);
    switch (space) {
    case ColourSpaceGrey:
        return greyProfile;
    case ColourSpaceRGB:
        return sRGBProfile;
    case ColourSpaceCMYK:
        return cmykProfile;
    case ColourSpaceLAB:
        return labProfile;
    case ColourSpaceRGBUF:
        return linearRGBProfile;
    case ColourSpaceNone:
        break;
    }
    return {};
}

ICCManager::Profile ICCManager::GetDefaultProfileForFormat(Format format) const {
    return GetDefaultProfile(GetColourSpace(format));
}

bool ICCManager::CanApplyProfileToFormat(Profile const & profile, Format format) {
    return profile && profile->CanApplyTo(format);
}
}
