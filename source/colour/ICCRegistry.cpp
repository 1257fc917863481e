#include "colour/ColourEngine.h"
#include "colour/ICCManager.h"
#include "colour/ProfileBytes.h"
#include "kernel/File.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "pixel/FormatFunctions.h"

#include <lcms2.h>

#include <utility>

namespace Raster {
/// A profile that was opened and isn't made yet.
struct ICCManager::Candidate {
    ColourEngine::ProfileHandle handle;
    std::optional<Kernel::StringUtf8> name;
    std::span<std::uint8_t const> bytes; ///< as they came
};

namespace {
using Bytes = std::span<std::uint8_t const>;

/// The bytes as the colour library writes them; nothing if it can't.
template<class Storage>
std::size_t SaveProfile(void * handle, Storage & storage) {
    cmsUInt32Number size = 0;
    if (!cmsSaveProfileToMem(handle, nullptr, &size) || size == 0 || size > ICCManager::largestProfileBytes)
        return 0;
    Storage bytes(static_cast<std::uint8_t *>(std::malloc(size)));
    if (!bytes || !cmsSaveProfileToMem(handle, bytes.get(), &size))
        return 0;
    storage = std::move(bytes);
    return size;
}

struct ToneFacts {
    bool isLinear;
    double gamma;
};

cmsToneCurve const * ReadCurve(void * handle, cmsTagSignature tag) {
    return cmsIsTag(handle, tag) ? static_cast<cmsToneCurve const *>(cmsReadTag(handle, tag)) : nullptr;
}

ToneFacts EstimateFromCurve(cmsToneCurve const & curve, Kernel::StringUtf8 const & profileName) {
    constexpr double fallback = 2.2, precision = 0.1;
    double const gamma = cmsEstimateGamma(&curve, precision);
    if (gamma >= 0)
        return {false, gamma};
    Kernel::Trace("gamma estimation failed for %1\n", profileName);
    return {false, fallback};
}

/// Nothing if the profile has no curves to tell.
std::optional<ToneFacts> EstimateToneFacts(void * handle, Kernel::StringUtf8 const & profileName) {
    auto const space = cmsGetColorSpace(handle);
    if (space == cmsSigRgbData) {
        auto const * const red = ReadCurve(handle, cmsSigRedTRCTag);
        auto const * const green = ReadCurve(handle, cmsSigGreenTRCTag);
        auto const * const blue = ReadCurve(handle, cmsSigBlueTRCTag);
        if (!red || !green || !blue)
            return std::nullopt;
        // Blue must be there, but isn't asked: documents rely on which profiles count as linear.
        if (cmsIsToneCurveLinear(red) && cmsIsToneCurveLinear(green))
            return ToneFacts{true, 1.0};
        return EstimateFromCurve(*green, profileName);
    }
    if (space == cmsSigGrayData)
        if (auto const * const grey = ReadCurve(handle, cmsSigGrayTRCTag))
            return cmsIsToneCurveLinear(grey) ? ToneFacts{true, 1.0} : EstimateFromCurve(*grey, profileName);
    return std::nullopt;
}

std::vector<std::uint8_t> ReadFile(char const * path) {
    auto file = Kernel::File::Open(path, "rb");
    auto const size = file.IsOpen() ? file.GetSize().value_or(0) : 0;
    if (size > ICCManager::largestProfileBytes)
        return {};
    std::vector<std::uint8_t> bytes(size);
    bytes.resize(file.IsOpen() ? file.Read(bytes.data(), size) : 0);
    return bytes;
}
}

bool ICCManager::CreateProfileRawData(ICCProfile & profile) {
    if (!profile.handle)
        return false;
    ICCProfile::Bytes bytes;
    auto const size = SaveProfile(profile.handle, bytes);
    if (size == 0)
        return false;
    auto const facts = EstimateToneFacts(profile.handle, profile.name);
    profile.isLinear = facts && facts->isLinear;
    if (facts)
        profile.gamma = facts->gamma;
    profile.rawData = std::move(bytes);
    profile.rawDataSize = size;
    return true;
}

bool ICCManager::DeserialiseICCProfile(ICCProfile & profile) {
    auto const bytes = profile.GetRawData();
    auto handle = ColourEngine::OpenProfile(bytes.data(), bytes.size());
    // One that was added under a name of its own may have no description: a document of it must open all the same.
    auto name = handle ? ColourEngine::ReadDescription(handle.get()) : std::nullopt;
    ColourEngine::ProfileHandle const former(std::exchange(profile.handle, handle.release()));
    profile.isLinear = false;
    if (!profile.handle)
        return false;
    profile.name = std::move(name).value_or(Kernel::StringUtf8());
    if (auto const facts = EstimateToneFacts(profile.handle, profile.name)) {
        profile.isLinear = facts->isLinear;
        profile.gamma = facts->gamma;
    }
    return true;
}

ICCManager::Profile ICCManager::CreateProfile(void * lcmsHandle) {
    if (!lcmsHandle)
        return {};
    Kernel::Counted<ICCProfile> const profile(new ICCProfile(/*standard=*/true));
    profile->handle = lcmsHandle;
    // Bytes first: reading a tag can change how it is written, and the facts want the name for their message only.
    auto name = CreateProfileRawData(*profile) ? ColourEngine::ReadDescription(lcmsHandle) : std::nullopt;
    if (!name)
        return {};
    profile->name = *std::move(name);
    ProfileBytes::ForgetTime({profile->rawData.get(), profile->rawDataSize});
    return Profile::ConsolidateObjectSacrifice(profile);
}

ICCManager::Profile ICCManager::AddProfileFromDisk(Kernel::Path const & path, bool asDefaultCMYK) {
    // Read at once: a handle on the file would keep it open for ever, and see it change.
    auto const bytes = ReadFile(path.GetCharacters());
    auto handle = ColourEngine::OpenProfile(bytes.data(), bytes.size());
    auto name = handle ? ColourEngine::ReadDescription(handle.get()) : std::nullopt;
    return AddProfile({std::move(handle), std::move(name), bytes}, asDefaultCMYK);
}

ICCManager::Profile ICCManager::AddProfileFromMemory(void const * data, unsigned size, char const * name) {
    auto handle = ColourEngine::OpenProfile(data, size);
    std::optional<Kernel::StringUtf8> key;
    if (handle)
        key = name ? Kernel::StringUtf8(name) : ColourEngine::ReadDescription(handle.get());
    return AddProfile({std::move(handle), std::move(key), {static_cast<std::uint8_t const *>(data), size}},
                      /*asDefaultCMYK=*/false);
}

// The lock is held while the profile is consolidated, and so for the search and the entry as one; registering enters
// it again. What may have something to say, reading the curves and comparing bytes, happens without it: a sink of
// messages may wait for somebody who needs the registry.
ICCManager::Profile ICCManager::AddProfile(Candidate candidate, bool asDefaultCMYK) {
    if (!candidate.handle || !candidate.name)
        return {};
    Kernel::Counted<ICCProfile> made;
    if (!GetProfileForString(*candidate.name)) {
        made = Kernel::Counted<ICCProfile>(new ICCProfile);
        made->handle = candidate.handle.release();
        made->name = *candidate.name;
        if (!CreateProfileRawData(*made))
            return {};
    }
    Kernel::ScopedLock guard(registrySection);
    Profile result = FindRegistered(*candidate.name); // once more: another thread may have been faster
    bool const wasKnown = static_cast<bool>(result);
    if (!wasKnown) {
        result = Profile::ConsolidateObjectSacrifice(std::exchange(made, {}));
        GetLinearRGBProfile(result); // the companion enters the registry by itself
    }
    if (asDefaultCMYK)
        cmykProfile = result;
    guard.Release();
    if (wasKnown)
        TraceIfOther(candidate, made.Get(), *result);
    return result;
}

// The colour library may write other bytes than it read, so either form counts as the same.
void ICCManager::TraceIfOther(Candidate const & candidate, ICCProfile const * made, ICCProfile const & registered) {
    if (!Kernel::IsTracing() || ProfileBytes::AreEqual(candidate.bytes, registered.GetRawData()))
        return;
    ICCProfile::Bytes bytes;
    auto const size = made ? 0 : SaveProfile(candidate.handle.get(), bytes);
    if (!ProfileBytes::AreEqual(made ? made->GetRawData() : Bytes(bytes.get(), size), registered.GetRawData()))
        Kernel::Trace("another profile is registered as %1 already, which is used instead\n", *candidate.name);
}

void ICCManager::Register(Profile profile) {
    if (!profile)
        return;
    Kernel::ScopedLock guard(registrySection);
    std::swap(profiles[profile->GetProfileName()], profile);
    guard.Release(); // what stood there goes without the lock
}

ICCManager::Profile ICCManager::FindRegistered(Kernel::StringUtf8 const & name) const {
    auto const found = profiles.find(name);
    return found == profiles.end() ? Profile() : found->second;
}

ICCManager::Profile ICCManager::GetProfileForString(Kernel::StringUtf8 const & name) const {
    Kernel::ScopedLock const guard(registrySection);
    return FindRegistered(name);
}

ICCManager::Profiles ICCManager::GetAvailableProfilesFor(ColourSpace space) const {
    Kernel::ScopedLock const guard(registrySection);
    Profiles result;
    for (auto const & [name, profile] : profiles)
        if (profile->GetColourSpace() == space)
            result.push_back(profile);
    return result;
}

ICCManager::Profiles ICCManager::GetAvailableProfilesForFormat(Format format) const {
    auto const space = GetColourSpace(format);
    return space == ColourSpaceNone ? Profiles() : GetAvailableProfilesFor(space);
}

ICCManager::Profiles ICCManager::GetAvailableProfiles() const {
    Kernel::ScopedLock const guard(registrySection); // so that all lists are of one moment
    Profiles result;
    for (std::uint32_t space = ColourSpaceNone; space <= ColourSpaceRGBUF; ++space) {
        auto const some = GetAvailableProfilesFor(static_cast<ColourSpace>(space));
        result.insert(result.end(), some.begin(), some.end());
    }
    return result;
}
}
