#pragma once

#include "kernel/Counted.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/ItemID.h"

#include <utility>

namespace Kernel {
/// Names a shared object of a store that could not be loaded: what an object keeps beside the null pointer that it got
/// instead, to name it again when it is saved. It goes when the object gets another one in its place, or is meant to
/// have none. None by default. Copies are as good as the first; each keeps the file open in which the object lies.
class SharedObjectReference {
public:
    SharedObjectReference() noexcept = default;
    SharedObjectReference(ItemID objectID, Counted<FileStoreItemSource const> objectSource) noexcept
        : id(objectID), source(std::move(objectSource)) {}

    explicit operator bool() const noexcept { return static_cast<bool>(id); }
    ItemID GetID() const noexcept { return id; }
    /// Where the store has the object, or would have it.
    Counted<FileStoreItemSource const> const & GetSource() const noexcept { return source; }
    void Reset() noexcept { *this = {}; }

    bool operator==(SharedObjectReference const & other) const noexcept { return id == other.id; }

private:
    ItemID id;
    Counted<FileStoreItemSource const> source;
};
}
