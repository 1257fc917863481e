#include "pixel/transfer/Invert.h"

#include "pixel/transfer/Coverage.h"
#include "pixel/transfer/Layer.h"

namespace Raster {
namespace {
template<class Sample>
void InvertRow(Sample * colour, Sample const * alpha, std::size_t count) {
    constexpr Sample maximum = std::is_same_v<Sample, float> ? Sample(1) : Sample(-1);
    for (std::size_t i = 0; i < count; ++i)
        colour[i] = alpha[i] == Sample(0) ? colour[i] : static_cast<Sample>(maximum - colour[i]);
}

// The first row of a task with alpha in it, or its bottom. Lets go of the tile before somebody writes it: a reader
// would make the writer copy it.
template<class Tuple>
int FindFirstRow(BitmapCore const & bitmap, Kernel::RectT<int> const & rect) {
    SourceTiles source(bitmap);
    if (source.IsTransparent(rect.left / bitmap.GetGrid().tileWidth, rect.top / TileGrid::tileHeight))
        return rect.bottom;
    int y = rect.top;
    while (y < rect.bottom && !HasCoverage(Tuple::sampleType, source.GetRows(rect.left, y)[Tuple::channelCount - 1],
                                           static_cast<std::size_t>(rect.GetWidth()), /*opacity=*/1.0f))
        ++y;
    return y;
}

template<class Tuple>
void InvertTile(BitmapCore & bitmap, TileTask const & task) {
    using Sample = typename Tuple::Storage;
    constexpr std::size_t alphaAt = Tuple::channelCount - 1;
    DestTile tile(bitmap, task.rect);
    for (int y = FindFirstRow<Tuple>(bitmap, task.rect); y < task.rect.bottom && !task.IsAborted(); ++y) {
        auto const rows = tile.GetRows(task.rect.left, y);
        for (std::size_t channel = 0; channel < alphaAt; ++channel)
            InvertRow(static_cast<Sample *>(rows[channel]), static_cast<Sample const *>(rows[alphaAt]),
                      static_cast<std::size_t>(task.rect.GetWidth()));
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
    VisitFormat(bitmap.GetFormat(), [&](auto tuple) {
        ForEachTile(*core, core->GetBounds(), &params,
                    [&](TileTask const & task) { InvertTile<decltype(tuple)>(*core, task); });
    });
    core->RecordWrite(core->GetBounds(), abort);
}
}
