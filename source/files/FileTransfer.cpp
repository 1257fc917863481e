#include "files/FileTransfer.h"

#include "files/DynamicFile.h"
#include "files/FileFormat.h"
#include "pixel/transfer/BitmapTransfer.h"

#include <algorithm>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

// Bands that end where the tiles of the destination do, so that two never share one.
BandCut CutAtTiles(int height, int dy) {
    int const row = (dy % TileGrid::tileHeight + TileGrid::tileHeight) % TileGrid::tileHeight;
    return BandCut(height, TileGrid::tileHeight, TileGrid::tileHeight - row);
}

// Tells how far a picture has come that is drawn band by band.
class BandProgress {
public:
    BandProgress(TransferParams const * givenParams, int givenHeight)
        : params(givenParams ? *givenParams : TransferParams()), bandParams(params), height(givenHeight) {
        bandParams.progress = nullptr;
    }
    /// For the work on one band.
    TransferParams const & GetBandParams() const { return bandParams; }
    void Report(int bottom) {
        if (params.progress && params.progressContext)
            params.progress(++count, params.progressContext, double(bottom) / height);
    }

private:
    TransferParams const params;
    TransferParams bandParams;
    int const height;
    unsigned count = 0;
};

// A part of a bitmap in another format.
DynamicBitmap ConvertPart(DynamicBitmap const & source, Rect const & part, Format format, bool * abort) {
    DynamicBitmap converted(part.GetWidth(), part.GetHeight(), format, MipmapModeNone, HardwareCachePolicy());
    TransferParams params;
    params.abort = abort;
    double const matrix[6]{1, 0, double(part.left), 0, 1, double(part.top)};
    Transfer(converted, source, &params, nullptr, matrix);
    return converted;
}
}

bool FileTransfer::PrepareDest(DynamicBitmap & dest, TransferParams const * params) {
    if (!dest.GetCore())
        return false;
    if (!dest.IsPendingDelayLoad())
        return true;
    bool * const abort = params ? params->abort : nullptr;
    dest.ForceDelayLoad(abort);
    return !dest.IsPendingDelayLoad() && !Kernel::IsAborted(abort);
}

void FileTransfer::DrawConverted(DynamicBitmap & dest, Format sourceFormat, int sourceWidth, int sourceHeight,
                                 TransferParams const * params, float const * opacity, int dx, int dy,
                                 std::function<void(DynamicBitmap &, TransferParams const &, int, int)> const & draw) {
    auto const work = GetWorkRect(dest.GetCore()->GetBounds(), params);
    auto const part = MoveRect(work, -std::int64_t(dx), -std::int64_t(dy)).Intersect({0, 0, sourceWidth, sourceHeight});
    if (part.IsEmpty())
        return;
    TransferParams own;
    own.abort = params ? params->abort : nullptr;
    DynamicBitmap drawn(part.GetWidth(), part.GetHeight(), sourceFormat, MipmapModeNone, HardwareCachePolicy());
    draw(drawn, own, -part.left, -part.top);
    if (Kernel::IsAborted(own.abort))
        return;
    double const matrix[6]{1, 0, -double(dx) - part.left, 0, 1, -double(dy) - part.top};
    Transfer(dest, drawn, params, opacity, matrix);
}

bool FileTransfer::FeedBitmap(RowSink const & sink, Format format, DynamicBitmap const & source,
                              TransferParams const * params) {
    auto const * const core = source.GetCore();
    if (core && ReadsAsEmpty(*core, params)) {
        DynamicBitmap const empty(core->GetWidth(), core->GetHeight(), format, MipmapModeNone, HardwareCachePolicy());
        return empty.GetCore() && FeedBitmap(sink, format, empty, params);
    }
    if (!core || !LoadSource(*core, params))
        return false;
    auto const task = MakeRowTask(GetWorkRect(core->GetBounds(), params), params);
    if (source.GetFormat() == format)
        return !task.rect.IsEmpty() && FeedRows(sink, *core, task.rect, /*offset=*/0, task);
    bool isComplete = !task.rect.IsEmpty();
    for (int top = task.rect.top; isComplete && top < task.rect.bottom;) {
        int const bottom = std::min(task.rect.bottom, (top / TileGrid::tileHeight + 1) * TileGrid::tileHeight);
        auto const band =
            ConvertPart(source, {task.rect.left, top, task.rect.right, bottom}, format, task.params.abort);
        isComplete = band.GetCore() && FeedRows(sink, *band.GetCore(), band.GetCore()->GetBounds(), top, task);
        top = bottom;
    }
    return isComplete;
}

