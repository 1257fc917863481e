/// Cursors over interleaved pixels in one piece of memory: for buffers, and for files decoded to rows.
#pragma once

#include "pixel/Pixel.h"

#include <cstddef>
#include <cstring>

namespace Raster {
/// Reads pixels that lie side by side in rows of `stride` bytes. The memory needs no alignment.
template<class Tuple>
class PlainReader {
public:
    using PixelType = PixelOf<Tuple>;
    using InterleavedSpan = InterleavedPixelSpanOf<Tuple>;

    /// @param firstPixel  not owned; outlives the reader.
    PlainReader(unsigned char const * firstPixel, std::size_t rowBytes) : pixels(firstPixel), stride(rowBytes) {}

    void Read(int x, int y, PixelType & pixel) const { std::memcpy(&pixel, At(x, y), sizeof(pixel)); }
    std::size_t GetRow(int left, int y) const { return OffsetOf(left, y); }
    void ReadInRow(std::size_t row, std::size_t column, PixelType & pixel) const {
        std::memcpy(&pixel, pixels + row + column * sizeof(pixel), sizeof(pixel));
    }
    void ReadSpan(int x, int y, InterleavedSpan & span) const { std::memcpy(&span, At(x, y), sizeof(span)); }

private:
    std::size_t OffsetOf(int x, int y) const {
        return static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * sizeof(PixelType);
    }
    unsigned char const * At(int x, int y) const { return pixels + OffsetOf(x, y); }

    unsigned char const * pixels;
    std::size_t stride;
};

/// The same, and writes.
template<class Tuple>
class PlainWriter {
public:
    using PixelType = PixelOf<Tuple>;
    using InterleavedSpan = InterleavedPixelSpanOf<Tuple>;

    /// @param firstPixel  not owned; outlives the writer.
    PlainWriter(unsigned char * firstPixel, std::size_t rowBytes) : pixels(firstPixel), stride(rowBytes) {}

    void Read(int x, int y, PixelType & pixel) const { std::memcpy(&pixel, At(x, y), sizeof(pixel)); }
    std::size_t GetRow(int left, int y) const { return OffsetOf(left, y); }
    void ReadInRow(std::size_t row, std::size_t column, PixelType & pixel) const {
        std::memcpy(&pixel, pixels + row + column * sizeof(pixel), sizeof(pixel));
    }
    void ReadSpan(int x, int y, InterleavedSpan & span) const { std::memcpy(&span, At(x, y), sizeof(span)); }
    void Write(int x, int y, PixelType const & pixel) { std::memcpy(At(x, y), &pixel, sizeof(pixel)); }
    void WriteInRow(std::size_t row, std::size_t column, PixelType const & pixel) {
        std::memcpy(pixels + row + column * sizeof(pixel), &pixel, sizeof(pixel));
    }
    void WriteSpan(int x, int y, InterleavedSpan const & span) { std::memcpy(At(x, y), &span, sizeof(span)); }

private:
    std::size_t OffsetOf(int x, int y) const {
        return static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * sizeof(PixelType);
    }
    unsigned char * At(int x, int y) const { return pixels + OffsetOf(x, y); }

    unsigned char * pixels;
    std::size_t stride;
};
}
