/// Destinations of layers: one task's part of a bitmap or buffer, on which runs are laid.
#pragma once

#include "kernel/Rect.h"
#include "pixel/Buffer.h"
#include "pixel/ForEachTile.h"
#include "pixel/transfer/Blend.h"
#include "pixel/transfer/Runs.h"
#include "pixel/transfer/TransferTiles.h"
#include "storage/Bitmap.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Raster {
/// Clamped to 0 to 1, no number being 0; within 1e-6 of 1 it is 1, and so is null.
RASTER_API float ClampOpacity(float const * opacity);

/// Moved, with edges that stop at the ends of the range of `int`.
RASTER_API Kernel::RectT<int> MoveRect(Kernel::RectT<int> const & rect, std::int64_t dx, std::int64_t dy);

/// Whether writing one bitmap could change what is read from the other: they are the same, or one is a level of the
/// other. Read a `CloneTiles` then.
RASTER_API bool AreEntangled(BitmapCore const & dest, BitmapCore const & source);

/// Whether a source is taken as empty: it is pending, and may stay so.
inline bool ReadsAsEmpty(BitmapCore const & source, TransferParams const * params) {
    return params && params->sourceMayStayUnloaded && source.IsPendingDelayLoad();
}

/// Loads a pending source, unless it may stay unloaded.
/// @return whether its pixels are there. False also after an abort.
RASTER_API bool LoadSource(BitmapCore const & source, TransferParams const * params);

/// The rectangle that work on a destination of these bounds is about.
inline Kernel::RectT<int> GetWorkRect(Kernel::RectT<int> const & bounds, TransferParams const * params) {
    return params && params->clip ? params->clip->Intersect(bounds) : bounds;
}

/// Does work that writes pixels in `changed`, and tells the levels of them: of what was written before an exception
/// too, since it stays.
template<class Work>
void WriteRecorded(BitmapCore & dest, Kernel::RectT<int> const & changed, bool * abort, Work && work) {
    BitmapCore::WriteInProgress const mark(dest);
    try {
        work();
    } catch (...) {
        dest.InvalidateMipmaps(changed);
        throw;
    }
    dest.RecordWrite(changed, abort);
}

/// Whether the pixels of a destination are there to be written.
inline bool IsReadyForLayers(BitmapCore const & bitmap) { return !bitmap.IsPendingDelayLoad(); }
template<class... Channels>
bool IsReadyForLayers(Buffer<Channels...> const &) {
    return true;
}

/// One tile of a bitmap. It is pinned when the first pixels that show come.
class RASTER_API BitmapLayer {
public:
    BitmapLayer(BitmapCore & dest, TileTask const & task, float opacity);

    /// @param rows  `count` samples for each channel, alpha last. They stay within the tile row.
    void Lay(int x, int y, void const * const * rows, std::size_t count);

private:
    TupleLayout const & layout;
    BlendRows const blend;
    float const opacity;
    DestTile tile;
};

template<class Row, class Span>
std::array<Row *, 5> GetRows(Span & span) {
    std::array<Row *, 5> rows{};
    for (std::size_t channel = 0; channel < Span::Tuple::channelCount; ++channel)
        rows[channel] = span.runs[channel];
    return rows;
}

template<class Dest>
class LayerOf;

template<class... Channels>
class LayerOf<Bitmap<Channels...>> {
public:
    LayerOf(Bitmap<Channels...> & dest, TileTask const & task, float opacity) : layer(dest, task, opacity) {}

    void Lay(int x, int y, PlanarPixelSpan<Channels...> const & span, int count) {
        layer.Lay(x, y, GetRows<void const>(span).data(), static_cast<std::size_t>(count));
    }

private:
    BitmapLayer layer;
};

/// Memory in one piece: pixels are split into channels, blended, and put together again.
template<class... Channels>
class LayerOf<Buffer<Channels...>> {
public:
    using Tuple = typename Buffer<Channels...>::Tuple;

    LayerOf(Buffer<Channels...> & dest, TileTask const &, float layerOpacity)
        : accessor(&dest), blend(GetBlendRows(Tuple::sampleType)), opacity(layerOpacity) {}

    void Lay(int x, int y, PlanarPixelSpan<Channels...> const & span, int count) {
        PlanarPixelSpan<Channels...> below;
        accessor.SetToXY(x, y);
        ReadRun(accessor, count, below);
        blend(GetRows<void>(below).data(), GetRows<void const>(span).data(), Tuple::channelCount - 1,
              static_cast<std::size_t>(count), opacity);
        accessor.SetToXY(x, y);
        WriteRun(accessor, count, below);
    }

private:
    ModelAccessor<Buffer<Channels...>> accessor;
    BlendRows const blend;
    float const opacity;
};
}
