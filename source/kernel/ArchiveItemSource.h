#pragma once

#include "kernel/Archive.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/DelayLoadHolder.h"

#include <optional>

namespace Kernel {
/// An item in a document, as a holder knows it: where its bytes lie, which is where they stay whatever is saved later.
class ArchiveItemSource final : public FileStoreItemSource {
public:
    /// @param snapshot  in which the item is looked up; null has none
    ArchiveItemSource(Counted<Archive> itemArchive, Counted<ArchiveSnapshot const> const & snapshot, ItemID itemID);

    Counted<FileStoreItem> LoadItem(FileStoreItemType const & type, std::string & why) const override;
    void ForgetHolder(DelayLoadHolder const & holder) const noexcept override { archive->ForgetHolder(id, holder); }

    std::string const & GetPath() const { return archive->GetPath(); }
    ItemID GetID() const { return id; }
    /// Nothing if the document lacks the item.
    std::optional<ArchiveLayout::Entry> const & GetEntry() const { return entry; }
    ArchiveFile const & GetFile() const { return *file; } ///< where there is an entry
    /// Where the items are that this one refers to; null for one that refers to none. Snapshots are large: a document
    /// that is saved often would keep as many of them as there are items of different age.
    Counted<ArchiveSnapshot const> const & GetSnapshot() const { return snapshotOfReferences; }

private:
    Counted<Archive> const archive;
    Counted<ArchiveFile const> const file;
    ItemID const id;
    std::optional<ArchiveLayout::Entry> entry;
    Counted<ArchiveSnapshot const> snapshotOfReferences;
};
}
