#pragma once

#include "kernel/Export.h"

#include <atomic>
#include <cstdint>

namespace Kernel {
/// Tells a file store whether what it has stored of an item is still what the item holds.
///
/// Every change gets a number. A save notes the number, writes the item, and reports that number once the bytes are
/// safe: if the item changed meanwhile the numbers differ and it stays dirty. A new item is dirty.
/// Threads: all members may be called from any thread.
class RASTER_API FileStoreStateObject {
public:
    FileStoreStateObject() noexcept = default;
    FileStoreStateObject(FileStoreStateObject const &) = delete;
    FileStoreStateObject & operator=(FileStoreStateObject const &) = delete;

    /// Before a change that takes a while. A save that runs during the change won't count as having stored it if
    /// `MarkAsDirty` follows; this one sees to it that a save which began earlier doesn't either.
    void AboutToMakeDirty() noexcept { MarkAsDirty(); }
    /// The item changes now, or has just changed.
    void MarkAsDirty() noexcept { dirtyGeneration.fetch_add(1, std::memory_order_release); }
    /// Whether the stored form may stand for the item: nothing changed since it was stored or loaded.
    bool CanShare() const noexcept {
        return storedGeneration.load(std::memory_order_acquire) == dirtyGeneration.load(std::memory_order_acquire);
    }

    /// The number of the latest change. Pairs with the release in `MarkAsDirty`.
    std::uint64_t GetDirtyGeneration() const noexcept { return dirtyGeneration.load(std::memory_order_acquire); }
    /// The state that had this number is in the store: written, or just loaded from there. Older news is ignored.
    void MarkAsStored(std::uint64_t generation) noexcept;

    /// A save has all bytes of the state that had this number, and won't ask for them again.
    void MarkAsTaken(std::uint64_t generation) noexcept {
        takenGeneration.store(generation, std::memory_order_release);
    }
    /// Whether a save has what the item holds now: nobody needs to keep it for the sake of that save.
    bool IsTaken() const noexcept { return takenGeneration.load(std::memory_order_acquire) == GetDirtyGeneration(); }

private:
    std::atomic<std::uint64_t> dirtyGeneration{1};
    std::atomic<std::uint64_t> storedGeneration{0};
    std::atomic<std::uint64_t> takenGeneration{0};
};
}
