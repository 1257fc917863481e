/// Transfers between models of any kind that have one tuple, by whole pixels: files, buffers, ramps and statistics take
/// part in these. Another format goes through a bitmap first.
#pragma once

#include "pixel/Buffer.h"
#include "pixel/DynamicBuffer.h"
#include "pixel/ForEachTile.h"
#include "pixel/transfer/Layer.h"
#include "pixel/transfer/RowTransfer.h"
#include "pixel/transfer/Runs.h"
#include "storage/Bitmap.h"
#include "storage/DynamicBitmap.h"

#include <algorithm>
#include <concepts>
#include <cstdint>

namespace Raster {
/// A model whose pixels can be read.
template<class Model>
concept ReadModel = requires {
    typename Model::Tuple;
    typename Model::ConstCursor;
};
/// A model that takes pixels.
template<class Model>
concept SinkModel = requires {
    typename Model::Tuple;
    typename Model::Cursor;
}
|| (requires { typename Model::Tuple; } && Model::modelKind == ModelKind::Rows);

/// Models of one tuple.
template<class A, class B>
concept SameTuple = std::same_as<typename A::Tuple, typename B::Tuple>;
/// A model of one of the ten tuples that have a format.
template<class Model>
concept HasFormat = (formatOf<typename Model::Tuple> != NoFormat);

/// The part of a destination's rectangle that a source covers when it lies moved by (dx, dy).
template<ReadModel Source>
Kernel::RectT<int> GetCoveredRect(Source const & source, Kernel::RectT<int> const & rect, int dx, int dy) {
    if constexpr (Source::isUnbounded)
        return rect;
    else
        return rect.Intersect(MoveRect({0, 0, source.GetWidth(), source.GetHeight()}, dx, dy));
}

/// Whether a model says that all its pixels have full alpha.
template<ReadModel Source>
bool IsOpaque(Source const & source) {
    if constexpr (requires { source.IsOpaque(); })
        return source.IsOpaque();
    else
        return false;
}

/// Lays `source` over a bitmap or buffer of the same tuple by the source-over rule: source pixel (x, y) lands on
/// (x + dx, y + dy). Pixels are taken as they are. Where nothing shows, a tile of the destination stays untouched.
/// Split by the destination's tiles over the thread pool, with the same result for any number of threads; a source that
/// has to decode does so on the calling thread before that. A pending source is loaded first; a destination that is
/// pending stays as it is. The two may be the same.
/// @param params   may be null.
/// @param opacity  as in `Transfer`; null is 1.
template<SinkModel Dest, ReadModel Source>
    requires SameTuple<Dest, Source> && HasFormat<Dest>
void Draw(Dest & dest, Source const & source, TransferParams const * params, float const * opacity, int dx, int dy) {
    if constexpr (std::derived_from<Source, BitmapCore>) {
        if (!LoadSource(source, params))
            return;
    }
    // A picture laid on itself is taken as it is before anything is written.
    if constexpr (std::same_as<Dest, Source> && std::derived_from<Source, BitmapCore>) {
        if (AreEntangled(dest, source)) {
            Kernel::Counted<BitmapCore const> const before(source.CloneTiles().release());
            return Draw(dest, static_cast<Source const &>(*before), params, opacity, dx, dy);
        }
    } else if constexpr (std::same_as<Dest, Source>) {
        if (&dest == &source) {
            Kernel::Counted<Source> const before(source.Clone());
            return Draw(dest, *before, params, opacity, dx, dy);
        }
    }
    using Reader = ModelConstAccessor<Source, Safe, IdentityTransform>;
    bool * const abort = params ? params->abort : nullptr;
    if constexpr (std::derived_from<Dest, BitmapCore> && GivesRows<typename Source::ConstCursor>) {
        if (!IsReadyForLayers(dest))
            return;
        typename Source::ConstCursor const cursor(&source, abort, /*nonPipeline=*/false);
        return DrawRows(dest, MakeRowSource(cursor, IsOpaque(source)), params, ClampOpacity(opacity), dx, dy);
    }
    auto const work = GetWorkRect({0, 0, dest.GetWidth(), dest.GetHeight()}, params);
    auto const rect = GetCoveredRect(source, work, dx, dy);
    if (rect.IsEmpty() || !IsReadyForLayers(dest))
        return;
    Reader{&source, nullptr, abort}; // whatever has to be decoded is decoded here, not inside a task
    float const strength = ClampOpacity(opacity);
    ForEachTile(dest, rect, params, [&](TileTask const & task) {
        Reader reader(&source, nullptr, abort);
        LayerOf<Dest> layer(dest, task, strength);
        typename Reader::PlanarSpan span;
        for (int y = task.rect.top; y < task.rect.bottom && !task.IsAborted(); ++y) {
            auto const origin = MoveRect({task.rect.left, y, task.rect.left, y}, -std::int64_t(dx), -std::int64_t(dy));
            reader.SetToXY(origin.left, origin.top);
            // Whole spans begin at multiples of 32, so that they never straddle a tile.
            for (int x = task.rect.left; x < task.rect.right;) {
                int const count = std::min(spanLength - x % spanLength, task.rect.right - x);
                ReadRun(reader, count, span);
                layer.Lay(x, y, span, count);
                x += count;
            }
            task.ReportRow(y);
        }
    });
}

/// The rectangle that `Feed` hands over: the clip in the source's bounds, or for a source without bounds the clip
/// alone, and without one as much as the sink is large.
template<SinkModel Sink, ReadModel Source>
Kernel::RectT<int> GetFedRect(Sink const & sink, Source const & source, TransferParams const * params) {
    if constexpr (Source::isUnbounded)
        return params && params->clip ? *params->clip : Kernel::RectT<int>{0, 0, sink.GetWidth(), sink.GetHeight()};
    else
        return GetWorkRect({0, 0, source.GetWidth(), source.GetHeight()}, params);
}

/// The work of a transfer that goes row by row on the calling thread.
inline TileTask MakeRowTask(Kernel::RectT<int> const & rect, TransferParams const * params) {
    return {rect, true, params ? *params : TransferParams()};
}

/// One run at the position of a writer, which ends just past it.
template<class Writer, class Span>
void FeedRun(Writer & writer, int count, Span const & span) {
    if constexpr (TakesRows<Writer>)
        writer.WriteRow(static_cast<std::size_t>(count), GetRows<void const>(span).data());
    else
        WriteRun(writer, count, span);
}

/// What comes after the last row. A file writer finishes its file, or leaves it unfinished after an abort.
template<class Writer>
void EndFeed(Writer & writer, bool isComplete) {
    if constexpr (requires { writer.Abandon(); }) {
        if (isComplete)
            writer.Finish();
        else
            writer.Abandon();
    } else if (isComplete)
        writer.Flush();
}

/// The rows of any source, in runs.
template<class Writer, ReadModel Source>
bool FeedSpans(Writer & writer, Source const & source, TileTask const & task) {
    ModelConstAccessor<Source, Safe, IdentityTransform> reader(&source, nullptr, task.params.abort);
    typename decltype(reader)::PlanarSpan span;
    for (int y = task.rect.top; y < task.rect.bottom; ++y) {
        if (task.IsAborted())
            return false;
        reader.SetToXY(task.rect.left, y);
        writer.SetToXY(0, y - task.rect.top);
        for (int left = task.rect.GetWidth(); left > 0;) {
            int const count = std::min(spanLength, left);
            left -= count;
            ReadRun(reader, count, span);
            FeedRun(writer, count, span);
        }
        if (y % TileGrid::tileHeight == 0)
            reader.Reset(); // a tile row at a time is enough to hold
        task.ReportRow(y);
    }
    return true;
}

/// Hands every pixel of `source` in the clip rectangle to `sink`, row by row from the top on the calling thread,
/// without reading the sink. Rows begin at the rectangle's left edge, which lands on column 0. In the end the sink is
/// flushed, and a file writer finishes its file; after an abort a sink isn't flushed, and a file writer has failed.
/// Progress comes as for work in line. A pending source is loaded first; one that may stay unloaded is handed over as
/// empty.
/// @return whether all of it was handed over. False also if there was nothing.
/// Throws what the sink throws.
template<SinkModel Sink, ReadModel Source>
    requires SameTuple<Sink, Source>
bool Feed(Sink & sink, Source const & source, TransferParams const * params) {
    if constexpr (std::derived_from<Source, BitmapCore>) {
        if (ReadsAsEmpty(source, params)) {
            Kernel::Counted<Source> const empty(
                new Source(source.GetWidth(), source.GetHeight(), MipmapModeNone, HardwareCachePolicy()));
            return Feed(sink, *empty, params);
        }
        if (!LoadSource(source, params))
            return false;
    }
    auto const task = MakeRowTask(GetFedRect(sink, source, params), params);
    if (task.rect.IsEmpty())
        return false;
    typename Sink::template PixelAccessor<AllChannels> writer(&sink);
    bool isComplete = !task.IsAborted();
    if constexpr (std::derived_from<Source, BitmapCore> && TakesRows<decltype(writer)>)
        isComplete = FeedRows(MakeRowSink(writer), source, task.rect, /*offset=*/0, task);
    else if (isComplete)
        isComplete = FeedSpans(writer, source, task);
    EndFeed(writer, isComplete);
    return isComplete;
}

/// `Draw` of a bitmap onto a buffer when formats are known at run time only. A bitmap of another format is converted
/// first. A pending one is loaded, unless it may stay unloaded; without pixels on either side nothing happens.
RASTER_API void Draw(DynamicBuffer & dest, DynamicBitmap const & source, TransferParams const * params,
                     float const * opacity, int dx, int dy);

/// `Feed` of a bitmap into a buffer when formats are known at run time only: the pixels in the clip rectangle take the
/// place of those in the buffer's corner, as far as both reach, alpha 0 included. A bitmap of another format is
/// converted first. @return whether all of it was handed over.
RASTER_API bool Feed(DynamicBuffer & dest, DynamicBitmap const & source, TransferParams const * params);
}
