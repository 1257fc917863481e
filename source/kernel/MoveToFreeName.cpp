#include "kernel/MoveToFreeName.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace Kernel {
namespace {
// What systems say of calls and flags that a file system doesn't have. EPERM is link's.
bool IsUnsupported(int error) { return error == EINVAL || error == ENOSYS || error == ENOTSUP || error == EPERM; }
}

bool MoveToFreeName(char const * from, char const * to, FreeNameMeans first) noexcept {
    if (first == FreeNameMeans::Rename) {
        if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
            return true;
        if (!IsUnsupported(errno))
            return false;
    }
    if (first != FreeNameMeans::Look) {
        if (link(from, to) == 0) {
            unlink(from);
            return true;
        }
        if (!IsUnsupported(errno))
            return false;
    }
    struct stat there;
    if (lstat(to, &there) == 0) {
        errno = EEXIST;
        return false;
    }
    return errno == ENOENT && rename(from, to) == 0;
}
}
