#pragma once

#include "kernel/Counted.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/Export.h"
#include "kernel/FileStoreItem.h"
#include "storage/SlabAllocator.h"

#include <atomic>
#include <cstdint>

namespace Raster {
class Block;

/// The buffer of a block, in the form in which a document stores it: an item of 65536 raw bytes. It belongs to one
/// block, though a holder may share it.
class RASTER_API Data final : public Kernel::FileStoreItem {
public:
    static constexpr std::size_t ByteCount = SlabAllocator::BufferBytes;

    /// Throws `std::bad_alloc` if there is no memory.
    explicit Data(SlabAllocator::Content content = SlabAllocator::Content::Overwritten);
    ~Data() override;

    void Save(Kernel::OutStream & stream, Kernel::FileStoreOut & store) const override;
    bool Load(Kernel::InStream & stream, Kernel::FileStore & store) override;
    Kernel::FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetItemType(); }
    static Kernel::FileStoreItemType const & GetItemType();

    /// Null while the block is on disk. Stays as it is while the block is pinned.
    unsigned int * GetBuffer() const noexcept { return buffer.load(std::memory_order_acquire); }
    /// Takes a buffer of the slab allocator over; there must be none. Under the block's `bufferLock`.
    void SetBuffer(unsigned int * newBuffer) const noexcept { buffer.store(newBuffer, std::memory_order_release); }
    void FreeBuffer() const noexcept;

    /// Belongs to `block` from now on, unless it belongs to another one. The block is one that is counted.
    /// @return whether it belongs to `block`.
    /// The owner of a holder's item changes under the holder's lock.
    bool Own(Block const * block) noexcept;
    /// Before its owner goes, and with the bytes back in memory if anybody else may want them.
    void Disown() noexcept;
    Block const * GetOwner() const noexcept { return owner.load(std::memory_order_acquire); }

private:
    Kernel::Counted<Block const> HoldOwner() const;

    std::atomic<unsigned int *> mutable buffer; // owned
    // Guards changes of the owner, so that it stays while a reference to it is taken.
    Kernel::CriticalSectionSpin mutable ownerLock{Kernel::LockRank::Leaf};
    std::atomic<Block const *> owner{nullptr}; // not counted; the block clears it before it goes
};
}
