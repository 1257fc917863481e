#pragma once

#include "kernel/Archive.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/DelayLoadHolder.h"

namespace Kernel {
/// An item in a document, as a holder knows it.
class ArchiveItemSource final : public FileStoreItemSource {
public:
    ArchiveItemSource(Counted<Archive> itemArchive, Counted<ArchiveSnapshot const> itemSnapshot, ItemID itemID);

    Counted<FileStoreItem> LoadItem(FileStoreItemType const & type, std::string & why) const override;
    void ForgetHolder(DelayLoadHolder const & holder) const noexcept override { archive->ForgetHolder(id, holder); }

    ArchiveSnapshot const & GetSnapshot() const { return *snapshot; }
    ItemID GetID() const { return id; }

private:
    Counted<Archive> const archive;
    Counted<ArchiveSnapshot const> const snapshot;
    ItemID const id;
};
}
