// The scenes of TransferBenchmark as other libraries draw them, those that were there when this was built, beside ours
// in the same run on one thread. Each peer gets pictures in the form that it draws fastest: premultiplied, one buffer.
#include "kernel/Dispatch.h"
#include "transfer/Scenes.h"

#include <benchmark/benchmark.h>
#ifdef RASTER_PEER_PIXMAN
#include <pixman.h>
#endif
#ifdef RASTER_PEER_QT
#include <QImage>
#include <QPainter>
#endif
#ifdef RASTER_PEER_YUV
#include <libyuv.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

namespace Raster {
namespace {
/// Random premultiplied colours, four samples a pixel.
template<class Sample>
struct Picture {
    int size;
    std::vector<Sample> samples;

    Picture(int side, Alpha alpha, unsigned seed, Sample maximum) : size(side), samples(std::size_t(side) * side * 4) {
        std::mt19937 random(seed);
        auto const draw = [&](Sample upTo) { return Sample(float(upTo) * float(random() & 0xffff) / 65535.0f); };
        for (std::size_t i = 0; i < samples.size(); i += 4) {
            samples[i + 3] = alpha == Alpha::Full ? maximum : draw(maximum);
            for (std::size_t c = 0; c < 3; ++c)
                samples[i + c] = draw(samples[i + 3]);
        }
    }
    int GetRowBytes() const { return size * int(4 * sizeof(Sample)); }
};
using Bytes = Picture<std::uint8_t>;
using Floats = Picture<float>;

template<class Work>
void Measure(benchmark::State & state, Work const & work) {
    double const unit = MeasureMemcpy();
    double best = 1e9;
    work(); // pages and caches as they are after a first write
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        work();
        double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        best = std::min(best, seconds);
        state.SetIterationTime(seconds);
    }
    state.counters["M"] = best / unit;
}

void Ours(benchmark::State & state, Scene const & scene) {
    Kernel::Dispatch::SetThreadCount(1);
    Measure(state, [&] { scene.Transfer(); });
    Kernel::Dispatch::SetThreadCount(0);
}

/// The side of the picture on which one of 2048 lies when it is turned by 30 degrees and scaled by 0.9, and the scale
/// of that which is only scaled.
constexpr int turnedSide = 2518;
constexpr double scale = 1.23;

#ifdef RASTER_PEER_PIXMAN
template<class Sample>
pixman_image_t * Wrap(Picture<Sample> & picture) {
    return pixman_image_create_bits_no_clear(sizeof(Sample) == 1 ? PIXMAN_a8b8g8r8 : PIXMAN_rgba_float, picture.size,
                                             picture.size, reinterpret_cast<std::uint32_t *>(picture.samples.data()),
                                             picture.GetRowBytes());
}

template<class Sample>
void PixmanOver(benchmark::State & state, Alpha sourceAlpha, Alpha destAlpha, Sample maximum) {
    Picture<Sample> source(Side(4096), sourceAlpha, 1, maximum), dest(Side(4096), destAlpha, 2, maximum);
    auto * const from = Wrap(source);
    auto * const to = Wrap(dest);
    Measure(state, [&] {
        pixman_image_composite32(PIXMAN_OP_OVER, from, nullptr, to, 0, 0, 0, 0, 0, 0, dest.size, dest.size);
    });
    pixman_image_unref(from);
    pixman_image_unref(to);
}

void PixmanMatrix(benchmark::State & state, int destSize, double angle, double by) {
    Bytes source(Side(2048), Alpha::Soft, 1, 255), dest(destSize, Alpha::Full, 2, 255);
    auto * const from = Wrap(source);
    auto * const to = Wrap(dest);
    double const c = std::cos(angle) / by, s = std::sin(angle) / by, middle = destSize / 2.0,
                 centre = source.size / 2.0;
    pixman_f_transform_t const matrix{
        {{c, s, centre - c * middle - s * middle}, {-s, c, centre + s * middle - c * middle}, {0, 0, 1}}};
    pixman_transform_t fixed;
    pixman_transform_from_pixman_f_transform(&fixed, &matrix);
    pixman_image_set_transform(from, &fixed);
    pixman_image_set_filter(from, PIXMAN_FILTER_BILINEAR, nullptr, 0);
    Measure(state,
            [&] { pixman_image_composite32(PIXMAN_OP_OVER, from, nullptr, to, 0, 0, 0, 0, 0, 0, destSize, destSize); });
    pixman_image_unref(from);
    pixman_image_unref(to);
}
#endif

#ifdef RASTER_PEER_QT
QImage Wrap(Bytes & picture, Alpha alpha) {
    return {picture.samples.data(), picture.size, picture.size, picture.GetRowBytes(),
            alpha == Alpha::Full ? QImage::Format_RGB32 : QImage::Format_ARGB32_Premultiplied};
}

void QtDraw(benchmark::State & state, Alpha sourceAlpha, Alpha destAlpha, int sourceSize, int destSize, double angle,
            double by) {
    Bytes source(sourceSize, sourceAlpha, 1, 255), dest(destSize, destAlpha, 2, 255);
    auto const from = Wrap(source, sourceAlpha);
    auto to = Wrap(dest, destAlpha);
    Measure(state, [&] {
        QPainter painter(&to);
        if (by != 1) {
            painter.setRenderHint(QPainter::SmoothPixmapTransform);
            painter.translate(destSize / 2.0, destSize / 2.0);
            painter.rotate(angle);
            painter.scale(by, by);
            painter.translate(-sourceSize / 2.0, -sourceSize / 2.0);
        }
        painter.drawImage(0, 0, from);
    });
}
#endif

#ifdef RASTER_PEER_YUV
void YuvOver(benchmark::State & state) {
    Bytes source(Side(4096), Alpha::Soft, 1, 255), dest(Side(4096), Alpha::Full, 2, 255);
    Measure(state, [&] {
        libyuv::ARGBBlend(source.samples.data(), source.GetRowBytes(), dest.samples.data(), dest.GetRowBytes(),
                          dest.samples.data(), dest.GetRowBytes(), dest.size, dest.size);
    });
}
#endif

#define RASTER_ENTRANT(name, call)                                                                                     \
    void name(benchmark::State & state) { call; }                                                                      \
    BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMillisecond)
