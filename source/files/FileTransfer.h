/// Pixels between files and bitmaps whose formats are known at run time only.
#pragma once

#include "files/RowBands.h"
#include "pixel/transfer/Draw.h"

#include <concepts>
#include <functional>

namespace Raster {
class DynamicFile;

/// A wrapper of file models: see files/FileWrapper.h.
template<class T>
concept WrapsFile = std::derived_from<T, DynamicBase<T>> && std::derived_from<T, Kernel::Countable> &&
    requires(T const & wrapper) {
    wrapper.HasFailed();
};

/// Lays the picture in a file over a bitmap, as `Draw` of a model does: file pixel (x, y) lands on (x + dx, y + dy).
/// The file is decoded now, if it wasn't before. One of another format is converted by formula, by way of a temporary
/// bitmap. A pending destination is loaded first, and its levels are told of the change. A file that failed has no
/// pixels; without a format on either side nothing happens. Throws what decoding and allocation throw, a limit that the
/// file goes over among it.
template<WrapsFile File>
void Draw(DynamicBitmap & dest, File const & source, TransferParams const * params, float const * opacity, int dx,
          int dy);
/// The same for a file of any type.
RASTER_API void Draw(DynamicBitmap & dest, DynamicFile const & source, TransferParams const * params,
                     float const * opacity, int dx, int dy);

/// As `Draw`, for a picture that is looked at once: rows go into the bitmap while later ones are still being decoded,
/// and the file never holds all of them where its codec gives them from the top. Result and bits are the same.
/// Afterwards the file may have no pixels left; what it says of itself stays. Only one thread may use the file
/// meanwhile. What was drawn before an error, or before an abort, stays drawn.
RASTER_API void DrawOnce(DynamicBitmap & dest, DynamicFile & source, TransferParams const * params,
                         float const * opacity, int dx, int dy);

/// What gets the bands of a picture, from the top, one after another: `visit(band, top)`, a bitmap of the file's format
/// with the rows from `top` on. It may be kept.
using BandVisitor = std::function<void(DynamicBitmap & band, int top)>;

/// Takes a picture that is larger than what is wanted of it apart: as `DrawOnce`, into one bitmap after another, each
/// of which is visited while the next rows are decoded. Bands are visited one at a time, on the calling thread or
/// another one. Colour under alpha 0 is not kept. Progress comes after each band. After an error or an abort the rest
/// is not visited; what `visit` throws ends the work, too, and arrives here.
/// @param bandHeight  at least 1; bands of whole tiles (256 rows) are fastest. The last one also has what is left over,
///                    which is less than another band.
/// @param params      may be null; its clip is not looked at.
RASTER_API void VisitBands(DynamicFile & source, int bandHeight, TransferParams const * params,
                           BandVisitor const & visit);

/// Writes the pixels of a bitmap to a file that was opened for that, and completes the file. It takes rows from the
/// top: as many as both have; a bitmap that is smaller than the file makes it fail. One of another format is converted
/// by formula, 256 rows at a time. A pending bitmap is loaded first, or is empty if it may stay unloaded. After an
/// abort the file is unfinished and has failed. A file is written once.
/// @return whether the file is complete
/// Throws what encoder and output throw; the file has failed then.
template<WrapsFile File>
bool Feed(File & dest, DynamicBitmap const & source, TransferParams const * params);
/// The same for a file of any type.
RASTER_API bool Feed(DynamicFile & dest, DynamicBitmap const & source, TransferParams const * params);

/// What gets some rows of a picture at a time; they are gone afterwards.
using RowTaker = std::function<void(RowSource const & rows)>;

/// What the templates need that does not depend on types.
class RASTER_API FileTransfer {
public:
    /// Has a file decoded in bands that nobody keeps.
    /// @return false, with nothing done, if this file can't be, or was decoded before and is still here
    template<WrapsFile File>
    static bool TakeBands(File & source, BandCut const & cut, RowTaker const & take, bool * abort);

    /// Loads a pending bitmap. @return whether it may be drawn on.
    static bool PrepareDest(DynamicBitmap & dest, TransferParams const * params);

    /// The part of a source of this size that shows, drawn into a bitmap of its own format by `draw(bitmap, dx, dy)`
    /// and then laid on `dest`.
    static void DrawConverted(DynamicBitmap & dest, Format sourceFormat, int sourceWidth, int sourceHeight,
                              TransferParams const * params, float const * opacity, int dx, int dy,
                              std::function<void(DynamicBitmap &, TransferParams const &, int, int)> const & draw);

    /// All rows of the bitmap that the clip leaves, in the format of the sink.
    static bool FeedBitmap(RowSink const & sink, Format format, DynamicBitmap const & source,
                           TransferParams const * params);
};

template<WrapsFile File>
void Draw(DynamicBitmap & dest, File const & source, TransferParams const * params, float const * opacity, int dx,
          int dy) {
    if (source.GetWidth() == 0 || !FileTransfer::PrepareDest(dest, params))
        return;
    if (dest.GetFormat() != source.GetFormat())
        return FileTransfer::DrawConverted(dest, source.GetFormat(), source.GetWidth(), source.GetHeight(), params,
                                           opacity, dx, dy,
                                           [&](DynamicBitmap & part, TransferParams const & own, int x, int y) {
                                               Draw(part, source, &own, nullptr, x, y);
                                           });
    auto & core = *dest.GetCore();
    WriteRecorded(core, GetWorkRect(core.GetBounds(), params), params ? params->abort : nullptr, [&] {
        source.Dispatch([&](auto const & model) {
            using Tuple = typename std::remove_cvref_t<decltype(model)>::Tuple;
            if (auto * const bitmap = dest.GetTyped<Tuple>())
                Draw(*bitmap, model, params, opacity, dx, dy);
        });
    });
}

template<WrapsFile File>
bool FileTransfer::TakeBands(File & source, BandCut const & cut, RowTaker const & take, bool * abort) {
    return source.Dispatch([&](auto & model) {
        using Model = std::remove_reference_t<decltype(model)>;
        if constexpr (requires { model.DecodeBands(cut, BandTaker(), abort); })
            return model.DecodeBands(
                cut,
                [&](DecodedPixels const & band, int top) {
                    typename Model::ConstCursor const cursor(model, band, top);
                    take(MakeRowSource(cursor, IsOpaque(model)));
                },
                abort);
        else
            return false;
    });
}

template<WrapsFile File>
bool Feed(File & dest, DynamicBitmap const & source, TransferParams const * params) {
    return dest.Dispatch([&](auto & model) {
        using Model = std::remove_reference_t<decltype(model)>;
        if constexpr (requires { model.SetAbort(params->abort); }) // of codecs that work on long after the last row
            model.SetAbort(params ? params->abort : nullptr);
        typename Model::template PixelAccessor<AllChannels> writer(&model);
        bool const isComplete =
            FileTransfer::FeedBitmap(MakeRowSink(writer), formatOf<typename Model::Tuple>, source, params);
        EndFeed(writer, isComplete);
        return isComplete && !model.HasFailed();
    });
}
}
