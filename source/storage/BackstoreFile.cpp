#include "storage/BackstoreFile.h"

#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"
#include "storage/BackstoreReadError.h"
#include "storage/Block.h"
#include "storage/PrivateFile.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <unistd.h>

namespace Raster {
/// One file and the state of its slots.
class BackstoreArray {
public:
    explicit BackstoreArray(std::string const & directory)
        : file(directory, "CorvidBackstore", BackstoreFile::FileName) {
        slots.reserve(initialCapacity);
        freeSlots.reserve(initialCapacity);
    }

    static constexpr std::size_t initialCapacity = 1024;

    bool IsUnused() const { return freeSlots.size() == slots.size(); }

    PrivateFile file;
    std::vector<Block const *> slots;     // by number; null is free
    std::vector<std::uint32_t> freeSlots; // a stack, with room for every slot, so that freeing never allocates
};

namespace {
off_t OffsetOf(BackstoreSlot slot) { return off_t(slot.number) << 16; }

// Keeps a file-size limit from killing the process: the write then fails like any other.
class SizeSignalShield {
public:
    SizeSignalShield() {
        sigemptyset(&sizeSignal);
        sigaddset(&sizeSignal, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &sizeSignal, &before);
    }
    ~SizeSignalShield() {
        if (sigismember(&before, SIGXFSZ))
            return;
        if (hasFailed) {
            timespec const now{};
            sigtimedwait(&sizeSignal, nullptr, &now); // takes the pending one away
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    void NoteFailure() { hasFailed = true; }

private:
    sigset_t sizeSignal, before;
    bool hasFailed = false;
};
}

BackstoreFile & BackstoreFile::Instance() {
    static BackstoreFile & instance = *[] {
        auto const made = new BackstoreFile;
        MemoryManager::Instance().SetFailureReporter([] { Instance().ReportFailure(); });
        std::atexit([] { Instance().UnlinkAll(); });
        return made;
    }();
    return instance;
}

bool BackstoreFile::Open(std::string const & directory) {
    std::string failure;
    {
        Kernel::ScopedLock const guard(lock);
        try {
            if (current && current->IsUnused())
                current.reset(); // first, so that the same name is free again
            if (current)
                retired.reserve(retired.size() + 1);
            auto array = std::make_unique<BackstoreArray>(directory);
            if (current)
                retired.push_back(std::move(current));
            current = std::move(array);
        } catch (std::system_error const & error) {
            failure = error.what();
        }
    }
    isFailing.store(false, std::memory_order_relaxed); // what comes now is news
    if (!failure.empty())
        Kernel::Trace("No backstore: %1\n", failure.c_str());
    return failure.empty();
}

void BackstoreFile::UnlinkAll() noexcept {
    Kernel::ScopedLock const guard(lock);
    if (current)
        current->file.Unlink();
    for (auto const & array : retired)
        array->file.Unlink();
}

// Returns 0, or why there is no slot.
int BackstoreFile::TakeSlot(BackstoreSlot & slot) {
    Kernel::ScopedLock const guard(lock);
    if (!current)
        return EBADF; // never opened
    auto & array = *current;
    std::uint32_t number;
    if (!array.freeSlots.empty()) {
        number = array.freeSlots.back();
        array.freeSlots.pop_back();
    } else {
        try {
            if (array.freeSlots.capacity() <= array.slots.size()) {
                PixelMemory::CheckFault();
                array.freeSlots.reserve(2 * array.slots.size() + BackstoreArray::initialCapacity);
            }
            array.slots.push_back(nullptr);
        } catch (std::bad_alloc const &) {
            return ENOMEM;
        }
        number = static_cast<std::uint32_t>(array.slots.size() - 1);
    }
    slot = {&array, number};
    return 0;
}

void BackstoreFile::ReturnSlot(BackstoreSlot slot) noexcept {
    Kernel::ScopedLock const guard(lock);
    auto & array = *slot.array;
    array.slots[slot.number] = nullptr;
    array.freeSlots.push_back(slot.number);
    if (&array == current.get() || !array.IsUnused())
        return;
    std::erase_if(retired, [&](auto const & candidate) { return candidate.get() == &array; });
}

bool BackstoreFile::WriteFully(BackstoreSlot slot, void const * buffer) {
    SizeSignalShield shield;
    auto const chosen = writeFunction.load(std::memory_order_acquire);
    auto const write = chosen ? chosen : &pwrite;
    auto const bytes = static_cast<unsigned char const *>(buffer);
    for (std::size_t done = 0; done < SlotBytes;) {
        auto const count = write(slot.array->file.GetDescriptor(), bytes + done, SlotBytes - done,
                                 OffsetOf(slot) + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            shield.NoteFailure();
            NoteFailure(count < 0 ? errno : ENOSPC);
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

void BackstoreFile::NoteFailure(int error) {
    if (!isFailing.exchange(true, std::memory_order_relaxed))
        unreportedError.store(error, std::memory_order_relaxed);
}

void BackstoreFile::ReportFailure() {
    if (unreportedError.load(std::memory_order_relaxed) == 0)
        return;
    if (int const error = unreportedError.exchange(0, std::memory_order_relaxed))
        Kernel::Trace("The backstore can't be written (%1): pixels stay in memory, above its limit\n",
                      std::generic_category().message(error).c_str());
}

bool BackstoreFile::WriteSlot(Block const & block, void const * buffer) {
    BackstoreSlot slot;
    if (int const error = TakeSlot(slot)) {
        NoteFailure(error);
        return false;
    }
    if (!WriteFully(slot, buffer)) {
        ReturnSlot(slot);
        return false;
    }
    isFailing.store(false, std::memory_order_relaxed);
    block.slot = slot;
    Kernel::ScopedLock const guard(lock);
    slot.array->slots[slot.number] = &block;
    return true;
}

void BackstoreFile::ReadSlot(Block const & block, void * buffer) const {
    auto const chosen = readFunction.load(std::memory_order_acquire);
    auto const read = chosen ? chosen : &pread;
    auto const slot = block.slot;
    auto const bytes = static_cast<unsigned char *>(buffer);
    for (std::size_t done = 0; done < SlotBytes;) {
        auto const count = read(slot.array->file.GetDescriptor(), bytes + done, SlotBytes - done,
                                OffsetOf(slot) + static_cast<off_t>(done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            throw BackstoreReadError(count < 0 ? errno : 0);
        done += static_cast<std::size_t>(count);
    }
}

void BackstoreFile::ReadAndFreeSlot(Block const & block, void * buffer) {
    ReadSlot(block, buffer);
    FreeSlot(block);
}

void BackstoreFile::FreeSlot(Block const & block) noexcept {
    auto const slot = std::exchange(block.slot, {});
    if (slot.array)
        ReturnSlot(slot);
}

std::string BackstoreFile::GetPath() const {
    Kernel::ScopedLock const guard(lock);
    return current ? current->file.GetPath() : std::string();
}

std::size_t BackstoreFile::GetSlotCount() const {
    Kernel::ScopedLock const guard(lock);
    return current ? current->slots.size() : 0;
}

std::size_t BackstoreFile::GetFreeSlotCount() const {
    Kernel::ScopedLock const guard(lock);
    return current ? current->freeSlots.size() : 0;
}

void BackstoreFile::SetFileFunctions(ReadFunction read, WriteFunction write) {
    readFunction.store(read, std::memory_order_release);
    writeFunction.store(write, std::memory_order_release);
}
}
