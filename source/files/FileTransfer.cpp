#include "files/FileTransfer.h"

#include "files/DynamicFile.h"
#include "files/FileFormat.h"
#include "pixel/transfer/BitmapTransfer.h"

#include <algorithm>

namespace Raster {
namespace {
using Rect = Kernel::RectT<int>;

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

bool Feed(DynamicFile & dest, DynamicBitmap const & source, TransferParams const * params) {
    return dest.wrapper && dest.fileFormat->feed(*dest.wrapper, source, params);
}
}
