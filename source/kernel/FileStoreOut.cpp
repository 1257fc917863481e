#include "kernel/FileStoreOut.h"

#include <utility>

namespace Kernel {
FileStoreOut::~FileStoreOut() = default;

void FileStoreOut::AddStrategy(Counted<SerialisationStrategy const> strategy) { strategies.Push(std::move(strategy)); }
}
