#include "host/OutputFile.h"

#include "host/Failure.h"
#include "host/Text.h"
#include "kernel/MemoryOutStream.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Host {
namespace {
std::string const newName = "choose another name";

/// The mode that the system gives to new files.
mode_t GetNewFileMode() {
    static mode_t const mask = [] {
        mode_t const current = ::umask(0);
        ::umask(current);
        return current;
    }();
    return 0666 & ~mask;
}

std::string GetFolder(std::string const & path) {
    auto const end = path.find_last_of('/');
    if (end == path.npos)
        return ".";
    return path.substr(0, end == 0 ? 1 : end);
}

/// Where a link leads in the end, which needs not be there.
std::string FollowLinks(std::string path) {
    constexpr int mostLinks = 40; // as the system itself
    for (int i = 0; i < mostLinks; ++i) {
        char target[4096];
        ssize_t const length = ::readlink(path.c_str(), target, sizeof target - 1);
        if (length < 0)
            return path;
        std::string next(target, static_cast<std::size_t>(length));
        path = next.starts_with('/') ? std::move(next) : GetFolder(path) + '/' + next;
    }
    throw Failure("leads through too many links; " + newName);
}

Failure MakeFolderFailure(std::string const & folder, int error) {
    if (error == ENOENT && ::access(folder.c_str(), F_OK) != 0) // folders of the system may give it too
        return Failure(fmt::format("there is no folder '{}'; make it first", folder));
    if (error == ENOTDIR)
        return Failure(fmt::format("'{}' is no folder; {}", folder, newName));
    return Failure(fmt::format("nothing can be written to the folder '{}' ({}); choose another one", folder,
                               DescribeError(error)));
}

std::string DescribeWriteError(int error) {
    char const * help = "try again, or write to another disk";
    if (error == ENOSPC || error == EDQUOT)
        help = "make room, or write to another disk";
    else if (error == EFBIG)
        help = "the size of files is limited here, see `ulimit -f`";
    return fmt::format("can't be written ({}); {}", DescribeError(error), help);
}
}

/// The path, and what is there now.
class OutputFile::Target {
public:
    Target(std::string const & givenPath, Existing givenExisting)
        : existing(givenExisting), path(FollowLinks(givenPath)) {
        isThere = ::stat(path.c_str(), &status) == 0;
        if (!isThere && errno != ENOENT)
            throw MakeFolderFailure(GetFolder(path), errno);
        if (!isThere && (path.empty() || path.ends_with('/')))
            throw Failure("is no name for a file; " + newName);
        if (isThere)
            CheckKind();
    }

    std::string const & GetPath() const { return path; }
    /// Whether it is a file or nothing, so that another one may take its place.
    bool IsReplaceable() const { return !isThere || S_ISREG(status.st_mode); }
    bool MayReplace() const { return existing == Existing::Replace; }
    /// Gives a new file what the one before it had.
    void PassOn(int descriptor) const {
        if (!isThere) {
            ::fchmod(descriptor, GetNewFileMode());
            return;
        }
        mode_t mode = status.st_mode & 07777;
        if (::fchown(descriptor, status.st_uid, status.st_gid) != 0)
            mode &= 0777; // what a file may do as its owner isn't for another one
        ::fchmod(descriptor, mode);
    }
    [[noreturn]] static void FailAsThere() { throw Failure("is there already; leave --no-clobber out to replace it"); }

private:
    void CheckKind() const {
        if (S_ISDIR(status.st_mode))
            throw Failure("is a folder; name a file in it");
        if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))
            throw Failure("is a pipe; use '-' to write to standard output");
        if (S_ISBLK(status.st_mode))
            throw Failure("is a disk; " + newName);
        if (!MayReplace())
            FailAsThere();
    }

    Existing existing;
    std::string path;
    struct stat status {};
    bool isThere;
};

OutputFile::OutputFile(std::string const & path, Existing existing) {
    Check(path, existing);
    if (path == standardStream) {
        stream = Kernel::Counted<Kernel::OutStreamSeekable>(new Kernel::MemoryOutStream);
        return;
    }
    target = std::make_unique<Target>(path, existing);
    Kernel::File file;
    if (target->IsReplaceable()) {
        // A short name of its own, since that of the target with something added may be too long.
        std::string name = GetFolder(target->GetPath()) + "/.raster-XXXXXX";
        int const descriptor = ::mkostemp(name.data(), O_CLOEXEC);
        if (descriptor < 0)
            throw MakeFolderFailure(GetFolder(target->GetPath()), errno);
        file = Kernel::File(descriptor);
        temporaryPath = std::move(name);
        unfinished.emplace(temporaryPath);
    } else {
        file = Kernel::File::Open(target->GetPath().c_str(), "wb");
        if (!file.IsOpen())
            throw Failure(DescribeWriteError(errno));
    }
    fileStream = Kernel::Counted<FileStream>(new FileStream(std::move(file)));
    stream = fileStream;
}

OutputFile::~OutputFile() {
    if (!temporaryPath.empty())
        ::unlink(temporaryPath.c_str());
}

void OutputFile::Check(std::string const & path, Existing existing) {
    if (path == standardStream) {
        if (::isatty(STDOUT_FILENO))
            throw Failure("standard output is a terminal; send it into a file or a pipe");
        return;
    }
    Target const target(path, existing);
    auto const folder = GetFolder(target.GetPath());
    if (target.IsReplaceable() && ::access(folder.c_str(), W_OK | X_OK) != 0)
        throw MakeFolderFailure(folder, errno);
}

std::string OutputFile::GetWriteFailure() const {
    return fileStream && fileStream->GetError() != 0 ? DescribeWriteError(fileStream->GetError()) : std::string();
}

void OutputFile::Commit() {
    if (target)
        CommitToFile();
    else
        CommitToStandardOutput();
}

void OutputFile::CommitToFile() {
    if (!fileStream->Finish())
        throw Failure(GetWriteFailure());
    if (temporaryPath.empty())
        return;
    int const descriptor = fileStream->GetFile().GetDescriptor();
    target->PassOn(descriptor);
    // The name has to lead to whole content also after the power went.
    if (::fsync(descriptor) != 0 || !fileStream->GetFile().Close())
        throw Failure(DescribeWriteError(errno));
    unsigned const flags = target->MayReplace() ? 0 : RENAME_NOREPLACE;
    if (::renameat2(AT_FDCWD, temporaryPath.c_str(), AT_FDCWD, target->GetPath().c_str(), flags) != 0) {
        if (errno == EEXIST)
            Target::FailAsThere();
        throw Failure(DescribeWriteError(errno));
    }
    temporaryPath.clear();
    unfinished.reset();
    int const folder = ::open(GetFolder(target->GetPath()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder); // not all file systems can; the file is there in any case
        ::close(folder);
    }
}

void OutputFile::CommitToStandardOutput() {
    auto const & memory = static_cast<Kernel::MemoryOutStream const &>(*stream);
    std::uint8_t const * bytes = memory.GetData();
    for (std::uint64_t left = memory.GetSize(); left != 0;) {
        ssize_t const written = ::write(STDOUT_FILENO, bytes, left);
        if (written < 0 && errno == EINTR) {
            Signals::ThrowIfAborted();
            continue;
        }
        if (written < 0)
            throw Failure(fmt::format("standard output can't be written ({}); see who reads it", DescribeError(errno)));
        bytes += written;
        left -= static_cast<std::uint64_t>(written);
    }
}
}
