#include "pixel/transfer/Draw.h"

#include "pixel/transfer/BitmapTransfer.h"

namespace Raster {
namespace {
// The part of a source that shows in a destination's rectangle, in another format.
DynamicBitmap ConvertPart(DynamicBitmap const & source, Kernel::RectT<int> const & part, Format format, bool * abort) {
    DynamicBitmap converted(part.GetWidth(), part.GetHeight(), format, MipmapModeNone, HardwareCachePolicy());
    TransferParams params;
    params.abort = abort;
    double const matrix[6]{1, 0, double(part.left), 0, 1, double(part.top)};
    Transfer(converted, source, &params, nullptr, matrix);
    return converted;
}
}

void Draw(DynamicBuffer & dest, DynamicBitmap const & source, TransferParams const * params, float const * opacity,
          int dx, int dy) {
    BitmapCore const * const core = source.GetCore();
    if (!core || dest.GetWidth() == 0)
        return;
    if (!LoadSource(*core, params))
        return;
    bool * const abort = params ? params->abort : nullptr;
    if (dest.GetFormat() != source.GetFormat()) {
        auto const work = GetWorkRect({0, 0, dest.GetWidth(), dest.GetHeight()}, params);
        auto const part = MoveRect(work, -std::int64_t(dx), -std::int64_t(dy)).Intersect(core->GetBounds());
        if (!part.IsEmpty())
            Draw(dest, ConvertPart(source, part, dest.GetFormat(), abort), params, opacity, dx + part.left,
                 dy + part.top);
        return;
    }
    VisitFormat(dest.GetFormat(), [&](auto tuple) {
        using Tuple = decltype(tuple);
        auto const buffer = dest.GetTyped<Tuple>();
        auto const bitmap = source.GetTyped<Tuple>();
        if (buffer && bitmap)
            Draw(*buffer, *bitmap, params, opacity, dx, dy);
    });
}

bool Feed(DynamicBuffer & dest, DynamicBitmap const & source, TransferParams const * params) {
    BitmapCore const * const core = source.GetCore();
    if (!core || dest.GetWidth() == 0)
        return false;
    if (ReadsAsEmpty(*core, params)) {
        DynamicBitmap const empty(core->GetWidth(), core->GetHeight(), dest.GetFormat(), MipmapModeNone,
                                  HardwareCachePolicy());
        return empty.GetCore() && Feed(dest, empty, params);
    }
    if (!LoadSource(*core, params))
        return false;
    if (dest.GetFormat() != source.GetFormat()) {
        TransferParams own = params ? *params : TransferParams();
        auto part = GetWorkRect(core->GetBounds(), params);
        part = part.Intersect(MoveRect({0, 0, dest.GetWidth(), dest.GetHeight()}, part.left, part.top));
        if (part.IsEmpty())
            return false;
        own.clip = nullptr;
        return Feed(dest, ConvertPart(source, part, dest.GetFormat(), own.abort), &own);
    }
    bool isComplete = false;
    VisitFormat(dest.GetFormat(), [&](auto tuple) {
        using Tuple = decltype(tuple);
        auto const buffer = dest.GetTyped<Tuple>();
        auto const bitmap = source.GetTyped<Tuple>();
        isComplete = buffer && bitmap && Feed(*buffer, *bitmap, params);
    });
    return isComplete;
}
}