void Draw(DynamicBitmap & dest, DynamicFile const & source, TransferParams const * params, float const * opacity,
          int dx, int dy) {
    if (source.wrapper)
        source.fileFormat->draw(dest, *source.wrapper, params, opacity, dx, dy);
}

void DrawOnce(DynamicBitmap & dest, DynamicFile & source, TransferParams const * params, float const * opacity, int dx,
              int dy) {
    if (!source.wrapper || source.GetWidth() == 0 || !FileTransfer::PrepareDest(dest, params))
        return;
    if (dest.GetFormat() != source.GetFormat())
        return FileTransfer::DrawConverted(dest, source.GetFormat(), source.GetWidth(), source.GetHeight(), params,
                                           opacity, dx, dy,
                                           [&](DynamicBitmap & part, TransferParams const & own, int x, int y) {
                                               DrawOnce(part, source, &own, nullptr, x, y);
                                           });
    auto const cut = CutAtTiles(source.GetHeight(), dy);
    float const strength = ClampOpacity(opacity);
    BandProgress progress(params, source.GetHeight());
    auto const draw = [&](RowSource const & rows) {
        if (cut.GetCount() == 1)
            return DrawRows(*dest.GetCore(), rows, params, strength, dx, dy);
        DrawRows(*dest.GetCore(), rows, &progress.GetBandParams(), strength, dx, dy);
        progress.Report(rows.bounds.bottom);
    };
    auto & core = *dest.GetCore();
    bool * const abort = params ? params->abort : nullptr;
    WriteRecorded(core, GetWorkRect(core.GetBounds(), params), abort, [&] {
        if (!source.fileFormat->takeBands(*source.wrapper, cut, draw, abort))
            Draw(dest, source, params, opacity, dx, dy);
    });
}

void VisitBands(DynamicFile & source, int bandHeight, TransferParams const * params, BandVisitor const & visit) {
    int const width = source.GetWidth(), height = source.GetHeight();
    if (!source.wrapper || width == 0)
        return;
    BandCut const cut(height, bandHeight);
    BandProgress progress(params, height);
    auto & own = progress.GetBandParams();
    auto const visitBand = [&](int top, int bottom, auto && draw) {
        DynamicBitmap band(width, bottom - top, source.GetFormat(), MipmapModeOnDemand, HardwareCachePolicy());
        draw(band);
        if (Kernel::IsAborted(own.abort) || source.HasFailed())
            return false;
        visit(band, top);
        progress.Report(bottom);
        return true;
    };
    auto const draw = [&](RowSource const & rows) {
        visitBand(rows.bounds.top, rows.bounds.bottom,
                  [&](DynamicBitmap & band) { DrawRows(*band.GetCore(), rows, &own, 1.0f, 0, -rows.bounds.top); });
    };
    if (source.fileFormat->takeBands(*source.wrapper, cut, draw, own.abort))
        return;
    for (int i = 0; i < cut.GetCount(); ++i)
        if (!visitBand(cut.GetTop(i), cut.GetTop(i + 1),
                       [&](DynamicBitmap & band) { Draw(band, source, &own, nullptr, 0, -cut.GetTop(i)); }))
            return;
}

bool Feed(DynamicFile & dest, DynamicBitmap const & source, TransferParams const * params) {
    return dest.wrapper && dest.fileFormat->feed(*dest.wrapper, source, params);
}
}