#ifdef RASTER_PEER_PIXMAN
#define RASTER_PIXMAN(name, call) RASTER_ENTRANT(name##_Pixman, call)
#else
#define RASTER_PIXMAN(name, call) static_assert(true)
#endif
#ifdef RASTER_PEER_QT
#define RASTER_QT(name, call) RASTER_ENTRANT(name##_Qt, call)
#else
#define RASTER_QT(name, call) static_assert(true)
#endif
#ifdef RASTER_PEER_YUV
#define RASTER_YUV(name, call) RASTER_ENTRANT(name##_Yuv, call)
#else
#define RASTER_YUV(name, call) static_assert(true)
#endif

RASTER_ENTRANT(SoftOntoOpaque_Ours, Ours(state, MakeOver<RGBA8Tuple>(Alpha::Soft, Alpha::Full)));
RASTER_PIXMAN(SoftOntoOpaque, PixmanOver<std::uint8_t>(state, Alpha::Soft, Alpha::Full, 255));
RASTER_QT(SoftOntoOpaque, QtDraw(state, Alpha::Soft, Alpha::Full, Side(4096), Side(4096), 0, 1));
RASTER_YUV(SoftOntoOpaque, YuvOver(state));

RASTER_ENTRANT(SoftOntoSoft_Ours, Ours(state, MakeOver<RGBA8Tuple>(Alpha::Soft, Alpha::Soft)));
RASTER_PIXMAN(SoftOntoSoft, PixmanOver<std::uint8_t>(state, Alpha::Soft, Alpha::Soft, 255));
RASTER_QT(SoftOntoSoft, QtDraw(state, Alpha::Soft, Alpha::Soft, Side(4096), Side(4096), 0, 1));

RASTER_ENTRANT(OpaqueOntoOpaque_Ours, Ours(state, MakeOver<RGBA8Tuple>(Alpha::Full, Alpha::Full)));
RASTER_PIXMAN(OpaqueOntoOpaque, PixmanOver<std::uint8_t>(state, Alpha::Full, Alpha::Full, 255));
RASTER_QT(OpaqueOntoOpaque, QtDraw(state, Alpha::Full, Alpha::Full, Side(4096), Side(4096), 0, 1));

RASTER_ENTRANT(Float_SoftOntoOpaque_Ours, Ours(state, MakeOver<RGBAUFTuple>(Alpha::Soft, Alpha::Full)));
RASTER_PIXMAN(Float_SoftOntoOpaque, PixmanOver<float>(state, Alpha::Soft, Alpha::Full, 1.0f));

RASTER_ENTRANT(RotateAndScale_Ours, Ours(state, MakeTurned(thirtyDegrees, 0.9)));
RASTER_PIXMAN(RotateAndScale, PixmanMatrix(state, Side(turnedSide), thirtyDegrees, 0.9));
RASTER_QT(RotateAndScale, QtDraw(state, Alpha::Soft, Alpha::Full, Side(2048), Side(turnedSide), 30, 0.9));

RASTER_ENTRANT(ScaleOnly_Ours, Ours(state, MakeTurned(0, scale)));
RASTER_PIXMAN(ScaleOnly, PixmanMatrix(state, int(Side(2048) * scale), 0, scale));
RASTER_QT(ScaleOnly, QtDraw(state, Alpha::Soft, Alpha::Full, Side(2048), int(Side(2048) * scale), 0, scale));
}
}
