#include "host/DocumentDisk.h"

namespace Host {
using Kernel::ArchiveFile;
using Kernel::Counted;

Counted<ArchiveFile> DocumentDisk::OpenToRead(std::string const & path) { return GetSystem()->OpenToRead(path); }

Counted<ArchiveFile> DocumentDisk::OpenToUpdate(std::string const & path) { return GetSystem()->OpenToUpdate(path); }

Counted<ArchiveFile> DocumentDisk::CreateBeside(std::string const & path, std::string & temporaryPath) {
    auto file = GetSystem()->CreateBeside(path, temporaryPath);
    if (file)
        unfinished.emplace(temporaryPath);
    return file;
}

bool DocumentDisk::Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path) {
    if (!GetSystem()->Replace(file, temporaryPath, path))
        return false;
    unfinished.reset();
    return true;
}

void DocumentDisk::Remove(std::string const & temporaryPath) {
    GetSystem()->Remove(temporaryPath);
    unfinished.reset();
}
}
