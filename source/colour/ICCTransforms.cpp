#include "colour/ColourEngine.h"
#include "colour/ICCManager.h"
#include "kernel/Trace.h"
#include "pixel/LabSeam.h"

#include <lcms2.h>

#include <algorithm>
#include <limits>

namespace Raster {
namespace {
// Why a transform couldn't be made is one line of ours for each; the library's own stay out.
cmsContext GetContext() { return static_cast<cmsContext>(ColourEngine::GetContext(ColourEngine::Messages::Dropped)); }

bool CanReachEngine(TransformCache::Key const & key) {
    return key.source->GetHandle() && key.destination->GetHandle() && key.sourceType != 0 && key.destinationType != 0;
}

// The library's cache of one pixel is copied by each call that uses it, so threads may share these.
void * Create(TransformCache::Key const & key) noexcept {
    if (!CanReachEngine(key))
        return nullptr;
    return cmsCreateTransformTHR(GetContext(), key.source->GetHandle(), key.sourceType, key.destination->GetHandle(),
                                 key.destinationType, key.intent, key.flags);
}

void * CreateProofing(TransformCache::Key const & key) noexcept {
    if (!CanReachEngine(key))
        return nullptr;
    return cmsCreateProofingTransformTHR(GetContext(), key.source->GetHandle(), key.sourceType, key.source->GetHandle(),
                                         key.destinationType, key.destination->GetHandle(), key.intent,
                                         key.proofingIntent, key.flags);
}

void * GetOrCreate(TransformCache & cache, TransformCache::Key const & key, TransformCache::Create create,
                   char const * failure) {
    auto const result = cache.GetOrCreate(key, create);
    if (result.isNew && !result.transform)
        Kernel::Trace(failure, key.source->GetProfileName(), key.destination->GetProfileName());
    return result.transform;
}

constexpr char failure[] = "Colour engine failed to create transform between %1 and %2\r\n";
constexpr char proofingFailure[] = "Colour engine failed to create proofing transform between %1 and %2\r\n";

std::uint32_t GetFlags(bool blackPointCompensation) {
    return blackPointCompensation ? cmsFLAGS_BLACKPOINTCOMPENSATION : 0u;
}

/// Rows of any length, in calls of at most the largest int.
template<class In, class Out>
void TransformRow(void * transform, In const * in, Out * out, std::size_t pixelCount) {
    constexpr std::size_t samplesPerPixel = 4, largest = std::numeric_limits<int>::max();
    while (pixelCount != 0) {
        auto const count = std::min(pixelCount, largest);
        cmsDoTransform(transform, in, out, static_cast<cmsUInt32Number>(count));
        in += count * samplesPerPixel;
        out += count * samplesPerPixel;
        pixelCount -= count;
    }
}
}

/// What the conversions between formats call. They expect no exception: where the first call finds no memory for the
/// manager it does without it.
struct ICCManager::Lab {
    static void To(std::uint16_t * dest, float const * source, std::size_t pixelCount) noexcept {
        if (auto const * const manager = GetManager(); manager && manager->rgbToLabTransform)
            TransformRow(manager->rgbToLabTransform, source, dest, pixelCount);
        else
            GetPlainLabConversions().toLab(dest, source, pixelCount);
    }
    static void From(float * dest, std::uint16_t const * source, std::size_t pixelCount) noexcept {
        if (auto const * const manager = GetManager(); manager && manager->labToRGBTransform)
            TransformRow(manager->labToRGBTransform, source, dest, pixelCount);
        else
            GetPlainLabConversions().fromLab(dest, source, pixelCount);
    }

private:
    static ICCManager * GetManager() noexcept try { return &GetInstance(); } catch (std::exception const &) {
        return nullptr;
    }
};

void * ICCManager::GetTransformForProfiles(Format sourceFormat, Profile const & source, Format destinationFormat,
                                           Profile const & destination, Intent intent, bool blackPointCompensation) {
    if (!source || !destination || (sourceFormat == destinationFormat && source == destination))
        return nullptr;
    return GetOrCreate(transforms,
                       {.source = source.Get(),
                        .destination = destination.Get(),
                        .sourceType = ICCTypeFromFormat(sourceFormat),
                        .destinationType = ICCTypeFromFormat(destinationFormat),
                        .intent = ICCIntentFromIntent(intent),
                        .proofingIntent = 0,
                        .flags = GetFlags(blackPointCompensation)},
                       Create, failure);
}

void * ICCManager::GetProofingTransformForProfiles(Format format, Profile const & source, Profile const & proof,
                                                   Intent intent, Intent proofingIntent, bool blackPointCompensation,
                                                   bool gamutCheck) {
    if (!source || !proof || source == proof)
        return nullptr;
    auto const type = ICCTypeFromFormat(format);
    return GetOrCreate(
        proofingTransforms,
        {.source = source.Get(),
         .destination = proof.Get(),
         .sourceType = type,
         .destinationType = type,
         .intent = ICCIntentFromIntent(intent),
         .proofingIntent = ICCIntentFromIntent(proofingIntent),
         .flags = cmsFLAGS_SOFTPROOFING | GetFlags(blackPointCompensation) | (gamutCheck ? cmsFLAGS_GAMUTCHECK : 0u)},
        CreateProofing, proofingFailure);
}

void * ICCManager::CreateTransform(void * sourceProfile, unsigned sourceType, void * destinationProfile,
                                   unsigned destinationType, unsigned intent, unsigned flags) {
    if (!sourceProfile || !destinationProfile || sourceType == 0 || destinationType == 0)
        return nullptr;
    return cmsCreateTransformTHR(GetContext(), sourceProfile, sourceType, destinationProfile, destinationType, intent,
                                 flags);
}

void ICCManager::DeleteTransform(void * transform) {
    if (transform)
        cmsDeleteTransform(transform);
}

void ICCManager::DoTransform(void * transform, unsigned char const * in, unsigned char * out, int pixelCount) {
    if (transform && pixelCount > 0)
        cmsDoTransform(transform, in, out, static_cast<cmsUInt32Number>(pixelCount));
}

void ICCManager::MakeLabTransforms(Profile const & lab, Profile const & sRGB) {
    TransformCache::Key toRGB{.source = lab.Get(),
                              .destination = sRGB.Get(),
                              .sourceType = _TYPE_LabA_16(),
                              .destinationType = _TYPE_RGBA_FLT(),
                              .intent = ICCIntentFromIntent(Intent::RelativeColorimetric),
                              .proofingIntent = 0,
                              .flags = GetFlags(/*blackPointCompensation=*/true)};
    if (!lab || !sRGB)
        return;
    labToRGBTransform = GetOrCreate(transforms, toRGB, Create, failure);
    std::swap(toRGB.source, toRGB.destination);
    std::swap(toRGB.sourceType, toRGB.destinationType);
    rgbToLabTransform = GetOrCreate(transforms, toRGB, Create, failure);
}

void ICCManager::DoLABA16ToRGBAFTransform(std::uint16_t const * in, float * out, int pixelCount) const {
    if (labToRGBTransform && pixelCount > 0)
        cmsDoTransform(labToRGBTransform, in, out, static_cast<cmsUInt32Number>(pixelCount));
}

void ICCManager::DoRGBAFToLABA16Transform(float const * in, std::uint16_t * out, int pixelCount) const {
    if (rgbToLabTransform && pixelCount > 0)
        cmsDoTransform(rgbToLabTransform, in, out, static_cast<cmsUInt32Number>(pixelCount));
}

std::uint32_t ICCManager::ICCIntentFromIntent(Intent intent) noexcept {
    auto const value = static_cast<std::uint32_t>(intent);
    return value < intentCount ? value : 0;
}

std::uint32_t ICCManager::ICCTypeFromFormat(Format format) noexcept {
    switch (format) {
    case RGBA8:
        return _TYPE_RGBA_8();
    case RGBA16:
        return _TYPE_RGBA_16();
    case IA8:
        return _TYPE_GRAYA_8();
    case IA16:
        return _TYPE_GRAYA_16();
    case CMYKA8:
        return _TYPE_CMYKA_8();
    case LABA16:
        return _TYPE_LabA_16();
    case RGBAUF:
        return _TYPE_RGBA_FLT();
    case A8:
    case A16:
    case AF:
    case NoFormat:
        break;
    }
    return 0;
}

void ICCManager::ConnectLabConversions() { SetLabConversions({Lab::To, Lab::From}); }
}

// Lab is connected when the library is loaded. Nothing refers to this file from below, so a static library would leave
// it out: who links that one names this symbol to the linker.
extern "C" {
extern bool rasterLabIsConnected;
bool rasterLabIsConnected = (Raster::ICCManager::ConnectLabConversions(), true);
}
