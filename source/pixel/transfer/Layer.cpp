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

Kernel::RectT<int> MoveRect(Kernel::RectT<int> const & rect, int dx, int dy) {
    auto const move = [](int value, int offset) {
        return static_cast<int>(std::clamp<std::int64_t>(std::int64_t(value) + offset, INT32_MIN, INT32_MAX));
    };
    return {move(rect.left, dx), move(rect.top, dy), move(rect.right, dx), move(rect.bottom, dy)};
}

BitmapLayer::BitmapLayer(BitmapCore & dest, TileTask const & task, float layerOpacity)
    : layout(dest.GetLayout()), blend(GetBlendRows(layout.sampleType)), opacity(layerOpacity), tile(dest, task.rect) {}

void BitmapLayer::Lay(int x, int y, void const * const * rows, std::size_t count) {
    int const colours = layout.channelCount - 1;
    if (tile.IsOpen() || HasCoverage(layout.sampleType, rows[colours], count, opacity))
        blend(tile.GetRows(x, y).data(), rows, colours, count, opacity);
}
}
