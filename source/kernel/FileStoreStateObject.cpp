#include "kernel/FileStoreStateObject.h"

namespace Kernel {
void FileStoreStateObject::MarkAsStored(std::uint64_t generation) noexcept {
    auto seen = storedGeneration.load(std::memory_order_relaxed);
    while (seen < generation && !storedGeneration.compare_exchange_weak(seen, generation, std::memory_order_release,
                                                                        std::memory_order_relaxed)) {
    }
}
}
