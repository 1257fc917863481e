#include "storage/Data.h"

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

// Only a file store calls these two, and none can be opened yet.
void Data::Save(Kernel::OutStream &, Kernel::FileStoreOut &) const {
    throw std::logic_error("tiles can't be stored in documents yet");
}

bool Data::Load(Kernel::InStream &, Kernel::FileStore &) { return false; }

Kernel::FileStoreItemType const & Data::GetItemType() {
    static Kernel::FileStoreItemType const type("DatI", Kernel::ItemNesting::NotNestable,
                                                Kernel::ItemRecovery::Recoverable,
                                                [] { return Kernel::Counted<Kernel::FileStoreItem>(new Data); });
    return type;
}
}
