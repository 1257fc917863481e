#include "storage/Data.h"

#include "kernel/InSerialiserFile.h"
#include "kernel/InStream.h"
#include "kernel/OutStream.h"
#include "storage/BlockPin.h"

#include <cstring>
#include <span>
#include <stdexcept>

namespace Raster {
Data::Data(SlabAllocator::Content content) : buffer(SlabAllocator::Instance().Allocate(content)) {}

Data::~Data() { FreeBuffer(); }

void Data::FreeBuffer() const noexcept {
    SlabAllocator::Instance().Free(buffer.exchange(nullptr, std::memory_order_acq_rel));
}

bool Data::Own(Block const * block) noexcept {
    Block const * present = nullptr;
    return owner.compare_exchange_strong(present, block, std::memory_order_acq_rel) || present == block;
}

// The store may write the item long after the save of its block, which may be on disk by then.
void Data::Save(Kernel::OutStream & stream, Kernel::FileStoreOut &) const {
    auto const write = [&] {
        if (!GetBuffer()) // the disk failed to give the bytes back: better no save than one of garbage
            throw Kernel::OutStream::WriteException();
        stream.WriteAll(GetBuffer(), ByteCount);
    };
    auto const block = GetOwner();
    if (!block)
        return write();
    ConstBlockPin const pin(*block);
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
