/// A store for items that refer to nothing, such as the bytes of image files.
#pragma once

#include "kernel/FileStoreOut.h"
#include "kernel/ItemID.h"

#include <cstdlib>

namespace Fuzz {
class NoStore final : public Kernel::FileStoreOut {
public:
    Kernel::ItemID StoreItem(Kernel::DelayLoadHolder &, Kernel::FileStoreOutPathGenerator const &,
                             Kernel::FileStoreCompressionHint const *) override {
        std::abort();
    }
    Kernel::ItemID StoreSharedObject(Kernel::SharedSerialisable const &) override { std::abort(); }
};
}
