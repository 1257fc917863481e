#include "kernel/ArchiveDisk.h"

#include "kernel/File.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
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

namespace {
namespace fs = std::filesystem;

constexpr char const * temporaryMark = ".saving-";

// An open-file-description lock: it belongs to the descriptor, so that other parts of this process are kept out too.
bool SetLock(int descriptor, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

bool TryLock(int descriptor) { return SetLock(descriptor, F_WRLCK); }

bool SyncDirectory(fs::path const & directory) {
    int const descriptor = open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    bool const isSynced = fsync(descriptor) == 0;
    close(descriptor);
    return isSynced;
}

// Where a path leads in the end, so that a link stays a link.
fs::path Resolve(std::string const & path) {
    std::error_code error;
    auto const resolved = fs::weakly_canonical(path, error);
    return error ? fs::path(path) : resolved;
}

class SystemFile final : public ArchiveFile {
public:
    explicit SystemFile(File openFile) : file(std::move(openFile)) {}

    std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
        return file.ReadAt(offset, dest, size);
    }
    std::optional<std::uint64_t> GetSize() const override { return file.GetSize(); }
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
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", number);
        name = prefix;
        name += digits;
        File file(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (file.IsOpen() || errno != EEXIST)
            return file;
    }
    return {};
}

// Temporary files of savers that died: nobody holds their lock.
void RemoveStale(fs::path const & directory, std::string const & prefix) {
    std::error_code error;
    for (fs::directory_iterator i(directory.empty() ? "." : directory, error), end; !error && i != end;
         i.increment(error)) {
        auto const name = i->path().filename().string();
        if (name.compare(0, prefix.size(), prefix) != 0)
            continue;
        File file(open(i->path().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (file.IsOpen() && TryLock(file.GetDescriptor()))
            unlink(i->path().c_str());
    }
}

class SystemDisk final : public ArchiveDisk {
public:
    Counted<ArchiveFile> OpenToRead(std::string const & path) override { return Open(path, "rb"); }
    Counted<ArchiveFile> OpenToUpdate(std::string const & path) override { return Open(path, "r+b"); }

    Counted<ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override {
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
        if (!TryLock(file.GetDescriptor())) {
            int const reason = errno;
            unlink(name.c_str());
            errno = reason;
            return {};
        }
        temporaryPath = name;
        return Counted<ArchiveFile>(new SystemFile(std::move(file)));
    }

    bool Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path) override {
        auto const target = Resolve(path);
        int const descriptor = static_cast<SystemFile &>(file).GetDescriptor();
        struct stat old;
        if (stat(target.c_str(), &old) == 0) {
            // The owner first: a change of owner clears bits of the mode. Only root can give a file away.
            static_cast<void>(fchown(descriptor, old.st_uid, old.st_gid) == 0);
            if (fchmod(descriptor, old.st_mode & 07777) != 0)
                return false;
        }
        if (fsync(descriptor) != 0 || rename(temporaryPath.c_str(), target.c_str()) != 0)
            return false;
        // The new document stands from here on; whether its name survives a power cut is what this is about.
        SyncDirectory(target.parent_path());
        return true;
    }

    void Remove(std::string const & temporaryPath) override { unlink(temporaryPath.c_str()); }
};
}

Counted<ArchiveDisk> ArchiveDisk::GetSystem() {
    static Counted<ArchiveDisk> const disk(new SystemDisk);
    return disk;
}
}
