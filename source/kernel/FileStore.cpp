#include "kernel/FileStore.h"

#include "kernel/DelayLoadHolder.h"
#include "kernel/SharedSerialisable.h"

namespace Kernel {
FileStore::~FileStore() = default;

Counted<DelayLoadHolder> EmptyFileStore::GetHolder(ItemID, FileStoreItemType const &) { return {}; }

Counted<SharedSerialisable> EmptyFileStore::LoadSharedObject(ItemID, int) { return {}; }
}
