#include "storage/PrivateFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Raster {
namespace {
// More processes than this in one directory are a fault of the setting.
constexpr int mostPrivateFolders = 256;

[[noreturn]] void Throw(int error, std::string const & path) {
    throw std::system_error(error, std::generic_category(), path);
}

// A plain file of this user alone: with a second name or another owner, somebody could read what is written.
bool IsPrivate(struct stat const & status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

bool IsPrivateFolder(int folder) {
    struct stat status;
    return fstat(folder, &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 077) == 0;
}

bool IsSameFile(struct stat const & one, struct stat const & other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The folder for a private file, or -1 if the name is taken by something else.
int OpenPrivateFolder(int parent, std::string const & name) {
    if (mkdirat(parent, name.c_str(), 0700) != 0 && errno != EEXIST)
        return -1;
    int const folder = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0 || IsPrivateFolder(folder))
        return folder;
    close(folder);
    errno = EPERM;
    return -1;
}
}

// Leaves `errno` on failure. Non-blocking, lest a pipe of that name hang us.
bool PrivateFile::TryOpen(int folder, std::string const & name) {
    int const file = openat(folder, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (file < 0)
        return false;
    struct stat opened, named;
    // The lock comes before the last look at the path: its former holder may just have deleted the file.
    bool const isOurs = fstat(file, &opened) == 0 && IsPrivate(opened) && flock(file, LOCK_EX | LOCK_NB) == 0 &&
                        fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && IsSameFile(opened, named) &&
                        fchmod(file, 0600) == 0 && ftruncate(file, 0) == 0;
    if (!isOurs) {
        close(file);
        return false;
    }
    descriptor = file;
    return true;
}

PrivateFile::PrivateFile(std::string const & directory, std::string const & stem, std::string const & name)
    : process(getpid()), fileName(name) {
    auto const slash = directory.empty() || directory.back() == '/' ? "" : "/";
    int const parent = open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parent < 0)
        Throw(errno, directory);
    if (TryOpen(parent, name)) {
        folderDescriptor = parent;
        path = directory + slash + name;
        return;
    }
    for (int i = 1; i <= mostPrivateFolders; ++i) {
        auto const folderName = stem + "." + std::to_string(i);
        int const folder = OpenPrivateFolder(parent, folderName);
        if (folder < 0)
            continue;
        if (TryOpen(folder, name)) {
            close(parent);
            folderDescriptor = folder;
            privateFolder = directory + slash + folderName;
            path = privateFolder + "/" + name;
            return;
        }
        close(folder);
    }
    int const error = errno;
    close(parent);
    Throw(error, directory + slash + name);
}

PrivateFile::~PrivateFile() {
    Unlink();
    close(descriptor);
    if (folderDescriptor >= 0)
        close(folderDescriptor);
}

void PrivateFile::Unlink() noexcept {
    if (folderDescriptor < 0 || process != getpid())
        return;
    struct stat opened, named;
    if (fstat(descriptor, &opened) == 0 &&
        fstatat(folderDescriptor, fileName.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && IsSameFile(opened, named))
        unlinkat(folderDescriptor, fileName.c_str(), 0);
    if (!privateFolder.empty())
        rmdir(privateFolder.c_str());
    close(folderDescriptor);
    folderDescriptor = -1;
}
}
