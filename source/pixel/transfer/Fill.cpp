#include "pixel/transfer/Fill.h"

#include "pixel/transfer/Layer.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace Raster {
namespace {
/// A span of one colour, long enough for a tile row.
template<class Tuple>
struct ColourRow {
    static constexpr int length = TileGrid::rowBytes / Tuple::sampleSize;

    explicit ColourRow(PixelOf<Tuple> const & pixel) {
        for (int channel = 0; channel < Tuple::channelCount; ++channel) {
            std::fill_n(samples[channel], length, pixel.channels[channel]);
            rows[channel] = samples[channel];
        }
    }
    typename Tuple::Storage samples[Tuple::channelCount][length];
    void const * rows[Tuple::channelCount];
};

/// A whole tile of one sample: a static one if there is one of these bytes.
template<class Sample>
Tile MakeTile(Sample sample) {
    Tile tile;
    MutableTileGuard guard(tile);
    std::fill_n(reinterpret_cast<Sample *>(guard.GetBuffer()), Tile::ByteCount / sizeof(Sample), sample);
    guard.Reset();
    tile.Scrub();
    return tile;
}

template<class Tuple>
void FillBitmap(BitmapOf<Tuple> & dest, Kernel::RectT<int> const & rect, PixelOf<Tuple> const & pixel, float opacity) {
    ColourRow<Tuple> const row(pixel);
    bool const replaces = opacity == 1.0f && pixel.channels[Tuple::channelCount - 1] ==
                                                 static_cast<typename Tuple::Storage>(Tuple::First::maximum);
    auto const & grid = dest.GetGrid();
    auto const work = rect.Intersect(dest.GetBounds());
    auto const holdsWholeCell = [](int begin, int end, int length) {
        return (std::int64_t(begin) + length - 1) / length * length + length <= end;
    };
    bool const replacesTiles = replaces && holdsWholeCell(work.left, work.right, grid.tileWidth) &&
                               holdsWholeCell(work.top, work.bottom, TileGrid::tileHeight);
    std::vector<Tile> tiles;
    for (int channel = 0; replacesTiles && channel < Tuple::channelCount; ++channel)
        tiles.push_back(MakeTile(pixel.channels[channel]));
    ForEachTile(dest, rect, nullptr, [&](TileTask const & task) {
        auto const & area = task.rect;
        if (replacesTiles && area.GetWidth() == ColourRow<Tuple>::length && area.GetHeight() == TileGrid::tileHeight) {
            for (int channel = 0; channel < Tuple::channelCount; ++channel)
                dest.GetPlane(channel).GetTile(area.left / dest.GetGrid().tileWidth, area.top / TileGrid::tileHeight) =
                    tiles[static_cast<std::size_t>(channel)];
            return;
        }
        BitmapLayer layer(dest, task, opacity);
        for (int y = area.top; y < area.bottom; ++y)
            layer.Lay(area.left, y, row.rows, static_cast<std::size_t>(area.GetWidth()));
    });
}

template<class Dest>
void FillMemory(Dest & dest, Kernel::RectT<int> const & rect, PixelOf<typename Dest::Tuple> const & pixel,
                float opacity) {
    using Tuple = typename Dest::Tuple;
    PlanarPixelSpanOf<Tuple> span;
    for (int channel = 0; channel < Tuple::channelCount; ++channel)
        std::fill_n(span.runs[channel], spanLength, pixel.channels[channel]);
    ForEachTile(dest, rect, nullptr, [&](TileTask const & task) {
        LayerOf<Dest> layer(dest, task, opacity);
        for (int y = task.rect.top; y < task.rect.bottom; ++y)
            for (int done = 0; done < task.rect.GetWidth(); done += spanLength)
                layer.Lay(task.rect.left + done, y, span, std::min(spanLength, task.rect.GetWidth() - done));
    });
}

template<class Tuple>
PixelOf<Tuple> const & GetView(DynamicPixel const & colour) {
    return colour;
}
}

void Fill(DynamicBitmap & dest, Kernel::RectT<int> const & rect, DynamicPixel const & colour, float opacity) {
    BitmapCore * const core = dest.GetCore();
    if (!core)
        return;
    core->ForceDelayLoad(nullptr);
    float const strength = ClampOpacity(&opacity);
    if (core->IsPendingDelayLoad() || strength == 0.0f)
        return;
    WriteRecorded(*core, rect, nullptr, [&] {
        VisitFormat(dest.GetFormat(), [&](auto tuple) {
            using Tuple = decltype(tuple);
            FillBitmap<Tuple>(*dest.GetTyped<Tuple>(), rect, GetView<Tuple>(colour), strength);
        });
    });
}

void Fill(DynamicBuffer & dest, Kernel::RectT<int> const & rect, DynamicPixel const & colour, float opacity) {
    VisitFormat(dest.GetFormat(), [&](auto tuple) {
        using Tuple = decltype(tuple);
        if (auto const buffer = dest.GetTyped<Tuple>())
            FillMemory(*buffer, rect, GetView<Tuple>(colour), ClampOpacity(&opacity));
    });
}
}
