#pragma once

#include "kernel/CriticalSectionSpin.h"
#include "kernel/IDTag.h"
#include "kernel/ScopedLock.h"

#include <unordered_map>

namespace Kernel {
/// Static records by the tags that name them in files. Threads: any.
template<class T>
class TagRegistry {
public:
    /// The record lives as long as the process. The first one of a tag stays.
    /// @return whether it is the one that stands there now.
    bool Add(IDTag tag, T const & record) {
        ScopedLock const guard(lock);
        return records.emplace(tag, &record).first->second == &record;
    }
    /// Null if there is none.
    T const * Find(IDTag tag) const {
        ScopedLock const guard(lock);
        auto const found = records.find(tag);
        return found == records.end() ? nullptr : found->second;
    }

private:
    mutable CriticalSectionSpin lock{LockRank::Leaf};
    std::unordered_map<IDTag, T const *> records; // guarded by lock
};
}
