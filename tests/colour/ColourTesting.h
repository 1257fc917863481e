#pragma once

#include "colour/ICCManager.h"
#include "colour/SyntheticProfiles.h"
#include "kernel/TraceCapture.h"

#include <string>

namespace Raster {
using Profile = ICCManager::Profile;

inline ICCManager & Manager() { return ICCManager::GetInstance(); }

inline Profile Add(SyntheticProfiles::Bytes const & bytes, char const * name = nullptr) {
    return Manager().AddProfileFromMemory(bytes.data(), unsigned(bytes.size()), name);
}

inline std::string NameOf(Profile const & profile) {
    return profile ? std::string(profile->GetProfileName().GetView()) : "(null)";
}

inline SyntheticProfiles::Bytes BytesOf(Profile const & profile) {
    auto const bytes = profile->GetRawData();
    return {bytes.begin(), bytes.end()};
}
}
