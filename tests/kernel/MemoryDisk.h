/// A disk in memory that records what is done to it, fails when it is told to, and shows what a crash would have left.
/// Threads: any may use the disk and its files.
#pragma once

#include "kernel/ArchiveDisk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

class MemoryDisk final : public Kernel::ArchiveDisk {
public:
    using Content = std::vector<std::uint8_t>;
    using Files = std::map<std::string, Content>;

    /// One step that reached the disk, or its cache.
    struct Step {
        enum class Kind { Write, Truncate, Sync, Create, Rename, SyncNames, Remove } kind;
        std::string path, target;
        std::uint64_t offset = 0, size = 0;
        Content bytes;
    };

    struct Inode {
        Content bytes;
        std::string path;
        bool isLocked = false;
    };

    class File final : public Kernel::ArchiveFile {
    public:
        File(MemoryDisk & fileDisk, std::shared_ptr<Inode> fileInode) : disk(&fileDisk), inode(std::move(fileInode)) {}
        ~File() override { Unlock(); }

        std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
            auto const guard = disk->Guard();
            auto const & bytes = inode->bytes;
            auto const count = offset < bytes.size() ? std::min<std::uint64_t>(size, bytes.size() - offset) : 0;
            if (count != 0)
                std::memcpy(dest, bytes.data() + offset, count);
            return count;
        }
        std::optional<std::uint64_t> GetSize() const override {
            auto const guard = disk->Guard();
            return inode->bytes.size();
        }
        std::optional<std::uint64_t> GetFreeBytes() const override { return disk->freeBytes; }
        bool Write(std::uint64_t offset, void const * data, std::uint64_t size) override {
            auto const guard = disk->Guard();
            auto const * const first = static_cast<std::uint8_t const *>(data);
            std::uint64_t const count = disk->IsFailing() ? size / 2 : size; // a short write comes before the error
            if (inode->bytes.size() < offset + count)
                inode->bytes.resize(offset + count);
            std::copy(first, first + count, inode->bytes.begin() + static_cast<std::ptrdiff_t>(offset));
            disk->steps.push_back({Step::Kind::Write, inode->path, {}, offset, count, {first, first + count}});
            return disk->Succeed(count == size);
        }
        bool Truncate(std::uint64_t size) override {
            auto const guard = disk->Guard();
            if (disk->IsFailing())
                return disk->Succeed(false);
            inode->bytes.resize(size);
            disk->steps.push_back({Step::Kind::Truncate, inode->path, {}, 0, size, {}});
            return disk->Succeed(true);
        }
        bool Sync() override {
            auto const guard = disk->Guard();
            if (disk->IsFailing())
                return disk->Succeed(false);
            disk->steps.push_back({Step::Kind::Sync, inode->path, {}, 0, 0, {}});
            return disk->Succeed(true);
        }
        bool Lock() override {
            auto const guard = disk->Guard();
            if (inode->isLocked)
                return false;
            return hasLock = inode->isLocked = true;
        }
        void Unlock() override {
            auto const guard = disk->Guard();
            if (std::exchange(hasLock, false))
                inode->isLocked = false;
        }
        bool IsAt(std::string const & path) const override {
            auto const guard = disk->Guard();
            auto const found = disk->inodes.find(path);
            return found != disk->inodes.end() && found->second == inode;
        }

        Kernel::Counted<MemoryDisk> const disk;
        std::shared_ptr<Inode> const inode;

    private:
        bool hasLock = false;
    };

    explicit MemoryDisk(Files const & files = {}) {
        for (auto const & [path, bytes] : files)
            inodes[path] = std::make_shared<Inode>(Inode{bytes, path});
    }

    Kernel::Counted<Kernel::ArchiveFile> OpenToRead(std::string const & path) override { return Open(path); }
    Kernel::Counted<Kernel::ArchiveFile> OpenToUpdate(std::string const & path) override { return Open(path); }
    Kernel::Counted<Kernel::ArchiveFile> CreateBeside(std::string const & path, std::string & temporary) override {
        auto const guard = Guard();
        if (IsFailing()) {
            Succeed(false);
            return {};
        }
        temporary = "." + path + ".saving-" + std::to_string(steps.size());
        inodes[temporary] = std::make_shared<Inode>(Inode{{}, temporary});
        steps.push_back({Step::Kind::Create, temporary, {}, 0, 0, {}});
        Succeed(true);
        return Open(temporary);
    }
    Kernel::ArchiveReplaced Replace(Kernel::ArchiveFile & file, std::string const & temporary, std::string const & path,
                                    Kernel::ArchiveTarget target) override {
        auto const guard = Guard();
        using Kernel::ArchiveReplaced;
        if (!file.Sync())
            return ArchiveReplaced::Failed;
        if (target == Kernel::ArchiveTarget::OnlyFree && inodes.count(path) != 0)
            return ArchiveReplaced::Occupied;
        if (!Succeed(!IsFailing()))
            return ArchiveReplaced::Failed;
        inodes[path] = inodes[temporary];
        inodes[path]->path = path;
        inodes.erase(temporary);
        steps.push_back({Step::Kind::Rename, temporary, path, 0, 0, {}});
        if (!Succeed(!IsFailing()))
            return ArchiveReplaced::Unconfirmed;
        steps.push_back({Step::Kind::SyncNames, path, {}, 0, 0, {}});
        return ArchiveReplaced::Done;
    }
    void Remove(std::string const & temporary) override {
        auto const guard = Guard();
        inodes.erase(temporary);
        steps.push_back({Step::Kind::Remove, temporary, {}, 0, 0, {}});
    }

    Files GetFiles() const {
        auto const guard = Guard();
        Files files;
        for (auto const & [path, inode] : inodes)
            files[path] = inode->bytes;
        return files;
    }

    /// The n-th operation from now that changes something fails, and `count - 1` after it. 0 is none.
    void FailAt(std::uint64_t n, std::uint64_t count = 1) {
        auto const guard = Guard();
        operation = 0;
        failFrom = n;
        failCount = count;
    }
    std::uint64_t GetOperationCount() const {
        auto const guard = Guard();
        return operation;
    }

    std::vector<Step> steps;                ///< to be looked at when nobody uses the disk
    std::optional<std::uint64_t> freeBytes; ///< what it says that there is room for; nothing says nothing

