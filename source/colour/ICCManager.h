#pragma once

#include "colour/ICCProfile.h"
#include "colour/TransformCache.h"
#include "kernel/Consolidated.h"
#include "kernel/CriticalSection.h"
#include "kernel/Path.h"
#include "pixel/Format.h"
#include "pixel/Vocabulary.h"

#include <map>
#include <optional>
#include <vector>

namespace Raster {
/// The colour profiles of the process by name, the default ones, and the transforms between them. There is one, which
/// lives as long as the process. Threads: any, for everything.
///
/// A profile that is null, damaged or of the wrong kind gives null, never an exception; exceptions of allocation pass
/// through. Why a profile was refused goes to the trace.
class RASTER_API ICCManager {
public:
    class ICCProfileSet;
    using Profile = Kernel::Consolidated<ICCProfile>;
    using Profiles = std::vector<Profile>;

    /// Bytes beyond this are refused before memory is taken for them.
    static constexpr std::uint64_t largestProfileBytes = 64u << 20;

    /// The first call makes the defaults and the transforms into and out of Lab, about 15 ms; others wait for it.
    static ICCManager & GetInstance();
    /// Without the defaults: for what takes part in making them.
    static ICCManager & GetInstanceInternal();
    static void CreateInstance() { GetInstance(); }
    /// Makes the defaults if they aren't made yet, as `GetInstance` does.
    void Init();

    ICCManager(ICCManager const &) = delete;
    ICCManager & operator=(ICCManager const &) = delete;

    /// Wraps a handle of the colour library as a standard profile, named by its description. Owns the handle from then
    /// on, also if it gives null.
    Profile CreateProfile(void * lcmsHandle);
    /// The profile in that file, under its description. If the registry has one of that name, that one: the file's own
    /// is dropped, and traced if its bytes differ. An RGB profile gets its linear companion beside it.
    /// @param asDefaultCMYK  makes the result the default for CMYK.
    Profile AddProfileFromDisk(Kernel::Path const & path, bool asDefaultCMYK);
    /// The same for bytes, which are copied. @param name  UTF-8, instead of the description; null to take that.
    Profile AddProfileFromMemory(void const * data, unsigned size, char const * name);
    /// Puts the profile under its name, in place of another one of that name. Consolidation calls this. Null: nothing.
    void Register(Profile profile);

    Profile GetProfileForString(Kernel::StringUtf8 const & name) const;
    /// By colour space from `ColourSpaceNone` to `ColourSpaceRGBUF`, then by name.
    Profiles GetAvailableProfiles() const;
    /// By name.
    Profiles GetAvailableProfilesFor(ColourSpace space) const;
    Profiles GetAvailableProfilesForFormat(Format format) const;
    static bool CanApplyProfileToFormat(Profile const & profile, Format format);
    /// sRGB, linear sRGB, grey of gamma 2.2, Lab; for CMYK whatever was made the default, null until then.
    Profile GetDefaultProfile(ColourSpace space) const;
    Profile GetDefaultProfileForFormat(Format format) const;

    /// The same primaries and white without a curve: the profile itself if it is linear, null unless it is RGB.
    Profile GetLinearRGBProfile(Profile const & profile) const;
    /// A linear RGB profile with a curve. @param gamma  the exponent, 0 for the curve of sRGB; null if not finite.
    Profile GetGammaCorrectedRGBProfile(Profile const & profile, double gamma) const;
    /// 1 for a linear profile, else 2.2, whatever its curve.
    static float GetGammaForProfile(Profile const & profile);

    /// Fills the bytes of a profile that has a handle, and what is derived from its curves. False leaves the bytes.
    static bool CreateProfileRawData(ICCProfile & profile);
    /// Makes handle, name and what is derived from the curves of a profile that has bytes. False leaves it no handle.
    static bool DeserialiseICCProfile(ICCProfile & profile);

    // Transforms. Those that the manager keeps are valid as long as it; equal requests give the same one.

