#include "host/Levels.h"

#include "files/FileTransfer.h"
#include "host/Formats.h"
#include "host/Signals.h"
#include "pixel/transfer/BitmapTransfer.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace Host {
namespace {
using namespace Raster;

constexpr int tileHeight = 256;
// What is freed stays at hand up to a few times this, so that bands after the first take no new memory from the system.
// Larger ones are slower: they leave the caches before they are halved.
constexpr std::int64_t bandBytes = 4 << 20;

int Halve(int length) { return (length + 1) / 2; }

/// How many levels a bitmap of this size has: they stop once both sides are below 17 or one is below 2.
int CountLevels(Size size) {
    int count = 0;
    for (; std::max(size.width, size.height) >= 17 && std::min(size.width, size.height) >= 2; ++count)
        size = {Halve(size.width), Halve(size.height)};
    return count;
}

/// Of all bands but the last, which also has the rest: a multiple of what one row of the level stands for.
int ChooseBandHeight(DynamicFile const & file, int level) {
    std::int64_t const rowBytes = std::int64_t(file.GetWidth()) * GetPixelBytes(file.GetFormat());
    int const unit = std::max(tileHeight, 2 << level);
    auto const units = std::max<std::int64_t>(1, bandBytes / (rowBytes * unit));
    return static_cast<int>(std::min<std::int64_t>(units * unit, file.GetHeight()));
}

/// Puts the level of one band where it belongs.
void PutBand(DynamicBitmap & result, DynamicBitmap const & band, int level, int top, TransferParams const & params) {
    band.UpdateMipmaps(level, params.abort);
    Signals::ThrowIfAborted();
    auto const small = band.GetMipmap(level);
    if (!small)
        throw std::logic_error("a band of the picture lacks a level");
    Kernel::RectT<int> const clip{0, top, result.GetWidth(), top + small->GetHeight()};
    double const matrix[] = {1, 0, 0, 0, 1, -double(top)};
    auto part = params;
    part.clip = &clip;
    part.progress = nullptr;
    Transfer(result, *small, &part, nullptr, matrix);
}
}

int ChooseLevel(Size const & from, Size const & to) {
    int level = 0;
    for (double scale = std::min(double(from.width) / to.width, double(from.height) / to.height); scale > 2;
         scale *= 0.5)
        ++level;
    return std::min(level, CountLevels(from));
}

DynamicBitmap DrawLevel(DynamicFile & file, int level, Progress & progress) {
    auto const params = progress.GetParams();
    if (level == 0) {
        DynamicBitmap whole(file.GetWidth(), file.GetHeight(), file.GetFormat(), MipmapModeOnDemand,
                            HardwareCachePolicy());
        DrawOnce(whole, file, &params, nullptr, 0, 0);
        return whole;
    }
    Size size{file.GetWidth(), file.GetHeight()};
    for (int i = 0; i < level; ++i)
        size = {Halve(size.width), Halve(size.height)};
    DynamicBitmap result(size.width, size.height, file.GetFormat(), MipmapModeNone, HardwareCachePolicy());
    VisitBands(file, ChooseBandHeight(file, level), &params,
               [&](DynamicBitmap const & band, int top) { PutBand(result, band, level, top >> level, params); });
    Signals::ThrowIfAborted();
    return result;
}
}
