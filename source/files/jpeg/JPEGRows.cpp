// Rows of the codec's bytes to and from rows of samples.
#include "files/jpeg/JPEGBase.h"
#include "files/kernels/SplitPixels.h"
#include "pixel/Conversion.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace Raster {
namespace {
using Sample = std::uint8_t;
void Flip(Sample * samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<Sample>(255 - samples[i]);
}

void Split(unsigned char const * bytes, int components, std::size_t count, void * const * rows) {
    if (components == 3)
        SplitRGB8(bytes, count, rows);
    else if (components == 4)
        SplitRGBA8(bytes, count, rows); // any four
    else if (rows[0])
        std::memcpy(rows[0], bytes, count);
}

void Join(void const * const * rows, int components, std::size_t count, unsigned char * bytes) {
    if (components == 3)
        JoinRGB8(rows, count, bytes);
    else if (components == 4)
        JoinRGBA8(rows, count, bytes);
    else
        std::memcpy(bytes, rows[0], count);
}

void FillAlpha(void * row, std::size_t count) {
    if (row)
        std::memset(row, 255, count);
}

// Other formats go through RGBA8, so many pixels at a time.
constexpr std::size_t chunkPixels = 256;

struct Chunk {
    alignas(64) Sample red[chunkPixels], green[chunkPixels], blue[chunkPixels], alpha[chunkPixels];
    void * planes[4] = {red, green, blue, alpha};
};

// The place of a row `offset` samples on.
template<class Row>
Row * Advance(Row * row, std::size_t offset, int sampleSize) {
    using Byte = std::conditional_t<std::is_const_v<Row>, unsigned char const, unsigned char>;
    return static_cast<Byte *>(row) + offset * static_cast<std::size_t>(sampleSize);
}

void SplitConverted(Format format, TupleLayout const & layout, unsigned char const * bytes, std::size_t count,
                    void * const * rows) {
    auto const convert = GetConvertRows(format, RGBA8);
    Chunk chunk;
    alignas(64) unsigned char unwanted[chunkPixels * sizeof(float)];
    for (std::size_t done = 0; done < count; done += chunkPixels) {
        std::size_t const now = std::min(count - done, chunkPixels);
        Split(bytes + done * 3, 3, now, chunk.planes);
        FillAlpha(chunk.alpha, now);
        void * dest[5];
        for (int channel = 0; channel < layout.channelCount; ++channel)
            dest[channel] = rows[channel] ? Advance(rows[channel], done, layout.sampleSize) : unwanted;
        convert(dest, chunk.planes, now);
    }
}

void JoinConverted(Format format, TupleLayout const & layout, unsigned char * bytes, std::size_t count,
                   void const * const * rows) {
    auto const convert = GetConvertRows(RGBA8, format);
    Chunk chunk;
    for (std::size_t done = 0; done < count; done += chunkPixels) {
        std::size_t const now = std::min(count - done, chunkPixels);
        void const * source[5];
        for (int channel = 0; channel < layout.channelCount; ++channel)
            source[channel] = Advance(rows[channel], done, layout.sampleSize);
        convert(chunk.planes, source, now);
        Join(chunk.planes, 3, now, bytes + done * 3);
    }
}

TupleLayout GetLayout(Format format) {
    return VisitFormat(format, [](auto tuple) { return layoutOf<decltype(tuple)>; });
}
}

void JPEGBase::TakeRowAs(Format format, unsigned char const * decoded, std::size_t count, void * const * rows) const {
    if (format != RGBA8 && format != IA8 && format != CMYKA8) {
        SplitConverted(format, GetLayout(format), decoded, count, rows);
        return;
    }
    Split(decoded, components, count, rows);
    if (format == CMYKA8 && invertCMYK)
        for (int channel = 0; channel < components; ++channel)
            if (rows[channel])
                Flip(static_cast<Sample *>(rows[channel]), count);
    FillAlpha(rows[components], count);
}

void JPEGBase::PutRowAs(Format format, int x, std::size_t count, void const * const * rows) {
    if (format != RGBA8 && format != IA8 && format != CMYKA8) {
        JoinConverted(format, GetLayout(format), GetHeldPixel(x), count, rows);
        return;
    }
    Join(rows, components, count, GetHeldPixel(x));
    if (format == CMYKA8 && invertCMYK)
        Flip(GetHeldPixel(x), count * static_cast<std::size_t>(components));
}
}
