#include "kernel/FileStoreItem.h"

namespace Kernel {
Counted<FileStoreItem> FileStoreItemType::CreateObject() const { return create ? create() : Counted<FileStoreItem>(); }

FileStoreItem::~FileStoreItem() = default;
}
