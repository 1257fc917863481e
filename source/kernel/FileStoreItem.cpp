#include "kernel/FileStoreItem.h"

#include "kernel/TagRegistry.h"
#include "kernel/Trace.h"

namespace Kernel {
namespace {
TagRegistry<FileStoreItemType> & GetTypes() {
    static auto & types = *new TagRegistry<FileStoreItemType>; // outlives every static object
    return types;
}
}

void FileStoreItemType::Init() const {
    if (!GetTypes().Add(tag, *this))
        Trace("Two types of items are named %1 in files\n", tag.GetText().data());
}

FileStoreItemType const * FileStoreItemType::Find(IDTag tag) { return GetTypes().Find(tag); }

Counted<FileStoreItem> FileStoreItemType::CreateObject() const { return create ? create() : Counted<FileStoreItem>(); }

FileStoreItem::~FileStoreItem() = default;
}
