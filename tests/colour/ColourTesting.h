#pragma once

#include "colour/ICCManager.h"
#include "colour/SyntheticProfiles.h"
#include "kernel/Trace.h"

#include <mutex>
#include <string>
#include <vector>

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

/// Keeps the messages that are traced while it lives.
class Messages {
public:
    Messages() { Kernel::SetTraceSink(sink); }
    ~Messages() { Kernel::SetTraceSink(nullptr); }
    Messages(Messages const &) = delete;
    Messages & operator=(Messages const &) = delete;

    /// What came since the last call.
    std::vector<std::string> Take() {
        std::lock_guard const guard(sink->mutex);
        return std::exchange(sink->messages, {});
    }

private:
    struct Sink : Kernel::TraceSink {
        void Write(std::string_view message) override {
            std::lock_guard const guard(mutex);
            messages.emplace_back(message);
        }
        std::mutex mutex;
        std::vector<std::string> messages;
    };
    Kernel::Counted<Sink> const sink = Kernel::MakeCounted<Sink>();
};
}
