#include "kernel/File.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kernel {
static_assert(sizeof(off_t) == 8, "files may exceed 4 GiB");

namespace {
constexpr int invalidMode = -1;

int GetOpenFlags(std::string_view mode) {
    bool const canUpdate = mode.find('+') != mode.npos;
    bool const mustBeNew = mode.find('x') != mode.npos;
    if (mode.empty() || mode.find_first_not_of("+bx", 1) != mode.npos)
        return invalidMode;
    if (mode[0] == 'r')
        return mustBeNew ? invalidMode : canUpdate ? O_RDWR : O_RDONLY;
    if (mode[0] == 'w')
        return (canUpdate ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC | (mustBeNew ? O_EXCL : 0);
    return invalidMode;
}

/// 0 for what a file may be, else the error to report.
int CheckKind(int descriptor, bool canWrite) {
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return errno;
    if (S_ISREG(status.st_mode) || (canWrite && S_ISCHR(status.st_mode)))
        return 0;
    return S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
}

/// A descriptor, or -1 with errno set.
int OpenDescriptor(char const * path, char const * mode) {
    int const flags = GetOpenFlags(mode ? mode : "");
    if (!path || flags == invalidMode) {
        errno = EINVAL;
        return -1;
    }
    int descriptor;
    do // without blocking, since opening a pipe would wait for its other end
        descriptor = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0)
        return -1;
    if (int const error = CheckKind(descriptor, flags & (O_WRONLY | O_RDWR))) {
        close(descriptor);
        errno = error;
        return -1;
    }
    fcntl(descriptor, F_SETFL, flags & (O_WRONLY | O_RDWR));
    return descriptor;
}

/// Calls `transfer(done, bytes)` until all is done or nothing more comes.
template<class Transfer>
std::uint64_t TransferAll(std::uint64_t offset, std::uint64_t size, Transfer transfer) {
    constexpr std::uint64_t largestOffset = std::numeric_limits<off_t>::max();
    constexpr std::uint64_t largestStep = std::uint64_t(1) << 30; // the system does a little less than 2 GiB at a time
    if (offset > largestOffset || size > largestOffset - offset)
        return 0;
    std::uint64_t done = 0;
    while (done < size) {
        ssize_t const step = transfer(done, static_cast<std::size_t>(std::min(size - done, largestStep)));
        if (step > 0)
            done += static_cast<std::uint64_t>(step);
        else if (step == 0 || errno != EINTR)
            break;
    }
    return done;
}
}

File::OpenUnmanagedException::OpenUnmanagedException(char const * path, int givenErrorNumber)
    : std::runtime_error(std::string(path ? path : "(null)") + ": " +
                         std::generic_category().message(givenErrorNumber)),
      errorNumber(givenErrorNumber) {}

File::OpenUnmanagedException::~OpenUnmanagedException() = default;

File::File(File && other) noexcept
    : descriptor(std::exchange(other.descriptor, -1)), position(std::exchange(other.position, 0)) {}

File & File::operator=(File && other) noexcept {
    if (this != &other) {
        Close();
        descriptor = std::exchange(other.descriptor, -1);
        position = std::exchange(other.position, 0);
    }
    return *this;
}

File::~File() { Close(); }

File File::Open(char const * path, char const * mode) { return File(OpenDescriptor(path, mode)); }

int File::OpenUnmanaged(char const * path, char const * mode) {
    int const descriptor = OpenDescriptor(path, mode);
    if (descriptor < 0)
        throw OpenUnmanagedException(path, errno);
    return descriptor;
}

bool File::Close() noexcept {
    // Never repeated: after an interruption the descriptor is gone, and its number may be another thread's by now.
    int const closing = Detach();
    return closing < 0 || close(closing) == 0 || errno == EINTR;
}

int File::Detach() noexcept { return std::exchange(descriptor, -1); }

std::uint64_t File::Read(void * dest, std::uint64_t size) {
    auto const count = ReadAt(position, dest, size);
    position += count;
    return count;
}

std::uint64_t File::Write(void const * data, std::uint64_t size) {
    auto const count = WriteAt(position, data, size);
    position += count;
    return count;
}

std::uint64_t File::ReadAt(std::uint64_t offset, void * dest, std::uint64_t size) const {
    auto * const bytes = static_cast<std::uint8_t *>(dest);
    return TransferAll(offset, size, [&](std::uint64_t done, std::size_t count) {
        return pread(descriptor, bytes + done, count, static_cast<off_t>(offset + done));
    });
}

std::uint64_t File::WriteAt(std::uint64_t offset, void const * data, std::uint64_t size) const {
    auto const * const bytes = static_cast<std::uint8_t const *>(data);
    return TransferAll(offset, size, [&](std::uint64_t done, std::size_t count) {
        return pwrite(descriptor, bytes + done, count, static_cast<off_t>(offset + done));
    });
}

std::optional<std::uint64_t> File::GetSize() const {
    struct stat status;
    if (fstat(descriptor, &status) != 0 || status.st_size < 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
}
}
