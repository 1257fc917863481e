/// How accessors reach the pixels of a bitmap: see pixel/Accessor.h.
#pragma once

#include "pixel/Accessor.h"
#include "storage/BitmapCore.h"
#include "storage/TilePins.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Raster {
/// What both cursors share. All channels of a tuple have samples of one size and so planes of one grid: a pixel lies at
/// the same offset in the tile of each plane.
template<class Tuple, class Guard>
class TileCursorCore {
public:
    using Storage = typename Tuple::Storage;
    using Pins = TilePins<Guard>;
    static constexpr int tileWidth = TileGrid::rowBytes / Tuple::sampleSize;

    explicit TileCursorCore(typename Pins::Bitmap * model) : bitmap(model) {}

    /// Pins the tile around (x, y) in each plane, unless it is pinned already.
    /// @return the pixels of the tile, also those beyond the edges of the bitmap.
    Kernel::RectT<int> Seek(int x, int y) {
        int const column = x / tileWidth, row = y / TileGrid::tileHeight;
        auto const index = bitmap->GetGrid().GetIndex(column, row);
        buffers = pins.Pin(*bitmap, static_cast<std::uint32_t>(index));
        int const left = column * tileWidth, top = row * TileGrid::tileHeight;
        return {left, top, EndOf(left, tileWidth), EndOf(top, TileGrid::tileHeight)};
    }
    void Reset() { pins.Reset(); }

    std::size_t GetRow(int left, int y) const { return OffsetOf(left, y); }
    void Read(int x, int y, PixelOf<Tuple> & pixel) const { ReadInRow(OffsetOf(x, y), 0, pixel); }
    void ReadInRow(std::size_t row, std::size_t column, PixelOf<Tuple> & pixel) const {
        auto const offset = row + column * sizeof(Storage);
        for (std::size_t i = 0; i < channelCount; ++i)
            std::memcpy(&pixel.channels[i], buffers[i] + offset, sizeof(Storage));
    }
    void ReadSpan(int x, int y, PlanarPixelSpanOf<Tuple> & span) const {
        auto const offset = OffsetOf(x, y);
        for (std::size_t i = 0; i < channelCount; ++i)
            PrefetchBelow(buffers[i], offset, sizeof span.runs[i]);
        for (std::size_t i = 0; i < channelCount; ++i)
            std::memcpy(span.runs[i], buffers[i] + offset, sizeof span.runs[i]);
    }
    void ReadSpan(int x, int y, InterleavedPixelSpanOf<Tuple> & span) const {
        auto const offset = OffsetOf(x, y);
        for (std::size_t i = 0; i < channelCount; ++i)
            for (int pixel = 0; pixel < spanLength; ++pixel)
                std::memcpy(&span.pixels[pixel].channels[i], buffers[i] + offset + std::size_t(pixel) * sizeof(Storage),
                            sizeof(Storage));
    }

protected:
    static constexpr std::size_t channelCount = Tuple::channelCount;

    static std::size_t OffsetOf(int x, int y) {
        return (static_cast<std::size_t>(y) % TileGrid::tileHeight) * TileGrid::rowBytes +
               (static_cast<std::size_t>(x) % tileWidth) * sizeof(Storage);
    }
    /// Asks for the same place in the row below. A walk along the rows of a wide picture comes to it only after many
    /// other tiles, in an order that hardware doesn't foresee: without this it takes twice as long.
    static void PrefetchBelow(std::byte const * buffer, std::size_t offset, std::size_t length) {
        for (std::size_t i = 0; i < length; i += 64)
            __builtin_prefetch(buffer + (offset + TileGrid::rowBytes + i) % Tile::ByteCount, /*write=*/0,
                               /*locality=*/2);
    }
    static int EndOf(int begin, int length) {
        return begin + std::min(length, std::numeric_limits<int>::max() - begin);
    }

    typename Pins::Bitmap * const bitmap; // not owned
    typename Pins::Buffers buffers{};     // of the tile that was sought last
    Pins pins;
};

/// Reads a bitmap. Holds a reference to every block that it met: whoever writes a tile meanwhile writes into a copy,
/// and this reader keeps the picture that it first saw.
template<class Tuple>
class ConstTileCursor : public TileCursorCore<Tuple, ConstTileGuard> {
public:
    ConstTileCursor(BitmapCore const * model, bool * abort, bool nonPipeline)
        : TileCursorCore<Tuple, ConstTileGuard>(model) {
        if (nonPipeline)
            model->LoadForConstSession(abort);
    }
};

/// Reads and writes a bitmap: every tile that it comes to gets a block of its own and loses its backing, whether it is
/// then written or not.
template<class Tuple>
class MutableTileCursor : public TileCursorCore<Tuple, MutableTileGuard> {
    using Core = TileCursorCore<Tuple, MutableTileGuard>;
    using typename Core::Storage;

public:
    MutableTileCursor(BitmapCore * model, bool nonPipeline) : Core(model) {
        if (nonPipeline)
            model->LoadForMutableSession();
    }

    void Write(int x, int y, PixelOf<Tuple> const & pixel) const { WriteInRow(Core::OffsetOf(x, y), 0, pixel); }
    void WriteInRow(std::size_t row, std::size_t column, PixelOf<Tuple> const & pixel) const {
        auto const offset = row + column * sizeof(Storage);
        for (std::size_t i = 0; i < Core::channelCount; ++i)
            std::memcpy(buffers[i] + offset, &pixel.channels[i], sizeof(Storage));
    }
    void WriteSpan(int x, int y, PlanarPixelSpanOf<Tuple> const & span) const {
        auto const offset = Core::OffsetOf(x, y);
        for (std::size_t i = 0; i < Core::channelCount; ++i)
            std::memcpy(buffers[i] + offset, span.runs[i], sizeof span.runs[i]);
    }
    void WriteSpan(int x, int y, InterleavedPixelSpanOf<Tuple> const & span) const {
        auto const offset = Core::OffsetOf(x, y);
        for (std::size_t i = 0; i < Core::channelCount; ++i)
            for (int pixel = 0; pixel < spanLength; ++pixel)
                std::memcpy(buffers[i] + offset + std::size_t(pixel) * sizeof(Storage), &span.pixels[pixel].channels[i],
                            sizeof(Storage));
    }

private:
    using Core::buffers;
};
}
