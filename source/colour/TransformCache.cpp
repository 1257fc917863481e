#include "colour/TransformCache.h"

#include "colour/ColourEngine.h"
#include "kernel/ScopedLock.h"

#include <algorithm>

namespace Raster {
TransformCache::~TransformCache() {
    for (auto const & record : records)
        if (record->transform)
            ColourEngine::DeleteTransform(record->transform);
}

// The list is short, a few pairs for each document, and creating costs milliseconds: a linear search does.
TransformCache::Record & TransformCache::FindOrAppend(Key const & key, bool & isNew) {
    Kernel::ScopedLock const guard(lock);
    auto const found = std::ranges::find_if(records, [&](auto const & record) { return record->key == key; });
    isNew = found == records.end();
    if (!isNew)
        return **found;
    using Owner = Kernel::Consolidated<ICCProfile>;
    auto record = std::unique_ptr<Record>(
        new Record{key, Owner::FromConsolidated(key.source), Owner::FromConsolidated(key.destination)});
    return *records.emplace_back(std::move(record));
}

TransformCache::Result TransformCache::GetOrCreate(Key const & key, Create create) {
    bool isNew = false;
    Record & record = FindOrAppend(key, isNew);
    if (isNew) {
        record.transform = create(key);
        record.isReady.store(true, std::memory_order_release);
        record.isReady.notify_all();
    } else {
        record.isReady.wait(false, std::memory_order_acquire);
    }
    return {record.transform, isNew};
}

std::size_t TransformCache::GetCount() const {
    Kernel::ScopedLock const guard(lock);
    return records.size();
}
}
