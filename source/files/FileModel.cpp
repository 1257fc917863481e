#include "files/FileModel.h"

#include "kernel/FastFileOutStream.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "storage/CompressedRasterData.h"

#include <cerrno>
#include <system_error>
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

Kernel::Counted<Kernel::OutStream> FileModel::OpenForWriting(char const * path) const {
    constexpr std::size_t bufferBytes = 0x100000;
    Kernel::Counted<Kernel::OutStream> stream;
    errno = 0;
    if (path)
        stream = Kernel::FastFileOutStream::Create(path, bufferBytes);
    if (!stream)
        SetFailure("can't be written: " +
                   (errno == 0 ? std::string("it can't be opened") : std::generic_category().message(errno)));
    return stream;
}

Kernel::Counted<Kernel::OutStream> FileModel::OpenForWriting(Kernel::Counted<CompressedRasterData> data) {
    if (!data)
        return nullptr;
    return Kernel::MakeCounted<CompressedRasterDataOutStream>(std::move(data));
}
}
