#pragma once

#include "storage/Block.h"

namespace Raster {
/// Keeps a block in memory for a scope. Who uses it sees to it that the block stays alive.
class ConstBlockPin {
public:
    /// Throws if memory or the disk fails.
    explicit ConstBlockPin(Block const & pinned) : block(pinned) { block.IncrementRefCountConst(); }
    ConstBlockPin(ConstBlockPin const &) = delete;
    ConstBlockPin & operator=(ConstBlockPin const &) = delete;
    ~ConstBlockPin() { block.DecrementRefCountConst(); }

private:
    Block const & block;
};
}
