/// How accessors read a file model: over the block that its codec decoded.
#pragma once

#include "files/DecodedPixels.h"
#include "kernel/Rect.h"
#include "pixel/Pixel.h"
#include "pixel/Span.h"

#include <cstddef>

namespace Raster {
/// The const cursor of a file model. The first one decodes the file, on the thread that makes it; with the abort flag
/// given, decoding stops at a row and the rest stays zero. It holds no pixels of its own.
///
/// `Model` provides
/// - `DecodedPixels const & Decode(bool * abort) const`, empty if there are no pixels;
/// - `void Take(unsigned char const * decoded, PixelType & pixel) const`, one pixel out of the codec's layout;
/// - `void TakeRow(unsigned char const * decoded, std::size_t count, void * const * rows) const`, `count` pixels into
///   one row of samples for each channel of the tuple. A null row is not wanted;
/// - `bool IsOpaque() const`: every pixel that it gives has full alpha.
template<class Model>
class DecodedCursor {
public:
    using Tuple = typename Model::Tuple;
    using PixelType = PixelOf<Tuple>;
    using PlanarSpan = PlanarPixelSpanOf<Tuple>;

    DecodedCursor(Model const * readModel, bool * abort, bool /*nonPipeline*/)
        : model(*readModel), pixels(readModel->Decode(abort)) {}
    /// Over some rows of the picture, from row `givenTop` on. Nothing else may be read.
    DecodedCursor(Model const & readModel, DecodedPixels const & band, int givenTop)
        : model(readModel), pixels(band), top(givenTop) {}

    Kernel::RectT<int> GetBounds() const { return {0, top, pixels.GetWidth(), top + pixels.GetHeight()}; }
    void Read(int x, int y, PixelType & pixel) const { model.Take(At(x, y), pixel); }
    void ReadSpan(int x, int y, PlanarSpan & span) const {
        void * rows[Tuple::channelCount];
        for (int channel = 0; channel < Tuple::channelCount; ++channel)
            rows[channel] = span.runs[channel];
        model.TakeRow(At(x, y), spanLength, rows);
    }
    /// A run of any length, within one row.
    void ReadRow(int x, int y, std::size_t count, void * const * rows) const {
        if (y + 1 - top < pixels.GetHeight())
            Prefetch(At(x, y + 1), count * pixels.GetPixelBytes());
        model.TakeRow(At(x, y), count, rows);
    }

private:
    /// Of the row below, which comes next when a tile is filled: it is too far away for the hardware to foresee.
    static void Prefetch(unsigned char const * bytes, std::size_t count) {
        constexpr std::size_t most = 4096; // a long run is foreseen
        for (std::size_t i = 0; i < count && i < most; i += 64)
            __builtin_prefetch(bytes + i, /*write=*/0, /*locality=*/2);
    }
    unsigned char const * At(int x, int y) const {
        return pixels.GetRow(y - top) + static_cast<std::size_t>(x) * pixels.GetPixelBytes();
    }

    Model const & model;
    DecodedPixels const & pixels;
    int const top = 0; // the row of the picture with which they begin
};
}
