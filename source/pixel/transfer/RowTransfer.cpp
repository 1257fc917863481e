#include "pixel/transfer/RowTransfer.h"

#include "pixel/transfer/Coverage.h"
#include "pixel/transfer/Layer.h"
#include "pixel/transfer/TransferTiles.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using Rows = DestTile::Rows;

struct DrawJob {
    BitmapCore & dest;
    RowSource const & source;
    float opacity;
    int dx, dy;

    void ReadRow(int x, int y, std::size_t count, Rows const & rows) const {
        source.readRow(source.object, static_cast<int>(std::int64_t(x) - dx), static_cast<int>(std::int64_t(y) - dy),
                       count, rows.data());
    }
};

// Room for one row of a tile, in each channel.
class TileRow {
public:
    TileRow() {
        for (std::size_t channel = 0; channel < rows.size(); ++channel)
            rows[channel] = samples[channel];
    }
    TileRow(TileRow const &) = delete;
    TileRow & operator=(TileRow const &) = delete;

    Rows const & GetRows() const { return rows; }
    void const * const * GetConstRows() const { return rows.data(); }

private:
    alignas(64) std::byte samples[5][TileGrid::rowBytes];
    Rows rows{};
};

void DrawOver(DrawJob const & job, TileTask const & task) {
    BitmapLayer layer(job.dest, task, job.opacity);
    TileRow const row;
    auto const count = static_cast<std::size_t>(task.rect.GetWidth());
    for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
        job.ReadRow(task.rect.left, y, count, row.GetRows());
        layer.Lay(task.rect.left, y, row.GetConstRows(), count);
        task.ReportRow(y);
    }
}

template<class Sample>
void ClearHidden(void * const * rows, int colours, std::size_t count) {
    auto const * const alpha = static_cast<Sample const *>(rows[colours]);
    Sample smallest = static_cast<Sample>(~Sample(0));
    for (std::size_t i = 0; i < count; ++i)
        smallest = std::min(smallest, alpha[i]);
    if (smallest != 0)
        return;
    for (int colour = 0; colour < colours; ++colour) {
        auto * const samples = static_cast<Sample *>(rows[colour]);
        for (std::size_t i = 0; i < count; ++i)
            samples[i] = alpha[i] == 0 ? Sample(0) : samples[i];
    }
}

// Colour that doesn't show is not laid.
void ClearHidden(TupleLayout const & layout, Rows const & rows, std::size_t count) {
    if (layout.sampleType == SampleType::Integer8)
        ClearHidden<std::uint8_t>(rows.data(), layout.channelCount - 1, count);
    else
        ClearHidden<std::uint16_t>(rows.data(), layout.channelCount - 1, count);
}

// Over nothing at all the result is the source as far as it shows. That goes straight into the tile, which stays
// unallocated until something does show.
void DrawOverNothing(DrawJob const & job, TileTask const & task) {
    auto const & layout = job.dest.GetLayout();
    DestTile tile(job.dest, task.rect);
    TileRow const row;
    auto const count = static_cast<std::size_t>(task.rect.GetWidth());
    for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y, task.ReportRow(y - 1)) {
        if (tile.IsOpen()) {
            auto const rows = tile.GetRows(task.rect.left, y);
            job.ReadRow(task.rect.left, y, count, rows);
            ClearHidden(layout, rows, count);
            continue;
        }
        job.ReadRow(task.rect.left, y, count, row.GetRows());
        if (!HasCoverage(layout.sampleType, row.GetRows()[std::size_t(layout.channelCount) - 1], count, 1.0f))
            continue;
        ClearHidden(layout, row.GetRows(), count);
        auto const rows = tile.GetRows(task.rect.left, y);
        for (int channel = 0; channel < layout.channelCount; ++channel)
            std::memcpy(rows[std::size_t(channel)], row.GetRows()[std::size_t(channel)],
                        count * std::size_t(layout.sampleSize));
    }
}

// An opaque source at full opacity replaces what is below.
void DrawOpaque(DrawJob const & job, TileTask const & task) {
    auto const & layout = job.dest.GetLayout();
    auto const alpha = static_cast<std::size_t>(layout.channelCount) - 1;
    DestTile tile(job.dest, task.rect);
    auto const count = static_cast<std::size_t>(task.rect.GetWidth());
    for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
        auto rows = tile.GetRows(task.rect.left, y);
        std::memset(rows[alpha], 0xFF, count * std::size_t(layout.sampleSize));
        rows[alpha] = nullptr;
        job.ReadRow(task.rect.left, y, count, rows);
        task.ReportRow(y);
    }
}

