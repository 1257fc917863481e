#include "host/DocumentDisk.h"

#include "host/Failure.h"
#include "host/Text.h"

#include <fmt/format.h>

#include <cerrno>

namespace Host {
using Kernel::ArchiveFile;
using Kernel::ArchiveReplaced;
using Kernel::ArchiveTarget;
using Kernel::Counted;

Counted<ArchiveFile> WatchedDisk::OpenToRead(std::string const & path) { return GetSystem()->OpenToRead(path); }

Counted<ArchiveFile> WatchedDisk::OpenToUpdate(std::string const & path) { return GetSystem()->OpenToUpdate(path); }

Counted<ArchiveFile> WatchedDisk::CreateBeside(std::string const & path, std::string & temporaryPath) {
    auto file = GetSystem()->CreateBeside(path, temporaryPath);
    if (file)
        unfinished.emplace(temporaryPath);
    return file;
}

void WatchedDisk::Remove(std::string const & temporaryPath) {
    GetSystem()->Remove(temporaryPath);
    unfinished.reset();
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

HoldingDisk::~HoldingDisk() {
    if (!heldPath.empty())
        GetSystem()->Remove(heldPath);
}

ArchiveReplaced HoldingDisk::Replace(ArchiveFile &, std::string const & temporaryPath, std::string const &,
                                     ArchiveTarget) {
    heldPath = temporaryPath;
    return ArchiveReplaced::Done;
}

void HoldingDisk::PutInPlace(std::string const & path, ArchiveTarget target) {
    auto const file = OpenToUpdate(heldPath);
    auto const replaced = file ? GetSystem()->Replace(*file, heldPath, path, target) : ArchiveReplaced::Failed;
    if (replaced == ArchiveReplaced::Occupied)
        throw Failure("another program has made a file there; nothing was saved");
    if (replaced == ArchiveReplaced::Failed)
        throw Failure(fmt::format("can't be put in its place ({}); nothing was saved", DescribeError(errno)));
    heldPath.clear();
    unfinished.reset();
}
}
