#include "kernel/ArchiveItemSource.h"

#include "kernel/FileStoreItem.h"
#include "kernel/MemoryInStream.h"

#include <exception>
#include <utility>

namespace Kernel {
ArchiveItemSource::ArchiveItemSource(Counted<Archive> itemArchive, Counted<ArchiveSnapshot const> itemSnapshot,
                                     ItemID itemID)
    : archive(std::move(itemArchive)), snapshot(std::move(itemSnapshot)), id(itemID) {}

Counted<FileStoreItem> ArchiveItemSource::LoadItem(FileStoreItemType const & type, std::string & why) const {
    auto const * const entry = snapshot->Find(id);
    if (!entry) {
        why = snapshot->GetPath() + ": an item of type " + type.GetTag().GetText().data() + " is missing";
        return {};
    }
    try {
        auto const raw = snapshot->GetReader().ReadRaw(*entry);
        auto const stream = MakeCounted<MemoryInStream>(raw.data(), raw.size());
        auto item = type.CreateObject();
        if (item && item->Load(*stream, *archive)) {
            item->GetState().MarkAsStored(item->GetState().GetDirtyGeneration());
            return item;
        }
        why = snapshot->GetPath() + ": item " + entry->name + " holds nothing of use";
    } catch (ArchiveError const & error) {
        why = error.what();
    }
    return {};
}
}