// The same for a tile that is covered whole: it is made aside, without its alpha being written, and takes the place of
// what was there. An abort, or an error, leaves that.
void DrawOpaqueTile(DrawJob const & job, TileTask const & task) {
    auto const & grid = job.dest.GetGrid();
    int const colours = job.dest.GetLayout().channelCount - 1;
    std::array<Tile, 4> tiles;
    std::array<MutableTileGuard, 4> guards;
    Rows rows{};
    for (std::size_t plane = 0; plane < static_cast<std::size_t>(colours); ++plane) {
        guards[plane] = MutableTileGuard(tiles[plane]);
        rows[plane] = guards[plane].GetBuffer();
    }
    for (int y = task.rect.top; y < task.rect.bottom; ++y) {
        if (task.IsAborted())
            return;
        job.ReadRow(task.rect.left, y, static_cast<std::size_t>(grid.tileWidth), rows);
        for (int plane = 0; plane < colours; ++plane)
            rows[std::size_t(plane)] = static_cast<std::byte *>(rows[std::size_t(plane)]) + TileGrid::rowBytes;
        task.ReportRow(y);
    }
    int const column = task.rect.left / grid.tileWidth, row = task.rect.top / TileGrid::tileHeight;
    for (int plane = 0; plane < colours; ++plane) {
        guards[std::size_t(plane)].Reset();
        job.dest.GetPlane(plane).GetTile(column, row) = tiles[std::size_t(plane)];
    }
    auto & alpha = job.dest.GetPlane(colours);
    alpha.GetTile(column, row) = alpha.GetFullTileOfKind();
}

bool IsNothing(BitmapCore const & bitmap, Rect const & rect) {
    int const column = rect.left / bitmap.GetGrid().tileWidth, row = rect.top / TileGrid::tileHeight;
    for (int plane = 0; plane < bitmap.GetPlaneCount(); ++plane) {
        Tile const & tile = bitmap.GetPlane(plane).GetTile(column, row);
        if (tile.IsAllocated() && !tile.IsZeroTileBuffer())
            return false;
    }
    return true;
}

void DrawTile(DrawJob const & job, TileTask const & task) {
    auto const & grid = job.dest.GetGrid();
    // Floats round where integers don't, and know numbers that are none: those take the common way.
    if (job.opacity != 1.0f || job.dest.GetLayout().kind != ChannelKind::Integer)
        return DrawOver(job, task);
    if (job.source.isOpaque) {
        bool const isWhole = task.rect.GetWidth() == grid.tileWidth && task.rect.GetHeight() == TileGrid::tileHeight;
        return isWhole && Tile::GetFullTile() ? DrawOpaqueTile(job, task) : DrawOpaque(job, task);
    }
    return IsNothing(job.dest, task.rect) ? DrawOverNothing(job, task) : DrawOver(job, task);
}
}

void DrawRows(BitmapCore & dest, RowSource const & source, TransferParams const * params, float opacity, int dx,
              int dy) {
    auto const rect = GetWorkRect(dest.GetBounds(), params).Intersect(MoveRect(source.bounds, dx, dy));
    if (rect.IsEmpty() || !IsReadyForLayers(dest))
        return;
    DrawJob const job{dest, source, opacity, dx, dy};
    ForEachTile(dest, rect, params, [&job](TileTask const & task) { DrawTile(job, task); });
}

bool FeedRows(RowSink const & sink, BitmapCore const & source, Rect const & part, int offset, TileTask const & task) {
    // All tiles of a row, however wide the picture is: each of its rows meets them again.
    SourceTiles tiles(source, static_cast<std::size_t>(source.GetGrid().tilesAcross) + 1);
    int const tileWidth = tiles.GetGrid().tileWidth;
    for (int y = part.top; y < part.bottom; ++y) {
        if (task.IsAborted())
            return false;
        sink.beginRow(sink.object, y + offset - task.rect.top);
        for (int x = part.left; x < part.right;) {
            int const end =
                static_cast<int>(std::min<std::int64_t>((std::int64_t(x) / tileWidth + 1) * tileWidth, part.right));
            auto const rows = tiles.GetRows(x, y);
            if (y % TileGrid::tileHeight != TileGrid::tileHeight - 1) // the row below comes after many other tiles
                PrefetchRows<PrefetchFor::Reading>(rows, source.GetPlaneCount(), TileGrid::rowBytes,
                                                   TileGrid::rowBytes);
            sink.writeRow(sink.object, static_cast<std::size_t>(end - x), rows.data());
            x = end;
        }
        if (y % TileGrid::tileHeight == TileGrid::tileHeight - 1)
            tiles.Reset(); // a tile row at a time is enough to hold
        task.ReportRow(y + offset);
    }
    return true;
}
}