    /// Null if none is needed, both sides being the same, if a profile is null, and if there can't be one, which is
    /// traced the first time. Creating costs milliseconds, finding next to nothing.
    void * GetTransformForProfiles(Format sourceFormat, Profile const & source, Format destinationFormat,
                                   Profile const & destination, Intent intent, bool blackPointCompensation);
    /// From `source` to itself, with the colours that `proof` can show; with `gamutCheck` the others become grey.
    void * GetProofingTransformForProfiles(Format format, Profile const & source, Profile const & proof, Intent intent,
                                           Intent proofingIntent, bool blackPointCompensation, bool gamutCheck);
    /// A transform of the caller's own, between handles of the colour library, with its numbers for types, intent and
    /// flags. Null if there can't be one. The handles must live until then, the profiles not longer.
    static void * CreateTransform(void * sourceProfile, unsigned sourceType, void * destinationProfile,
                                  unsigned destinationType, unsigned intent, unsigned flags);
    /// Only for what `CreateTransform` gave. Null: nothing.
    static void DeleteTransform(void * transform);

    /// Transforms interleaved pixels, aligned as their samples. The alpha in `out` is left as it is. `in` may be `out`
    /// if their pixels are equally large. The result doesn't depend on how pixels are grouped into calls. A null
    /// transform, or a count below 1: nothing.
    static void DoTransform(void * transform, unsigned char const * in, unsigned char * out, int pixelCount);
    /// Between the default Lab and sRGB; four samples a pixel, alpha left as it is.
    void DoLABA16ToRGBAFTransform(std::uint16_t const * in, float * out, int pixelCount) const;
    void DoRGBAFToLABA16Transform(float const * in, std::uint16_t * out, int pixelCount) const;

    /// The conversions between formats take their Lab from here, from the start; again after they were set otherwise.
    static void ConnectLabConversions();

    static std::uint32_t ICCIntentFromIntent(Intent intent) noexcept;
    /// 0 for formats that the colour library has no type for: alpha alone, none.
    static std::uint32_t ICCTypeFromFormat(Format format) noexcept;

    // The colour library's words for pixels: bytes a sample, channels, extra channels, colour space, order, float.
    static constexpr std::uint32_t _TYPE_RGBA_8() noexcept { return 0x40099; }
    static constexpr std::uint32_t _TYPE_RGBA_16() noexcept { return 0x4009A; }
    static constexpr std::uint32_t _TYPE_GRAYA_8() noexcept { return 0x30089; }
    static constexpr std::uint32_t _TYPE_GRAYA_16() noexcept { return 0x3008A; }
    static constexpr std::uint32_t _TYPE_CMYKA_8() noexcept { return 0x600A1; }
    static constexpr std::uint32_t _TYPE_LabA_16() noexcept { return 0xA009A; }
    static constexpr std::uint32_t _TYPE_RGBA_FLT() noexcept { return 0x44009C; }
    static constexpr std::uint32_t _TYPE_RGBA_HALF_FLT() noexcept { return 0x44009A; }
    static constexpr std::uint32_t _TYPE_BGRA_8() noexcept { return 0x44499; }

private:
    ICCManager();
    ~ICCManager() = delete; // its users may outlive every static

    struct Candidate;
    struct Lab;

    void MakeDefaults();
    void MakeLabTransforms(Profile const & lab, Profile const & sRGB);
    Profile AddProfile(Candidate candidate, bool asDefaultCMYK);
    static void TraceIfOther(Candidate const & candidate, ICCProfile const * made, ICCProfile const & registered);
    Profile FindRegistered(Kernel::StringUtf8 const & name) const;
    static Profile MakeRGBProfile(ICCProfile const & source, Kernel::StringUtf8 const & name, void * curve,
                                  double gamma, std::optional<bool> isLinear);

    mutable Kernel::CriticalSection registrySection{Kernel::LockRank::ProfileRegistry}; // guards down to cmykProfile
    std::map<Kernel::StringUtf8, Profile> profiles;
    Profile sRGBProfile, linearRGBProfile, labProfile, greyProfile, cmykProfile;

    Kernel::CriticalSectionSpin transformSection{Kernel::LockRank::Leaf};
    TransformCache transforms{transformSection};
    TransformCache proofingTransforms{transformSection};
    void * labToRGBTransform = nullptr; // these two belong to `transforms`, and never change once the defaults are made
    void * rgbToLabTransform = nullptr;
};
}
