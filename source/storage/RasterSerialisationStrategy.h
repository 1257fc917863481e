#pragma once

#include "kernel/SerialisationStrategy.h"

#include <utility>
#include <vector>

namespace Raster {
/// What a document's saver wants of the bitmaps in it.
class RASTER_API RasterSerialisationStrategy final : public Kernel::SerialisationStrategy {
public:
    enum Flags : unsigned {
        AllowByReference = 1, ///< a bitmap that still is what its backing holds is stored as that
        SaveMipmaps = 2
    };

    /// @param levelSizes  of these only the last counts: the largest width or height of a level that is saved; 0 or
    /// none
    ///                    is no limit.
    /// @param saverFlags  any of `Flags`.
    RasterSerialisationStrategy(std::vector<int> levelSizes, unsigned saverFlags)
        : sizes(std::move(levelSizes)), flags(saverFlags) {}
    ~RasterSerialisationStrategy() override;

    int GetLargestLevel() const { return sizes.empty() ? 0 : sizes.back(); }
    unsigned GetFlags() const { return flags; }

private:
    std::vector<int> sizes;
    unsigned flags;
};
}
