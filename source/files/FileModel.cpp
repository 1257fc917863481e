#include "files/FileModel.h"

#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"

#include <utility>

namespace Raster {
FileModel::~FileModel() = default;

std::string FileModel::GetFailure() const {
    Kernel::ScopedLock const guard(failureLock);
    return failure;
}

void FileModel::SetFailure(std::string reason) const {
    Kernel::Trace("%1\r\n", reason.c_str());
    {
        Kernel::ScopedLock const guard(failureLock);
        failure = std::move(reason);
    }
    hasFailed.store(true, std::memory_order_release);
}
}
