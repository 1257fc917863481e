#include "kernel/FileStore.h"

#include "kernel/DelayLoadHolder.h"
#include "kernel/SharedSerialisable.h"

namespace Kernel {
FileStore::~FileStore() = default;

Counted<SharedSerialisable> FileStore::LoadReferredObject(ItemID id, int depth, SharedObjectReference &) {
    return LoadSharedObject(id, depth);
}

Counted<DelayLoadHolder> EmptyFileStore::GetHolder(ItemID, FileStoreItemType const &) { return {}; }

Counted<SharedSerialisable> EmptyFileStore::LoadSharedObject(ItemID, int) { return {}; }
}
