#include "storage/ReduceLevel.h"

#include "kernel/Abort.h"
#include "pixel/ForEachTile.h"
#include "storage/BitmapCore.h"
#include "storage/TileGuard.h"
#include "storage/kernels/ReduceArea.h"

#include <array>
#include <cstdint>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;
using AreaReduction = void (*)(ReductionArea const &);

AreaReduction FindReduction(SampleType type) {
    switch (type) {
    case SampleType::Integer8:
        return ReduceArea8;
    case SampleType::Integer16:
        return ReduceArea16;
    case SampleType::Half:
        return Scalar::ReduceAreaHalf;
    case SampleType::Float:
        return ReduceAreaFloat;
    case SampleType::ComplexFloat:
        return Scalar::ReduceAreaComplex;
    }
    return nullptr;
}

bool IsEmpty(Tile const & tile) { return !tile.IsAllocated() || tile.IsZeroTileBuffer(); }

/// Whether every sample of a tile is known to be full. The full float tile is not full in samples of two bytes.
bool IsFull(Tile const & tile, SampleType type) {
    switch (type) {
    case SampleType::Integer8:
    case SampleType::Integer16:
        return tile.IsFullTileBuffer();
    case SampleType::Float:
    case SampleType::ComplexFloat:
        return tile.IsFullFloatTileBuffer();
    case SampleType::Half:
        break;
    }
    return false;
}

/// One tile of a level, or what of it is to be filtered. Four tiles of the source cover it, and each of its quarters
/// lies in one of them: so whole quarters are filtered from pointer to pointer.
class LevelTile {
public:
    LevelTile(BitmapCore & levelBitmap, BitmapCore const & sourceBitmap, TileTask const & tileTask)
        : level(levelBitmap), source(sourceBitmap), task(tileTask), layout(level.GetLayout()), grid(level.GetGrid()),
          column(task.rect.left / grid.tileWidth), row(task.rect.top / TileGrid::tileHeight),
          isWhole(task.rect.GetWidth() == grid.tileWidth && task.rect.GetHeight() == TileGrid::tileHeight) {}

    void Run();

private:
    Tile & GetTile(int plane) { return level.GetPlane(plane).GetTile(column, row); }
    template<class Test>
    bool IsForAllFour(int plane, Test && test) const;
    bool IsTransparent() const;
    bool IsOpaque() const;
    void ShareSolidPlanes();
    Tile const * FindSolid(int plane) const;
    void ReduceQuarter(int right, int lower);
    ReductionArea FindArea(Rect const & sourceRect) const;

    BitmapCore & level;
    BitmapCore const & source;
    TileTask const & task;
    TupleLayout const & layout;
    TileGrid const & grid;
    int const column, row;
    bool const isWhole; // then all four tiles of the source exist
    bool isShared[5]{}; // planes that need no pixels
    std::array<MutableTileGuard, 5> guards;
    std::array<std::byte *, 5> buffers{};
};

template<class Test>
bool LevelTile::IsForAllFour(int plane, Test && test) const {
    for (int i = 0; i < 4; ++i)
        if (!test(source.GetPlane(plane).GetTile(2 * column + i % 2, 2 * row + i / 2)))
            return false;
    return true;
}

bool LevelTile::IsTransparent() const { return layout.alphaIndex != 0 && IsForAllFour(layout.alphaIndex - 1, IsEmpty); }

bool LevelTile::IsOpaque() const {
    return layout.alphaIndex == 0 ||
           IsForAllFour(layout.alphaIndex - 1, [&](Tile const & tile) { return IsFull(tile, layout.sampleType); });
}

// The static tile that all four tiles of the source, and so their mean, are equal to; null if there is none.
Tile const * LevelTile::FindSolid(int plane) const {
    if (IsForAllFour(plane, IsEmpty))
        return Tile::GetZeroTile();
    if (IsForAllFour(plane, [&](Tile const & tile) { return IsFull(tile, layout.sampleType); }))
        return &level.GetPlane(plane).GetFullTileOfKind();
    return nullptr;
}

