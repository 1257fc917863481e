#include "pixel/transfer/Invert.h"

#include "pixel/transfer/Coverage.h"
#include "pixel/transfer/Layer.h"
#include "storage/TileGuard.h"

#include <array>
#include <utility>

namespace Raster {
namespace {
template<class Sample>
void InvertRow(Sample * colour, Sample const * alpha, std::size_t count) {
    constexpr Sample maximum = std::is_same_v<Sample, float> ? Sample(1) : Sample(-1);
    for (std::size_t i = 0; i < count; ++i)
        colour[i] = alpha[i] == Sample(0) ? colour[i] : static_cast<Sample>(maximum - colour[i]);
}

// The colours of one tile, all opened for writing together: where memory ends, no pixel is inverted in part.
template<class Sample, std::size_t count>
class ColourTiles {
public:
    ColourTiles(BitmapCore & tilesOf, int tileColumn, int tileRow)
        : bitmap(tilesOf), column(tileColumn), row(tileRow) {}

    std::array<Sample *, count> const & Open() {
        if (isOpen)
            return samples;
        for (std::size_t channel = 0; channel < count; ++channel) {
            guards[channel] = MutableTileGuard(bitmap.GetPlane(static_cast<int>(channel)).GetTile(column, row));
            samples[channel] = reinterpret_cast<Sample *>(guards[channel].GetBuffer());
        }
        isOpen = true;
        return samples;
    }

private:
    BitmapCore & bitmap;
    int const column, row;
    bool isOpen = false;
    std::array<MutableTileGuard, count> guards;
    std::array<Sample *, count> samples{};
};

// A whole cell of the grid. Its alpha is only read, so that the tile stays shared and backed; the colours are opened
// when the first row with a pixel to invert comes.
template<class Tuple>
void InvertTile(BitmapCore & bitmap, TileTask const & task) {
    using Sample = typename Tuple::Storage;
    constexpr int alphaAt = Tuple::channelCount - 1;
    int const tileWidth = bitmap.GetGrid().tileWidth;
    int const column = task.rect.left / tileWidth, row = task.rect.top / TileGrid::tileHeight;
    Tile const & alphaTile = std::as_const(bitmap).GetPlane(alphaAt).GetTile(column, row);
    if (!alphaTile.IsAllocated() || alphaTile.IsZeroTileBuffer())
        return;
    ConstTileGuard const alpha(alphaTile);
    ColourTiles<Sample, alphaAt> colours(bitmap, column, row);
    auto const count = static_cast<std::size_t>(task.rect.GetWidth());
    for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
        auto const offset = static_cast<std::ptrdiff_t>(y - task.rect.top) * tileWidth;
        auto const * const alphaRow = reinterpret_cast<Sample const *>(alpha.GetBuffer()) + offset;
        if (HasCoverage(Tuple::sampleType, alphaRow, count, /*opacity=*/1.0f))
            for (Sample * const samples : colours.Open())
                InvertRow(samples + offset, alphaRow, count);
    }
}
}

void Invert(DynamicBitmap & bitmap, bool * abort) {
    BitmapCore * const core = bitmap.GetCore();
    if (!core || core->GetLayout().channelCount == 1)
        return;
    core->ForceDelayLoad(abort);
    if (core->IsPendingDelayLoad() || Kernel::IsAborted(abort))
        return;
    TransferParams params;
    params.abort = abort;
    WriteRecorded(*core, core->GetBounds(), abort, [&] {
        VisitFormat(bitmap.GetFormat(), [&](auto tuple) {
            ForEachTile(*core, core->GetBounds(), &params,
                        [&](TileTask const & task) { InvertTile<decltype(tuple)>(*core, task); });
        });
    });
}
}
