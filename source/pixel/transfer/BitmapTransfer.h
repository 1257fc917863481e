/// The engine that puts the pixels of one bitmap on another: it samples, converts and composites.
#pragma once

#include "kernel/Export.h"
#include "pixel/TransferParams.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
/// Lays `source` over `dest` by the source-over rule, for every pixel in the clip rectangle.
///
/// Without a matrix, or with one that moves by whole pixels, source pixels are taken as they are. Otherwise each
/// pixel's centre is mapped to the source and sampled bilinearly, with colours weighted by alpha; outside its bounds
/// the source is transparent, so that an edge fades over one pixel. A matrix that shrinks by more than 2 samples a
/// mipmap of the source, which modes 2 and 4 build on demand. Formats may differ; colours are converted by formula.
///
/// Work is split by the destination's tiles over the thread pool. The result is the same for any number of threads.
/// Tiles on which nothing is laid are neither pinned nor allocated; tiles that are replaced whole by opaque ones are
/// shared. A pending bitmap on either side is loaded first; one that stays pending ends the transfer with nothing
/// written. An abort leaves the rows that were done.
///
/// @param dest     written in place. May be `source`, or have it for a level: the source is then taken as it was
/// before.
/// @param params   may be null.
/// @param opacity  clamped to 0 to 1, no number being 0; within 1e-6 of 1 it is 1. Null is 1.
/// @param matrix   six doubles a, b, c, d, e, f, or null for the identity: pixel (x, y) of the destination shows the
///                 source at (a x + b y + c, d x + e y + f). One with an entry that isn't finite transfers nothing.
/// Throws what allocation and the backstore throw. Threads: `dest` is the caller's alone, `source` may be read by
/// others.
RASTER_API void Transfer(BitmapCore & dest, BitmapCore const & source, TransferParams const * params,
                         float const * opacity, double const * matrix);

/// The same, and the destination's levels are told: the rectangle is recorded in them, and with mipmap mode 1 they are
/// brought up to date at once. A pending destination is loaded first. Without a format on either side nothing happens.
RASTER_API void Transfer(DynamicBitmap & dest, DynamicBitmap const & source, TransferParams const * params,
                         float const * opacity, double const * matrix);

/// Between two tuples that are known. Only the ten that have a format take part.
template<class... D, class... S>
void Transfer(Bitmap<D...> & dest, Bitmap<S...> const & source, TransferParams const * params, float const * opacity,
              double const * matrix) {
    static_assert(Bitmap<D...>::GetFormat() != NoFormat && Bitmap<S...>::GetFormat() != NoFormat,
                  "only tuples that have a format are converted");
    Transfer(static_cast<BitmapCore &>(dest), static_cast<BitmapCore const &>(source), params, opacity, matrix);
}
}