// What the filter and the scrub after it would come to, without looking at pixels: alpha of opaque pictures, paper.
void LevelTile::ShareSolidPlanes() {
    if (!IsOpaque())
        return;
    for (int plane = 0; plane < layout.channelCount; ++plane)
        if (auto const solid = FindSolid(plane)) {
            GetTile(plane) = *solid;
            isShared[plane] = true;
        }
}

void LevelTile::Run() {
    if (isWhole && IsTransparent()) {
        for (int plane = 0; plane < layout.channelCount; ++plane)
            GetTile(plane).Unallocate();
        return;
    }
    if (isWhole)
        ShareSolidPlanes();
    for (int plane = 0; plane < layout.channelCount; ++plane)
        if (!isShared[plane]) {
            auto const index = static_cast<std::size_t>(plane);
            guards[index] = MutableTileGuard(GetTile(plane));
            buffers[index] = reinterpret_cast<std::byte *>(guards[index].GetBuffer());
        }
    for (int i = 0; i < 4 && !task.IsAborted(); ++i)
        ReduceQuarter(i % 2, i / 2);
    for (int plane = 0; plane < layout.channelCount; ++plane)
        if (!isShared[plane]) {
            guards[static_cast<std::size_t>(plane)].Reset();
            if (!task.IsAborted())
                GetTile(plane).Scrub();
        }
}

// Each quarter is read from the tile of the source with the same place.
void LevelTile::ReduceQuarter(int right, int lower) {
    // In 64 bits: twice the size of a level may be one more than the longest side.
    Kernel::RectT<std::int64_t> const wanted{2 * std::int64_t(task.rect.left), 2 * std::int64_t(task.rect.top),
                                             2 * std::int64_t(task.rect.right), 2 * std::int64_t(task.rect.bottom)};
    std::int64_t const left = (2 * std::int64_t(column) + right) * grid.tileWidth;
    std::int64_t const top = (2 * std::int64_t(row) + lower) * TileGrid::tileHeight;
    auto const read = wanted.Intersect({left, top, left + grid.tileWidth, top + TileGrid::tileHeight})
                          .Intersect({0, 0, source.GetWidth(), source.GetHeight()});
    if (read.IsEmpty())
        return;

    Rect const inTile{static_cast<int>(read.left - left), static_cast<int>(read.top - top),
                      static_cast<int>(read.right - left), static_cast<int>(read.bottom - top)};
    auto const sampleSize = static_cast<std::size_t>(layout.sampleSize);
    auto const offset = [&](int x, int y) {
        return static_cast<std::size_t>(y) * TileGrid::rowBytes + static_cast<std::size_t>(x) * sampleSize;
    };
    std::size_t const sourceOffset = offset(inTile.left, inTile.top);
    std::size_t const destOffset =
        offset((inTile.left + right * grid.tileWidth) / 2, (inTile.top + lower * TileGrid::tileHeight) / 2);

    ReductionArea area;
    area.sourceWidth = inTile.GetWidth();
    area.sourceHeight = inTile.GetHeight();
    std::array<ConstTileGuard, 5> sessions;
    for (int plane = 0; plane < layout.channelCount; ++plane) {
        if (isShared[plane])
            continue;
        Tile const & tile = source.GetPlane(plane).GetTile(2 * column + right, 2 * row + lower);
        if (plane == layout.alphaIndex - 1 && !IsFull(tile, layout.sampleType))
            area.alphaPlane = area.planeCount;
        auto & session = sessions[static_cast<std::size_t>(plane)];
        session = ConstTileGuard(tile);
        area.source[area.planeCount] = reinterpret_cast<std::byte const *>(session.GetBuffer()) + sourceOffset;
        area.dest[area.planeCount] = buffers[static_cast<std::size_t>(plane)] + destOffset;
        ++area.planeCount;
    }
    if (area.planeCount != 0)
        FindReduction(layout.sampleType)(area);
}
}

void ReduceLevel(BitmapCore & level, BitmapCore const & source, Rect const & rect, bool * abort) {
    TransferParams params;
    params.abort = abort;
    ForEachTile(level, rect, &params, [&](TileTask const & task) { LevelTile(level, source, task).Run(); });
}
}
