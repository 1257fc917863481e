/// Profiles made by the colour library itself, for tests and benchmarks.
#pragma once

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace SyntheticProfiles {
using Bytes = std::vector<std::uint8_t>;

/// The bytes of a profile, which is closed.
inline Bytes Take(cmsHPROFILE profile) {
    cmsUInt32Number size = 0;
    if (!profile || !cmsSaveProfileToMem(profile, nullptr, &size))
        throw std::runtime_error("the colour library made no profile");
    Bytes bytes(size);
    cmsSaveProfileToMem(profile, bytes.data(), &size);
    cmsCloseProfile(profile);
    return bytes;
}

inline void Describe(cmsHPROFILE profile, std::string const & name) {
    cmsMLU * const text = cmsMLUalloc(nullptr, 1);
    cmsMLUsetASCII(text, "en", "US", name.c_str());
    cmsWriteTag(profile, cmsSigProfileDescriptionTag, text);
    cmsMLUfree(text);
}

enum class Primaries { Rec709, Wide };

/// An exponent for each channel. Wide primaries reach far beyond any display.
inline cmsHPROFILE CreateRGB(std::string const & name, double red, double green, double blue,
                             Primaries kind = Primaries::Rec709) {
    cmsCIExyY const white{0.3127, 0.3290, 1};
    cmsCIExyYTRIPLE const rec709{{0.64, 0.33, 1}, {0.30, 0.60, 1}, {0.15, 0.06, 1}};
    cmsCIExyYTRIPLE const wide{{0.73, 0.265, 1}, {0.12, 0.83, 1}, {0.12, 0.02, 1}};
    cmsCIExyYTRIPLE const & primaries = kind == Primaries::Wide ? wide : rec709;
    cmsToneCurve * curves[] = {cmsBuildGamma(nullptr, red), cmsBuildGamma(nullptr, green),
                               cmsBuildGamma(nullptr, blue)};
    cmsHPROFILE const result = cmsCreateRGBProfile(&white, &primaries, curves);
    cmsFreeToneCurveTriple(curves);
    Describe(result, name);
    return result;
}

inline cmsHPROFILE CreateGrey(std::string const & name, double gamma) {
    cmsToneCurve * const curve = cmsBuildGamma(nullptr, gamma);
    cmsHPROFILE const result = cmsCreateGrayProfile(cmsD50_xyY(), curve);
    cmsFreeToneCurve(curve);
    Describe(result, name);
    return result;
}

/// A header and a description, no colours.
inline cmsHPROFILE CreateEmpty(std::string const & name, cmsColorSpaceSignature space,
                               cmsProfileClassSignature kind = cmsSigDisplayClass) {
    cmsHPROFILE const result = cmsCreateProfilePlaceholder(nullptr);
    cmsSetProfileVersion(result, 4.3);
    cmsSetDeviceClass(result, kind);
    cmsSetColorSpace(result, space);
    cmsSetPCS(result, cmsSigXYZData);
    Describe(result, name);
    return result;
}

namespace Internal {
/// What the samplers of the press carry: sRGB to Lab, or back, in 16 bits.
inline cmsHTRANSFORM CreateLabTransform(bool toLab) {
    cmsHPROFILE const sRGB = cmsCreate_sRGBProfile(), lab = cmsCreateLab4Profile(nullptr);
    cmsHTRANSFORM const result =
        toLab ? cmsCreateTransform(sRGB, TYPE_RGB_16, lab, TYPE_Lab_16, INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE)
              : cmsCreateTransform(lab, TYPE_Lab_16, sRGB, TYPE_RGB_16, INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE);
    cmsCloseProfile(sRGB);
    cmsCloseProfile(lab);
    return result;
}

// Inks that print a little weaker than they should, so that the press has a gamut of its own.
constexpr double inkStrength = 0.75;

inline cmsInt32Number InksToLab(cmsUInt16Number const in[], cmsUInt16Number out[], void * transform) {
    cmsUInt16Number rgb[3];
    for (int i = 0; i < 3; ++i)
        rgb[i] = static_cast<cmsUInt16Number>(
            65535 * (1 - inkStrength * in[i] / 65535) * (1 - inkStrength * in[3] / 65535) + 0.5);
    cmsDoTransform(transform, rgb, out, 1);
    return 1;
}

inline cmsInt32Number LabToInks(cmsUInt16Number const in[], cmsUInt16Number out[], void * transform) {
    cmsUInt16Number rgb[3];
    cmsDoTransform(transform, in, rgb, 1);
    double const lightest = std::max({rgb[0], rgb[1], rgb[2]}) / 65535.0;
    double const black = std::min(1.0, (1 - lightest) / inkStrength), paper = 1 - inkStrength * black;
    for (int i = 0; i < 3; ++i)
        out[i] = static_cast<cmsUInt16Number>(
            65535 * std::clamp((1 - rgb[i] / 65535.0 / paper) / inkStrength, 0.0, 1.0) + 0.5);
    out[3] = static_cast<cmsUInt16Number>(65535 * black + 0.5);
    return 1;
}

inline void WriteTable(cmsHPROFILE profile, cmsTagSignature tag, cmsUInt32Number inputs, cmsUInt32Number outputs,
                       cmsUInt32Number steps, cmsSAMPLER16 sampler) {
    cmsHTRANSFORM const transform = CreateLabTransform(/*toLab=*/inputs == 4);
    cmsPipeline * const pipeline = cmsPipelineAlloc(nullptr, inputs, outputs);
    cmsStage * const table = cmsStageAllocCLut16bit(nullptr, steps, inputs, outputs, nullptr);
    cmsStageSampleCLut16bit(table, sampler, transform, 0);
    cmsPipelineInsertStage(pipeline, cmsAT_BEGIN, cmsStageAllocToneCurves(nullptr, inputs, nullptr));
    cmsPipelineInsertStage(pipeline, cmsAT_END, table);
    cmsPipelineInsertStage(pipeline, cmsAT_END, cmsStageAllocToneCurves(nullptr, outputs, nullptr));
    cmsWriteTag(profile, tag, pipeline);
    cmsPipelineFree(pipeline);
    cmsDeleteTransform(transform);
}
}

/// A printing press of four inks.
inline cmsHPROFILE CreateCMYK(std::string const & name) {
    cmsHPROFILE const result = CreateEmpty(name, cmsSigCmykData, cmsSigOutputClass);
    cmsSetPCS(result, cmsSigLabData);
    cmsWriteTag(result, cmsSigMediaWhitePointTag, cmsD50_XYZ());
    Internal::WriteTable(result, cmsSigAToB0Tag, 4, 3, 9, Internal::InksToLab);
    Internal::WriteTable(result, cmsSigBToA0Tag, 3, 4, 17, Internal::LabToInks);
    return result;
}
}
