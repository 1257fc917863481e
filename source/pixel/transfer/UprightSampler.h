/// Bilinear sampling under a matrix that does not turn: every row of a task meets the source's columns alike, and lies
/// between two rows of the source from end to end. So the columns are found once for a task, and a row of the source is
/// premultiplied once for all rows that lie beside it.
#pragma once

#include "kernel/AffineTransform.h"
#include "pixel/ChannelTuple.h"
#include "pixel/transfer/TransferTiles.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// Where the columns of a task lie in the source. Arrays are filled on to whole vectors of any length.
struct UprightColumns {
    static constexpr int longest = TileGrid::rowBytes; ///< a tile's width at most
    static constexpr int widest = 4 * longest;         ///< columns of the source that are met at most

    int count;
    std::int32_t left, right;                  ///< the columns of the source that are met, right exclusive
    alignas(64) std::int32_t cells[longest];   ///< the column to the left of each position, from `left` on
    alignas(64) float weightsOfLeft[longest];  ///< 1 - fx, and
    alignas(64) float weightsOfRight[longest]; ///< fx; both 0 where the position lies outside everything
};

/// One row of the source, premultiplied, from `UprightColumns::left` on.
struct UprightRow {
    static constexpr int overread = 32; ///< floats beyond the last column that may be read

    alignas(64) float planes[5][UprightColumns::widest + overread];
};

/// Premultiplies pixels into planes of floats of raw channel values. Where alpha is 0 colours become 0.
using PremultiplyPlanes = void (*)(float * const * dest, void const * const * source, int colours, std::size_t count);

/// Samples one row that lies `fy` below the upper of two rows.
/// @param dest  one row of samples for each channel, alpha last, of the source's format.
using MixRows = void (*)(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                         UprightColumns const & columns, float fy, int colours);

PremultiplyPlanes GetPremultiplyPlanes(SampleType sampleType);
MixRows GetMixRows(SampleType sampleType);

namespace Scalar {
/// The same in plain code: the meaning of the kernels.
PremultiplyPlanes GetPremultiplyPlanes(SampleType sampleType);
MixRows GetMixRows(SampleType sampleType);
}

/// Samples the rows of one task. Tiles of the source stay pinned as `SourceTiles` has it.
class UprightSampler {
public:
    struct SourceRow {
        bool isKnown, isEmpty;
        int y;
        UprightRow row;
    };
    /// What a sampler works in. Nothing needs to be in it at first.
    struct Memory {
        UprightColumns columns;
        SourceRow kept[2]; ///< the last even and the last odd row
    };

    UprightSampler(Memory & memory, SourceTiles & source, TupleLayout const & layout);

    /// Whether the sampler can do a task with this matrix: it must not turn, and the columns must not lie too far
    /// apart. Rows are sampled after this only.
    bool Begin(Kernel::AffineTransform::Params const & matrix, Kernel::RectT<int> const & rect);
    /// Samples row `y` of the destination into rows of the source's format.
    /// @return false if it is known that nothing is there; the rows then hold nothing.
    bool SampleRow(int y, void * const * dest);

private:
    bool FindColumns(int width);
    SourceRow const & GetSourceRow(int y);
    bool FillRow(UprightRow & row, int y);

    SourceTiles & source;
    int const colours;
    std::size_t const sampleSize;
    PremultiplyPlanes const premultiply;
    MixRows const mix;

    Kernel::AffineTransform::Params matrix;
    int firstColumn = 0; ///< of the task
    UprightColumns & columns;
    SourceRow (&kept)[2];
};
}