private:
    // Some calls make others.
    std::unique_lock<std::recursive_mutex> Guard() const { return std::unique_lock(mutex); }

    Kernel::Counted<Kernel::ArchiveFile> Open(std::string const & path) {
        auto const guard = Guard();
        auto const found = inodes.find(path);
        if (found == inodes.end()) {
            errno = ENOENT;
            return {};
        }
        return Kernel::Counted<Kernel::ArchiveFile>(new File(*this, found->second));
    }
    bool IsFailing() const {
        return failFrom != 0 && operation + 1 >= failFrom && operation + 1 < failFrom + failCount;
    }
    bool Succeed(bool isDone) {
        ++operation;
        if (!isDone)
            errno = ENOSPC;
        return isDone;
    }

    mutable std::recursive_mutex mutex; // of everything here, and of what the files hold
    std::map<std::string, std::shared_ptr<Inode>> inodes;
    std::uint64_t operation = 0, failFrom = 0, failCount = 1;
};

/// What a power cut after a number of steps may leave of the files: what was synced is there, of the rest anything may
/// be.
class CrashedDisk {
public:
    enum class Rest { Kept, Lost, Torn, Reordered };

    CrashedDisk(MemoryDisk::Files before, std::vector<MemoryDisk::Step> const & steps, std::size_t count, Rest rest,
                std::mt19937 & random)
        : files(std::move(before)) {
        using Kind = MemoryDisk::Step::Kind;
        for (std::size_t i = 0; i < count; ++i) {
            auto const & step = steps[i];
            bool const isSafe = step.kind == Kind::Create || step.kind == Kind::Remove || IsSynced(steps, i, count);
            if (isSafe || rest == Rest::Kept)
                Apply(step, 0, step.bytes.size());
            else if (rest == Rest::Torn)
                ApplyTorn(step, random);
            else if (rest == Rest::Reordered && random() % 2 != 0)
                Apply(step, 0, step.bytes.size());
        }
    }

    MemoryDisk::Files files;

private:
    using Step = MemoryDisk::Step;

    static bool IsSynced(std::vector<Step> const & steps, std::size_t i, std::size_t count) {
        bool const isRename = steps[i].kind == Step::Kind::Rename;
        auto const syncing = isRename ? Step::Kind::SyncNames : Step::Kind::Sync;
        auto const & path = isRename ? steps[i].target : steps[i].path;
        for (std::size_t j = i + 1; j < count; ++j)
            if (steps[j].kind == syncing && steps[j].path == path)
                return true;
        return false;
    }
    // Sectors of 512 bytes arrive, or not, each on its own.
    void ApplyTorn(Step const & step, std::mt19937 & random) {
        if (step.kind != Step::Kind::Write) {
            if (random() % 2 != 0)
                Apply(step, 0, 0);
            return;
        }
        for (std::uint64_t at = 0; at < step.bytes.size();) {
            auto const next = std::min<std::uint64_t>(step.bytes.size(), 512 - (step.offset + at) % 512 + at);
            if (random() % 2 != 0)
                Apply(step, at, next - at);
            at = next;
        }
    }
    void Apply(Step const & step, std::uint64_t from, std::uint64_t length) {
        switch (step.kind) {
        case Step::Kind::Create:
            files[step.path];
            break;
        case Step::Kind::Remove:
            files.erase(step.path);
            break;
        case Step::Kind::Rename:
            files[step.target] = files[step.path];
            files.erase(step.path);
            break;
        case Step::Kind::Truncate:
            files[step.path].resize(step.size);
            break;
        case Step::Kind::Write: {
            auto & bytes = files[step.path];
            if (bytes.size() < step.offset + from + length)
                bytes.resize(step.offset + from + length);
            std::copy_n(step.bytes.begin() + static_cast<std::ptrdiff_t>(from), length,
                        bytes.begin() + static_cast<std::ptrdiff_t>(step.offset + from));
            break;
        }
        case Step::Kind::Sync:
        case Step::Kind::SyncNames:
            break;
        }
    }
};
