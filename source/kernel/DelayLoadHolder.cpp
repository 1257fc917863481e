#include "kernel/DelayLoadHolder.h"

#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"

#include <utility>

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

Counted<DelayLoadHolder> DelayLoadHolder::CreateFromSource(FileStoreItemType const & itemType,
                                                           Counted<FileStoreItemSource const> itemSource) {
    auto holder = MakeCounted<LoadedHolder>(itemType, nullptr);
    holder->source = std::move(itemSource);
    return holder;
}

FileStoreItemSource::~FileStoreItemSource() = default;

void FileStoreItemSource::ForgetHolder(DelayLoadHolder const &) const noexcept {}

DelayLoadHolder::~DelayLoadHolder() {
    if (source && isListed)
        source->ForgetHolder(*this);
}

void DelayLoadHolder::SetSource(Counted<FileStoreItemSource const> newSource) noexcept {
    if (source && source != newSource && std::exchange(isListed, false))
        source->ForgetHolder(*this);
    source = std::move(newSource);
}

bool DelayLoadHolder::LoadItemI() {
    if (!keptItem && source) {
        failure.clear();
        SetItem(source->LoadItem(keptType, failure));
    }
    return static_cast<bool>(keptItem);
}

void DelayLoadHolder::SetItem(Counted<FileStoreItem> loadedItem) noexcept {
    keptItem = std::move(loadedItem);
    isLoaded.store(static_cast<bool>(keptItem), std::memory_order_release);
}

bool DelayLoadHolder::CanReload() const { return static_cast<bool>(source); }

bool DelayLoadHolder::DropItem() {
    if (!keptItem)
        return true;
    if (!CanReload() || !keptItem->GetState().CanShare())
        return false;
    SetItem(nullptr);
    return true;
}

bool DelayLoadHolder::AbandonItem() {
    if (!CanReload())
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

DelayLoadHolder::TempLoadItem::TempLoadItem(DelayLoadHolder * itemHolder) : holder(itemHolder) {
    if (!holder)
        return;
    std::string failure;
    {
        ScopedLock const lock(*holder);
        if (holder->LoadItemI())
            item = holder->GetItem();
        else
            failure = holder->GetFailure();
    }
    if (!failure.empty())
        Trace("%1\n", failure.c_str());
}

DelayLoadHolder::TempLoadItem::~TempLoadItem() {
    if (!item || !holder->GetItemType().IsRecoverable())
        return;
    item.Reset();
    ScopedLock const lock(*holder);
    if (holder->GetItem() && holder->GetItem()->GetCount() == 1)
        holder->DropItem();
}
}
