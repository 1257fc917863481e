#include "host/Resample.h"

#include "host/Signals.h"
#include "pixel/transfer/BitmapTransfer.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace Host {
namespace {
using Raster::DynamicBitmap;

/// One direction of the picture: how positions of the destination become positions of the source.
class Axis {
public:
    Axis(int givenSourceLength, int givenLength, double givenScale)
        : sourceLength(givenSourceLength), length(givenLength), scale(givenScale) {
        while (begin < length && GetSample(begin) < 0)
            ++begin;
        end = length;
        while (end > begin && GetSample(end - 1) > sourceLength - 1 - slack)
            --end;
    }

    /// From `GetBegin` to `GetEnd` all samples lie within the source, also with the error that single precision gathers
    /// on the way through a tile.
    int GetBegin() const { return begin; }
    int GetEnd() const { return end; }
    int GetLength() const { return length; }
    double GetScale() const { return scale; }
    /// Where pixel `x` beyond those reads: the nearest place within the source. A distance from its left or top edge.
    double GetEdgePosition(int x) const { return std::clamp(GetSample(x), 0.0, sourceLength - 1.0) + 0.5; }

private:
    static constexpr double slack = 0.125;

    double GetSample(int x) const { return (x + 0.5) * scale - 0.5; } // in pixels, 0 being the centre of the first

    int sourceLength, length;
    double scale;
    int begin = 0, end = 0;
};

/// A part of the destination in which one direction is stepped, or stays where it is.
struct Band {
    int begin, end;
    double step, start;
};

/// The middle, then the edges pixel by pixel.
std::vector<Band> Cut(Axis const & axis) {
    std::vector<Band> bands;
    if (axis.GetBegin() < axis.GetEnd())
        bands.push_back({axis.GetBegin(), axis.GetEnd(), axis.GetScale(), 0});
    auto const addEdge = [&](int x) { bands.push_back({x, x + 1, 0, axis.GetEdgePosition(x)}); };
    for (int x = 0; x < axis.GetBegin(); ++x)
        addEdge(x);
    for (int x = axis.GetEnd(); x < axis.GetLength(); ++x)
        addEdge(x);
    return bands;
}

/// The level that a transfer would read: the one that the smaller scale doesn't make coarser than the result.
int ChooseLevel(double scale) {
    int level = 0;
    for (; scale > 2.0; scale *= 0.5)
        ++level;
    return level;
}
}

DynamicBitmap Resample(DynamicBitmap const & bitmap, int width, int height, Progress & progress) {
    double const scaleX = double(bitmap.GetWidth()) / width, scaleY = double(bitmap.GetHeight()) / height;
    auto const params = progress.GetParams();

    // The level is taken by hand: along edges the matrix stands still, by which no scale could be told.
    int const level = ChooseLevel(std::min(scaleX, scaleY));
    DynamicBitmap source = bitmap;
    double levelScale = 1;
    if (level > 0) {
        bitmap.UpdateMipmaps(level, params.abort);
        Signals::ThrowIfAborted();
        if (auto const mipmap = source.GetMipmap(level)) {
            source = *mipmap;
            levelScale = std::ldexp(1.0, -level);
        }
    }

    DynamicBitmap result(width, height, bitmap.GetFormat(), Raster::MipmapModeNone, Raster::HardwareCachePolicy());
    Axis const axisX(source.GetWidth(), width, scaleX * levelScale);
    Axis const axisY(source.GetHeight(), height, scaleY * levelScale);
    for (auto const & row : Cut(axisY)) {
        for (auto const & column : Cut(axisX)) {
            Kernel::RectT<int> const clip{column.begin, row.begin, column.end, row.end};
            std::array<double, 6> const matrix{column.step, 0, column.start, 0, row.step, row.start};
            auto part = params;
            part.clip = &clip;
            Raster::Transfer(result, source, &part, nullptr, matrix.data());
            Signals::ThrowIfAborted();
        }
    }
    return result;
}
}
