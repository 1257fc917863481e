#include "kernel/DelayLoadHolder.h"

#include "kernel/ScopedLock.h"

namespace Kernel {
namespace {
class LoadedHolder final : public DelayLoadHolder {
public:
    LoadedHolder(FileStoreItemType const & type, Counted<FileStoreItem> loadedItem)
        : DelayLoadHolder(type, std::move(loadedItem)) {}
};
}

Counted<DelayLoadHolder> DelayLoadHolder::Create(FileStoreItemType const & itemType, Counted<FileStoreItem> item) {
    return MakeCounted<LoadedHolder>(itemType, std::move(item));
}

DelayLoadHolder::DelayLoadHolder(FileStoreItemType const & type, Counted<FileStoreItem> loadedItem) noexcept
    : keptType(type), isLoaded(static_cast<bool>(loadedItem)), keptItem(std::move(loadedItem)) {}

DelayLoadHolder::~DelayLoadHolder() = default;

bool DelayLoadHolder::LoadItemI() { return static_cast<bool>(keptItem); }

void DelayLoadHolder::SetItem(Counted<FileStoreItem> loadedItem) noexcept {
    keptItem = std::move(loadedItem);
    isLoaded.store(static_cast<bool>(keptItem), std::memory_order_release);
}

bool DelayLoadHolder::CanReload() const { return false; }

bool DelayLoadHolder::DropItem() {
    if (!keptItem)
        return true;
    if (!CanReload() || !keptItem->GetState().CanShare())
        return false;
    SetItem(nullptr);
    return true;
}

Counted<FileStoreItem> DelayLoadHolder::LoadStoredItem() {
    if (!CanReload())
        return nullptr;
    struct Restore {
        DelayLoadHolder & holder;
        Counted<FileStoreItem> kept;
        ~Restore() { holder.SetItem(std::move(kept)); }
    } const restore{*this, keptItem};
    SetItem(nullptr);
    return LoadItemI() ? keptItem : nullptr;
}

DelayLoadHolder::TempLoadItem::TempLoadItem(DelayLoadHolder * holder) {
    if (!holder)
        return;
    ScopedLock const lock(*holder);
    if (holder->LoadItemI())
        item = holder->GetItem();
}

DelayLoadHolder::TempLoadItem::~TempLoadItem() = default;
}
