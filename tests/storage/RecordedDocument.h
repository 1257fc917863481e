/// What the recorded document in tests/data holds: the program that records one and the test that reads it draw it
/// anew. A change here has no place beside a file that is recorded already: its content stays what it was.
#pragma once

#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "kernel/CRC32.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/StreamValue.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace RecordedDocument {
using namespace Raster;

constexpr Kernel::IDTag archiveTag("Rast");
constexpr int placedWidth = 90, placedHeight = 60;

/// The bytes of a sample: slopes that differ from channel to channel, without rounding on any machine.
inline void PutSample(std::uint8_t * dest, TupleLayout const & layout, int plane, int x, int y) {
    auto const value = static_cast<std::uint32_t>(x * (3 + plane) + y * (7 - plane) + plane * 40);
    auto const put = [&](auto sample) {
        auto const bytes = Kernel::ToStreamBytes(sample);
        std::memcpy(dest, bytes.data(), bytes.size());
    };
    if (layout.kind == ChannelKind::Float)
        put(static_cast<float>(value) / 1024.0f);
    else if (layout.sampleSize == 2)
        put(static_cast<std::uint16_t>(value * 17));
    else
        put(static_cast<std::uint8_t>(value));
}

inline void DrawTile(BitmapCore & core, int plane, int column, int row) {
    auto const & layout = core.GetLayout();
    auto & tiles = core.GetPlane(plane);
    MutableTileGuard const session(tiles.GetTile(column, row));
    auto * const bytes = reinterpret_cast<std::uint8_t *>(session.GetBuffer());
    for (int y = 0; y < Tile::Height; ++y)
        for (int x = 0; x < tiles.GetTileWidth(); ++x)
            PutSample(bytes + y * Tile::Stride + x * layout.sampleSize, layout, plane,
                      column * tiles.GetTileWidth() + x, row * Tile::Height + y);
}

inline void Draw(DynamicBitmap & bitmap) {
    auto & core = *bitmap.GetCore();
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (int row = 0; row < core.GetGrid().tilesDown; ++row)
            for (int column = 0; column < core.GetGrid().tilesAcross; ++column)
                DrawTile(core, plane, column, row);
}

inline DynamicBitmap MakeDrawn(int width, int height, Format format, MipmapMode mode = MipmapModeNone) {
    DynamicBitmap bitmap(width, height, format, mode, HardwareCachePolicy::Default);
    Draw(bitmap);
    return bitmap;
}

/// Tiles of every state that needs no bytes, and one that does.
inline DynamicBitmap MakeSolid() {
    DynamicBitmap bitmap(700, 500, RGBAUF, MipmapModeNone, HardwareCachePolicy::Default);
    auto & core = *bitmap.GetCore();
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane) {
        auto & tiles = core.GetPlane(plane);
        tiles.GetTile(0, 0) = *Tile::GetZeroTile();
        tiles.GetTile(1, 0) = *Tile::GetFullTile();
        tiles.GetTile(2, 0) = *Tile::GetFullFloatTile();
        DrawTile(core, plane, 3, 1);
    }
    return bitmap;
}

/// The picture that is placed. It is opaque, so that any program that wrote it wrote the same pixels.
inline DynamicBitmap MakePlaced() {
    auto bitmap = MakeDrawn(placedWidth, placedHeight, RGBA8);
    bitmap.GetCore()->GetPlane(3).GetTile(0, 0) = *Tile::GetFullTile();
    return bitmap;
}

/// Of that picture, what is painted on one of the layers that have it.
inline void PaintOn(DynamicBitmap & bitmap) {
    MutableTileGuard const session(bitmap.GetCore()->GetPlane(1).GetTile(0, 0));
    auto * const bytes = reinterpret_cast<std::uint8_t *>(session.GetBuffer());
    for (int y = 10; y < 20; ++y)
        std::fill_n(bytes + y * Tile::Stride + 30, 40, std::uint8_t(200));
}

inline Kernel::Counted<CompressedRasterData> MakePNG() {
    auto const bitmap = MakePlaced();
    Kernel::Counted<Kernel::MemoryOutStream> const stream(new Kernel::MemoryOutStream);
    DynamicFile file;
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    if (file.Create(stream, bitmap.GetWidth(), bitmap.GetHeight(), ExportOptions(), FileTypePNG, RGBA8) &&
        Feed(file, bitmap, nullptr) && stream->Finish())
        data->CopyFrom(stream->GetData(), stream->GetSize());
    return data;
}

/// The bytes of a picture, plane by plane and row by row, without what lies beyond its edges.
inline std::vector<std::uint8_t> GetPixels(DynamicBitmap const & bitmap) {
    std::vector<std::uint8_t> pixels;
    auto const & core = *bitmap.GetCore();
    core.ForceDelayLoad(nullptr);
    int const sampleSize = core.GetLayout().sampleSize;
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (int y = 0; y < core.GetHeight(); ++y)
            for (int column = 0; column < core.GetGrid().tilesAcross; ++column) {
                auto const & tiles = core.GetPlane(plane);
                ConstTileGuard const session(tiles.GetTile(column, y / Tile::Height));
                auto const * const row =
                    reinterpret_cast<std::uint8_t const *>(session.GetBuffer()) + y % Tile::Height * Tile::Stride;
                int const width = std::min(tiles.GetTileWidth(), core.GetWidth() - column * tiles.GetTileWidth());
                pixels.insert(pixels.end(), row, row + width * sampleSize);
            }
    return pixels;
}

inline std::uint32_t GetChecksum(DynamicBitmap const & bitmap) {
    auto const pixels = GetPixels(bitmap);
    return Kernel::CRC32::Instance().DataCRC32(pixels.data(), pixels.size());
}
}
