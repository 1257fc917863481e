#include "kernel/ArchiveDisk.h"

#include "kernel/File.h"
#include "kernel/MoveToFreeName.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

namespace Kernel {
ArchiveFile::~ArchiveFile() = default;
ArchiveDisk::~ArchiveDisk() = default;

std::optional<std::uint64_t> ArchiveFile::GetFreeBytes() const { return {}; }

namespace {
namespace fs = std::filesystem;

constexpr char const * temporaryMark = ".saving-";
constexpr std::size_t numberDigits = 8; // of the random number that comes after it

// An open-file-description lock: it belongs to the descriptor, so that other parts of this process are kept out too.
bool SetLock(int descriptor, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

bool TryLock(int descriptor) { return SetLock(descriptor, F_WRLCK); }

// Has the names in a directory on the disk, by way of all of its file system where the directory can't be read.
bool SyncDirectory(fs::path const & directory, int fileInIt) {
    File const opened(open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.IsOpen())
        return syncfs(fileInIt) == 0;
    // Some file systems have no such thing, which is no failure of theirs.
    return fsync(opened.GetDescriptor()) == 0 || errno == EINVAL || errno == ENOTSUP || errno == ENOSYS;
}

// Where a path leads in the end, so that a link stays a link, also one whose target isn't there yet.
fs::path Resolve(std::string const & path) {
    constexpr int mostLinks = 40; // as the system itself
    std::error_code error;
    fs::path end = path;
    for (int i = 0; i < mostLinks && fs::is_symlink(fs::symlink_status(end, error)); ++i)
        end = end.parent_path() / fs::read_symlink(end, error);
    auto const resolved = fs::weakly_canonical(end, error);
    return error ? fs::path(path) : resolved;
}

class SystemFile final : public ArchiveFile {
public:
    explicit SystemFile(File openFile) : file(std::move(openFile)) {}

    std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
        return file.ReadAt(offset, dest, size);
    }
    std::optional<std::uint64_t> GetSize() const override { return file.GetSize(); }
    std::optional<std::uint64_t> GetFreeBytes() const override {
        struct statvfs there;
        if (fstatvfs(file.GetDescriptor(), &there) != 0)
            return {};
        return std::uint64_t(there.f_bavail) * there.f_frsize;
    }
    bool Write(std::uint64_t offset, void const * bytes, std::uint64_t size) override {
        return file.WriteAt(offset, bytes, size) == size;
    }
    bool Truncate(std::uint64_t size) override {
        return ftruncate(file.GetDescriptor(), static_cast<off_t>(size)) == 0;
    }
    bool Sync() override { return fdatasync(file.GetDescriptor()) == 0; }
    bool Lock() override {
        using namespace std::chrono_literals;
        auto const end = std::chrono::steady_clock::now() + 10s;
        while (!TryLock(file.GetDescriptor())) {
            if ((errno != EAGAIN && errno != EACCES) || std::chrono::steady_clock::now() >= end)
                return false;
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }
    void Unlock() override { SetLock(file.GetDescriptor(), F_UNLCK); }
    bool IsAt(std::string const & path) const override {
        struct stat here, there;
        return fstat(file.GetDescriptor(), &here) == 0 && stat(path.c_str(), &there) == 0 &&
               here.st_dev == there.st_dev && here.st_ino == there.st_ino;
    }
    bool IsRegular() const {
        struct stat status;
        return fstat(file.GetDescriptor(), &status) == 0 && S_ISREG(status.st_mode);
    }
    int GetDescriptor() const { return file.GetDescriptor(); }

private:
    File file;
};

Counted<ArchiveFile> Open(std::string const & path, char const * mode) {
    auto file = File::Open(path.c_str(), mode);
    return file.IsOpen() ? Counted<ArchiveFile>(new SystemFile(std::move(file))) : Counted<ArchiveFile>();
}

// Makes a file whose name begins with the prefix and that nobody had. The system takes its mask off the mode.
File CreateNew(std::string const & prefix, mode_t mode, std::string & name) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::uint32_t number = 0;
        if (getrandom(&number, sizeof number, 0) != sizeof number)
            break;
        char digits[numberDigits + 1];
        std::snprintf(digits, sizeof digits, "%08x", number);
        name = prefix;
        name += digits;
        File file(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (file.IsOpen() || errno != EEXIST)
            return file;
    }
    return {};
}

bool IsTemporaryName(std::string const & name, std::string const & prefix) {
    return name.size() == prefix.size() + numberDigits && name.compare(0, prefix.size(), prefix) == 0 &&
           name.find_first_not_of("0123456789abcdef", prefix.size()) == name.npos;
}

// Temporary files of savers that died: nobody holds their lock.
void RemoveStale(fs::path const & directory, std::string const & prefix) {
    std::error_code error;
    for (fs::directory_iterator i(directory.empty() ? "." : directory, error), end; !error && i != end;
         i.increment(error)) {
        if (!IsTemporaryName(i->path().filename().string(), prefix))
            continue;
        File file(open(i->path().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (file.IsOpen() && TryLock(file.GetDescriptor()))
            unlink(i->path().c_str());
    }
}

class SystemDisk final : public ArchiveDisk {
public:
    Counted<ArchiveFile> OpenToRead(std::string const & path) override { return Open(path, "rb"); }
    Counted<ArchiveFile> OpenToUpdate(std::string const & path) override {
        auto const file = Open(path, "r+b");
        if (!file || static_cast<SystemFile const &>(*file).IsRegular())
            return file;
        errno = ENOTSUP; // a device can be written as any file, and is nothing to be replaced
        return {};
    }

    Counted<ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override {
        for (int attempt = 0; attempt < 100; ++attempt) {
            auto file = CreateLocked(path, temporaryPath);
            // Another saver may take a file that isn't locked yet for one of a saver that died, and remove it.
            if (!file || file->IsAt(temporaryPath))
                return file;
        }
        errno = EBUSY;
        return {};
    }

    ArchiveReplaced Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path,
                            ArchiveTarget wanted) override {
        auto const target = Resolve(path);
        int const descriptor = static_cast<SystemFile &>(file).GetDescriptor();
        if (!PassOnOwner(target, descriptor) || fsync(descriptor) != 0)
            return ArchiveReplaced::Failed;
        if (wanted == ArchiveTarget::OnlyFree) {
            if (!MoveToFreeName(temporaryPath.c_str(), target.c_str()))
                return errno == EEXIST ? ArchiveReplaced::Occupied : ArchiveReplaced::Failed;
        } else if (rename(temporaryPath.c_str(), target.c_str()) != 0) {
            return ArchiveReplaced::Failed;
        }
        // The new document stands from here on; whether its name survives a power cut is what this is about.
        return SyncDirectory(target.parent_path(), descriptor) ? ArchiveReplaced::Done : ArchiveReplaced::Unconfirmed;
    }

    void Remove(std::string const & temporaryPath) override { unlink(temporaryPath.c_str()); }

private:
    static Counted<SystemFile> CreateLocked(std::string const & path, std::string & temporaryPath) {
        auto const target = Resolve(path);
        std::string prefix = ".";
        prefix += target.filename().string();
        prefix += temporaryMark;
        RemoveStale(target.parent_path(), prefix);
        std::string name;
        // What takes the place of a private document is private from the beginning.
        std::error_code error;
        File file = CreateNew((target.parent_path() / prefix).string(), fs::exists(target, error) ? 0600 : 0666, name);
        if (!file.IsOpen())
            return {};
        temporaryPath = name;
        auto const created = MakeCounted<SystemFile>(std::move(file));
        if (created->Lock())
            return created;
        int const reason = errno;
        unlink(name.c_str());
        errno = reason;
        return {};
    }

    // Gives a file what the one has whose place it takes.
    static bool PassOnOwner(fs::path const & target, int descriptor) {
        struct stat old;
        if (stat(target.c_str(), &old) != 0)
            return true;
        // The owner first: a change of owner clears bits of the mode. Only root can give a file away, others to a group
        // of theirs.
        constexpr uid_t asItIs = ~uid_t(0);
        bool const hasGroup =
            fchown(descriptor, old.st_uid, old.st_gid) == 0 || fchown(descriptor, asItIs, old.st_gid) == 0;
        mode_t mode = old.st_mode & 07777;
        if (!hasGroup) // another group may do no more than everybody
            mode &= ~mode_t(S_IRWXG) | (mode & S_IRWXO) << 3;
        return fchmod(descriptor, mode) == 0;
    }
};
}

Counted<ArchiveDisk> ArchiveDisk::GetSystem() {
    static Counted<ArchiveDisk> const disk(new SystemDisk);
    return disk;
}
}
