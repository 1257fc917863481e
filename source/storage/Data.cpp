#include "storage/Data.h"

#include "kernel/InSerialiserFile.h"
#include "kernel/InStream.h"
#include "kernel/OutStream.h"
#include "kernel/ScopedLock.h"
#include "storage/BlockPin.h"

#include <cstring>
#include <span>
#include <stdexcept>
#include <thread>

namespace Raster {
Data::Data(SlabAllocator::Content content) : buffer(SlabAllocator::Instance().Allocate(content)) {}

Data::~Data() { FreeBuffer(); }

void Data::FreeBuffer() const noexcept {
    SlabAllocator::Instance().Free(buffer.exchange(nullptr, std::memory_order_acq_rel));
}

bool Data::Own(Block const * block) noexcept {
    Kernel::ScopedLock const guard(ownerLock);
    Block const * present = nullptr;
    return owner.compare_exchange_strong(present, block, std::memory_order_acq_rel) || present == block;
}

void Data::Disown() noexcept {
    Kernel::ScopedLock const guard(ownerLock);
    owner.store(nullptr, std::memory_order_release);
}

// A reference to the owner; null if there is none. One that is about to go gives the bytes back first.
Kernel::Counted<Block const> Data::HoldOwner() const {
    for (;; std::this_thread::yield()) {
        Kernel::ScopedLock const guard(ownerLock);
        auto const block = GetOwner();
        if (!block)
            return nullptr;
        if (block->RetainIfHeld())
            return Kernel::Counted<Block const>::Adopt(block);
    }
}

// The store may write the item long after the save of its block, which may be on disk by then, or gone.
void Data::Save(Kernel::OutStream & stream, Kernel::FileStoreOut &) const {
    auto const write = [&] {
        if (!GetBuffer()) // the disk failed to give the bytes back: better no save than one of garbage
            throw Kernel::OutStream::WriteException();
        stream.WriteAll(GetBuffer(), ByteCount);
    };
    auto const block = HoldOwner();
    if (!block)
        return write();
    ConstBlockPin const pin(*block);
    // A session marks the item when it begins. What one that is open by now writes after this isn't saved yet.
    if (block->HasMutableSession())
        GetState().MarkAsDirty();
    write();
}

// Raw, or in the older form: a stream of properties with the bytes as one of them.
bool Data::Load(Kernel::InStream & stream, Kernel::FileStore & store) {
    if (stream.GetSize() == ByteCount)
        return stream.ReadAll(GetBuffer(), ByteCount);
    try {
        auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(stream, store, /*acceptFutureVersions=*/false);
        std::span<std::uint8_t const> bytes;
        if (!parsed->LoadRawData("DatI", bytes) || bytes.size() != ByteCount)
            return false;
        std::memcpy(GetBuffer(), bytes.data(), ByteCount);
        return true;
    } catch (std::runtime_error const &) { // of a later version, or no such stream
        return false;
    }
}

Kernel::FileStoreItemType const & Data::GetItemType() {
    static Kernel::FileStoreItemType const type("DatI", Kernel::ItemNesting::NotNestable,
                                                Kernel::ItemRecovery::Recoverable,
                                                [] { return Kernel::Counted<Kernel::FileStoreItem>(new Data); });
    return type;
}
}
