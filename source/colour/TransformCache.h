#pragma once

#include "colour/ICCProfile.h"
#include "kernel/Consolidated.h"
#include "kernel/CriticalSectionSpin.h"

#include <atomic>
#include <vector>

namespace Raster {
/// A list of transforms, each of which is made once and then kept, also if making it failed. Threads: any.
class TransformCache {
public:
    struct Key {
        ICCProfile const * source;
        ICCProfile const * destination; ///< or the profile to simulate
        std::uint32_t sourceType;       ///< pixel types of the colour library
        std::uint32_t destinationType;
        std::uint32_t intent;
        std::uint32_t proofingIntent;
        std::uint32_t flags;
        bool operator==(Key const &) const = default;
    };
    /// Makes a transform, or null. Called with no lock held.
    using Create = void * (*)(Key const &) noexcept;

    /// @param sharedLock  guards the list; a leaf. It is held for the search alone, never while a transform is made.
    explicit TransformCache(Kernel::CriticalSectionSpin & sharedLock) : lock(sharedLock) {}
    TransformCache(TransformCache const &) = delete;
    TransformCache & operator=(TransformCache const &) = delete;
    ~TransformCache();

    struct Result {
        void * transform;
        bool isNew; ///< whether this call made it
    };
    /// The transform of that key. The first thread that asks makes it and others that ask for the same one wait for
    /// that; who asks for another one doesn't. The profiles, which must be consolidated, are kept with it.
    Result GetOrCreate(Key const & key, Create create);
    std::size_t GetCount() const;

private:
    struct Record {
        Key const key;
        Kernel::Consolidated<ICCProfile> const source, destination; // so that none goes away and comes back as another
        void * transform = nullptr;                                 // owned
        std::atomic<bool> isReady{false};                           // released once `transform` is set
    };

    Record & FindOrAppend(Key const & key, bool & isNew);

    Kernel::CriticalSectionSpin & lock;
    std::vector<std::unique_ptr<Record>> records;
};
}
