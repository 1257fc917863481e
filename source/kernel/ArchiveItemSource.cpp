#include "kernel/ArchiveItemSource.h"

#include "kernel/FileStoreItem.h"

#include <exception>
#include <utility>

namespace Kernel {
ArchiveItemSource::ArchiveItemSource(Counted<Archive> itemArchive, Counted<ArchiveSnapshot const> const & snapshot,
                                     ItemID itemID)
    : archive(std::move(itemArchive)), file(snapshot ? snapshot->GetFile() : nullptr), id(itemID) {
    if (auto const * const found = snapshot ? snapshot->Find(id) : nullptr)
        entry = *found;
    if (entry && entry->HasReferences())
        snapshotOfReferences = snapshot;
}

Counted<FileStoreItem> ArchiveItemSource::LoadItem(FileStoreItemType const & type, std::string & why) const {
    if (!entry) {
        why = GetPath() + ": an item of type " + type.GetTag().GetText().data() + " is missing";
        return {};
    }
    try {
        auto item = type.CreateObject();
        bool isLoaded = false;
        ArchiveItemReader(*file, GetPath()).UseRaw(*entry, [&](InStreamSeekable & stream) {
            isLoaded = item && item->Load(stream, *archive);
        });
        if (isLoaded) {
            item->GetState().MarkAsStored(item->GetState().GetDirtyGeneration());
            return item;
        }
        why = GetPath() + ": item " + entry->name + " holds nothing of use";
    } catch (ArchiveError const & error) {
        why = error.what();
    }
    return {};
}
}
