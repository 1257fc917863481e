#pragma once

#include "host/Signals.h"
#include "kernel/ArchiveDisk.h"

#include <optional>
#include <string>

namespace Host {
/// The system's disk, for documents of this program: a file that is to replace a document goes away also if a signal
/// ends the process before it does, and what is there may stay. One save at a time.
class WatchedDisk : public Kernel::ArchiveDisk {
public:
    Kernel::Counted<Kernel::ArchiveFile> OpenToRead(std::string const & path) override;
    Kernel::Counted<Kernel::ArchiveFile> OpenToUpdate(std::string const & path) override;
    Kernel::Counted<Kernel::ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override;
    void Remove(std::string const & temporaryPath) override;

protected:
    std::optional<UnfinishedFile> unfinished;
};

/// Saves documents in their places.
class DocumentDisk final : public WatchedDisk {
public:
    /// @param firstTarget  whether the first save may replace a file. Later ones replace what that has made.
    explicit DocumentDisk(Kernel::ArchiveTarget firstTarget = Kernel::ArchiveTarget::Any) : allowed(firstTarget) {}

    Kernel::ArchiveReplaced Replace(Kernel::ArchiveFile & file, std::string const & temporaryPath,
                                    std::string const & path, Kernel::ArchiveTarget target) override;

private:
    Kernel::ArchiveTarget allowed;
};

/// Keeps a new document from its place: it is saved beside it, and works there as a document of its own, until it is
/// complete. What isn't put in its place goes.
class HoldingDisk final : public WatchedDisk {
public:
    ~HoldingDisk() override;

    Kernel::ArchiveReplaced Replace(Kernel::ArchiveFile & file, std::string const & temporaryPath,
                                    std::string const & path, Kernel::ArchiveTarget target) override;

    /// Where the document is; empty before it was saved.
    std::string const & GetHeldPath() const { return heldPath; }
    /// Throws `Failure`; what was there before stands then.
    void PutInPlace(std::string const & path, Kernel::ArchiveTarget target);

private:
    std::string heldPath;
};
}
