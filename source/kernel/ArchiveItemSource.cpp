#include "kernel/ArchiveItemSource.h"

#include "kernel/FileStoreItem.h"
#include "kernel/MemoryInStream.h"
#include "kernel/Trace.h"

#include <exception>
#include <utility>

namespace Kernel {
ArchiveItemSource::ArchiveItemSource(Counted<Archive> itemArchive, Counted<ArchiveSnapshot const> itemSnapshot,
                                     ItemID itemID)
    : archive(std::move(itemArchive)), snapshot(std::move(itemSnapshot)), id(itemID) {}

Counted<FileStoreItem> ArchiveItemSource::LoadItem(FileStoreItemType const & type) const {
    auto const * const entry = snapshot->Find(id);
    if (!entry) {
        Trace("%1: an item of type %2 is missing\n", snapshot->GetPath().c_str(), type.GetTag().GetText().data());
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
        Trace("%1: item %2 holds nothing of use\n", snapshot->GetPath().c_str(), entry->name.c_str());
    } catch (ArchiveError const & error) {
        Trace("%1\n", error.what());
    }
    return {};
}
}
