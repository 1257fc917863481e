#include "kernel/FileStoreOut.h"

#include "kernel/SharedObjectReference.h"

#include <utility>

namespace Kernel {
FileStoreOut::~FileStoreOut() = default;

void FileStoreOut::AddStrategy(Counted<SerialisationStrategy const> strategy) { strategies.Push(std::move(strategy)); }

ItemID FileStoreOut::KeepReferredObject(SharedObjectReference const & reference) { return reference.GetID(); }
}
