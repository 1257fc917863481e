/// Transfers between tiles and models that give or take whole rows: files. Nothing is compiled per tuple.
#pragma once

#include "pixel/ForEachTile.h"
#include "storage/BitmapCore.h"

#include <concepts>
#include <cstddef>

namespace Raster {
/// A const cursor that reads runs of any length into rows of samples, from several threads at once:
///
///   void ReadRow(int x, int y, std::size_t count, void * const * rows) const    a null row is not wanted
///   RectT<int> GetBounds() const
template<class Cursor>
concept GivesRows = requires(Cursor const & cursor, void * const * rows) {
    cursor.ReadRow(0, 0, std::size_t(1), rows);
    { cursor.GetBounds() } -> std::convertible_to<Kernel::RectT<int>>;
};
/// A writer that takes runs of any length at its position and moves past them:
///
///   void WriteRow(std::size_t count, void const * const * rows)
template<class Writer>
concept TakesRows = requires(Writer & writer, void const * const * rows) {
    writer.SetToXY(0, 0);
    writer.WriteRow(std::size_t(1), rows);
};

/// A cursor that gives rows, of any tuple.
struct RowSource {
    void const * object;
    void (*readRow)(void const * object, int x, int y, std::size_t count, void * const * rows);
    Kernel::RectT<int> bounds;
    bool isOpaque; ///< alpha is full everywhere
};
template<GivesRows Cursor>
RowSource MakeRowSource(Cursor const & cursor, bool isOpaque) {
    return {&cursor,
            [](void const * object, int x, int y, std::size_t count, void * const * rows) {
                static_cast<Cursor const *>(object)->ReadRow(x, y, count, rows);
            },
            cursor.GetBounds(), isOpaque};
}

/// A writer that takes rows, of any tuple.
struct RowSink {
    void * object;
    void (*beginRow)(void * object, int y);
    void (*writeRow)(void * object, std::size_t count, void const * const * rows);
};
template<TakesRows Writer>
RowSink MakeRowSink(Writer & writer) {
    return {&writer, [](void * object, int y) { static_cast<Writer *>(object)->SetToXY(0, y); },
            [](void * object, std::size_t count, void const * const * rows) {
                static_cast<Writer *>(object)->WriteRow(count, rows);
            }};
}

/// What `Draw` does for a source of rows of the destination's own tuple, which has a format. The result is the same as
/// by single pixels; but tiles that an opaque source covers whole share the full tile as their alpha.
/// @param opacity  clamped already
RASTER_API void DrawRows(BitmapCore & dest, RowSource const & source, TransferParams const * params, float opacity,
                         int dx, int dy);

/// Hands the rows of `part`, a rectangle in a loaded bitmap of the sink's tuple, to the sink.
/// @param task  what the rows are a piece of, for progress and the abort flag: row y of the bitmap is row y + `offset`
///              there, and row y + `offset` - task.rect.top of the sink
/// @return false if it was aborted
RASTER_API bool FeedRows(RowSink const & sink, BitmapCore const & source, Kernel::RectT<int> const & part, int offset,
                         TileTask const & task);
}
