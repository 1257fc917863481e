#pragma once

#include "kernel/CriticalSection.h"
#include "kernel/Export.h"
#include "storage/BackstoreSlot.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Raster {
class Block;

/// The process-wide file for what doesn't fit into memory: an array of slots of 65536 bytes, without a header. What a
/// slot means is known in memory only, so the file is worthless after the process has ended, and is deleted then.
///
/// The file is private: mode 0600, never reached through a link, locked for this process. If another process has it,
/// or somebody else owns it, a file of the same name in a private sub-directory is used.
///
/// Threads: any. Slots are chosen under a lock, and read and written without it.
class RASTER_API BackstoreFile {
public:
    static constexpr std::size_t SlotBytes = 65536;
    static constexpr char const * FileName = "CorvidBackstore.dat";

    /// Never destroyed; the files are unlinked when the process exits.
    static BackstoreFile & Instance();
    BackstoreFile(BackstoreFile const &) = delete;
    BackstoreFile & operator=(BackstoreFile const &) = delete;

    /// Uses this directory from now on. A file with slots in use stays until the last of them is given up.
    /// @return false, and traced, if no file can be had there. Unless the file before is still in use, nothing can be
    ///         written then.
    bool Open(std::string const & directory);

    /// Writes the buffer to a slot, the one freed most recently if there is one, and notes it in the block.
    /// @return false if the disk took less than all. The block then has no slot.
    bool WriteSlot(Block const & block, void const * buffer);
    /// Reads all bytes back, and only then frees the slot.
    /// Throws `BackstoreReadError`; the block then keeps its slot, and the buffer is of undefined content.
    void ReadAndFreeSlot(Block const & block, void * buffer);
    /// Reads the bytes and leaves the slot as it is. Throws as above.
    void ReadSlot(Block const & block, void * buffer) const;
    /// Does nothing for a block without a slot. Never fails.
    void FreeSlot(Block const & block) noexcept;

    /// Says once per episode, through `Kernel::Trace`, that writing fails. Call it with no lock held.
    void ReportFailure();

    std::string GetPath() const;          ///< Of the present file; empty if there is none.
    std::size_t GetSlotCount() const;     ///< Of the present file: its size in slots.
    std::size_t GetFreeSlotCount() const; ///< Of the present file.

    using ReadFunction = ssize_t (*)(int, void *, size_t, off_t);
    using WriteFunction = ssize_t (*)(int, void const *, size_t, off_t);
    /// For tests of failing disks: stand-ins for `pread` and `pwrite`. Null brings the real ones back.
    void SetFileFunctions(ReadFunction read, WriteFunction write);

private:
    BackstoreFile() = default;
    ~BackstoreFile() = delete;

    int TakeSlot(BackstoreSlot & slot);
    void ReturnSlot(BackstoreSlot slot) noexcept;
    void UnlinkAll() noexcept;
    bool WriteFully(BackstoreSlot slot, void const * buffer);
    void NoteFailure(int error);

    mutable Kernel::CriticalSection lock{Kernel::LockRank::Backstore}; // guards the arrays and their slots
    std::unique_ptr<BackstoreArray> current;                           // null before `Open`
    std::vector<std::unique_ptr<BackstoreArray>> retired;              // with slots still in use
    std::atomic<ReadFunction> readFunction{nullptr};                   // null is the system's
    std::atomic<WriteFunction> writeFunction{nullptr};
    // An episode of failure lasts from a failed write to the next that succeeds.
    std::atomic<bool> isFailing{false};
    std::atomic<int> unreportedError{0};
};
}
