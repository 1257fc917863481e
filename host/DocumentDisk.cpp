#include "host/DocumentDisk.h"

namespace Host {
using Kernel::ArchiveFile;
using Kernel::ArchiveReplaced;
using Kernel::ArchiveTarget;
using Kernel::Counted;

Counted<ArchiveFile> DocumentDisk::OpenToRead(std::string const & path) { return GetSystem()->OpenToRead(path); }

Counted<ArchiveFile> DocumentDisk::OpenToUpdate(std::string const & path) { return GetSystem()->OpenToUpdate(path); }

Counted<ArchiveFile> DocumentDisk::CreateBeside(std::string const & path, std::string & temporaryPath) {
    auto file = GetSystem()->CreateBeside(path, temporaryPath);
    if (file)
        unfinished.emplace(temporaryPath);
    return file;
}

ArchiveReplaced DocumentDisk::Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path,
                                      ArchiveTarget target) {
    auto const replaced = GetSystem()->Replace(file, temporaryPath, path,
                                               allowed == ArchiveTarget::OnlyFree ? ArchiveTarget::OnlyFree : target);
    if (replaced == ArchiveReplaced::Done || replaced == ArchiveReplaced::Unconfirmed) {
        unfinished.reset();
        allowed = ArchiveTarget::Any;
    }
    return replaced;
}

void DocumentDisk::Remove(std::string const & temporaryPath) {
    GetSystem()->Remove(temporaryPath);
    unfinished.reset();
}
}
