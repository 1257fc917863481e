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

int Halve(int length) { return (length + 1) / 2; }

/// Bilinear; result pixels are `scaleX` and `scaleY` pixels of the source apart.
DynamicBitmap Scale(DynamicBitmap const & bitmap, Size const & to, double scaleX, double scaleY,
                    Raster::TransferParams const & params) {
    DynamicBitmap result(to.width, to.height, bitmap.GetFormat(), Raster::MipmapModeNone,
                         Raster::HardwareCachePolicy());
    for (auto const & row : Cut(Axis(bitmap.GetHeight(), to.height, scaleY))) {
        for (auto const & column : Cut(Axis(bitmap.GetWidth(), to.width, scaleX))) {
            Kernel::RectT<int> const clip{column.begin, row.begin, column.end, row.end};
            std::array<double, 6> const matrix{column.step, 0, column.start, 0, row.step, row.start};
            auto part = params;
            part.clip = &clip;
            Raster::Transfer(result, bitmap, &part, nullptr, matrix.data());
            Signals::ThrowIfAborted();
        }
    }
    return result;
}
}

DynamicBitmap Resample(DynamicBitmap const & bitmap, int level, Size const & from, Size const & to,
                       Progress & progress) {
    if (level == 0 && from.width == to.width && from.height == to.height)
        return bitmap;
    auto const params = progress.GetParams();
    auto silent = params;
    silent.progress = nullptr;
    double scaleX = std::ldexp(double(from.width) / to.width, -level);
    double scaleY = std::ldexp(double(from.height) / to.height, -level);
    DynamicBitmap source = bitmap;
    // Steps of more than two pixels would pass over some. A level has both directions halved; where one of them shrinks
    // much more than the other, it is halved by itself: a sample right between two pixels is their mean.
    for (; scaleX > 2; scaleX /= 2)
        source = Scale(source, {Halve(source.GetWidth()), source.GetHeight()}, 2, 1, silent);
    for (; scaleY > 2; scaleY /= 2)
        source = Scale(source, {source.GetWidth(), Halve(source.GetHeight())}, 1, 2, silent);
    return Scale(source, to, scaleX, scaleY, params);
}
}
