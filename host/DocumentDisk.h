#pragma once

#include "host/Signals.h"
#include "kernel/ArchiveDisk.h"

#include <optional>
#include <string>

namespace Host {
/// The system's disk, for documents of this program: a file that is to replace a document goes away also if a signal
/// ends the process before it does. One save at a time.
class DocumentDisk final : public Kernel::ArchiveDisk {
public:
    Kernel::Counted<Kernel::ArchiveFile> OpenToRead(std::string const & path) override;
    Kernel::Counted<Kernel::ArchiveFile> OpenToUpdate(std::string const & path) override;
    Kernel::Counted<Kernel::ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override;
    bool Replace(Kernel::ArchiveFile & file, std::string const & temporaryPath, std::string const & path) override;
    void Remove(std::string const & temporaryPath) override;

private:
    std::optional<UnfinishedFile> unfinished;
};
}
