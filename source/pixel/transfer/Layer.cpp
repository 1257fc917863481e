#include "pixel/transfer/Layer.h"

#include "pixel/transfer/Coverage.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Raster {
float ClampOpacity(float const * opacity) {
    float const value = opacity ? *opacity : 1.0f;
    if (!(value > 0.0f))
        return 0.0f;
    return value > 1.0f || std::fabs(value - 1.0f) <= 1e-6f ? 1.0f : value;
}

Kernel::RectT<int> MoveRect(Kernel::RectT<int> const & rect, std::int64_t dx, std::int64_t dy) {
    auto const move = [](std::int64_t value, std::int64_t offset) {
        return static_cast<int>(std::clamp<std::int64_t>(value + offset, INT32_MIN, INT32_MAX));
    };
    return {move(rect.left, dx), move(rect.top, dy), move(rect.right, dx), move(rect.bottom, dy)};
}

namespace {
bool HasLevel(BitmapCore const & bitmap, BitmapCore const & level) {
    auto const levels = bitmap.GetMipmapTable().GetLevels();
    return std::any_of(levels.begin(), levels.end(),
                       [&](auto const & entry) { return entry.second.bitmap.Get() == &level; });
}
}

bool AreEntangled(BitmapCore const & dest, BitmapCore const & source) {
    return &dest == &source || HasLevel(source, dest) || HasLevel(dest, source);
}

bool LoadSource(BitmapCore const & source, TransferParams const * params) {
    if (!source.IsPendingDelayLoad())
        return true;
    if (ReadsAsEmpty(source, params))
        return false; // nothing is there yet
    bool * const abort = params ? params->abort : nullptr;
    source.ForceDelayLoad(abort);
    return !source.IsPendingDelayLoad() && !Kernel::IsAborted(abort);
}

BitmapLayer::BitmapLayer(BitmapCore & dest, TileTask const & task, float layerOpacity)
    : layout(dest.GetLayout()), blend(GetBlendRows(layout.sampleType)), opacity(layerOpacity), tile(dest, task.rect) {}

void BitmapLayer::Lay(int x, int y, void const * const * rows, std::size_t count) {
    int const colours = layout.channelCount - 1;
    if (tile.IsOpen() || HasCoverage(layout.sampleType, rows[colours], count, opacity))
        blend(tile.GetRows(x, y).data(), rows, colours, count, opacity);
}
}
