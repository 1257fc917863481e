// Rows of the codec's bytes to and from rows of samples.
#include "files/kernels/SplitPixels.h"
#include "files/png/PNGBase.h"

#include <cstring>

namespace Raster {
namespace {
void SplitI8(unsigned char const * pixels, std::size_t count, void * const * rows) {
    if (rows[0])
        std::memcpy(rows[0], pixels, count);
}
void JoinI8(void const * const * rows, std::size_t count, unsigned char * pixels) {
    std::memcpy(pixels, rows[0], count);
}

using Split = void (*)(unsigned char const *, std::size_t, void * const *);
using Join = void (*)(void const * const *, std::size_t, unsigned char *);

// By the number of channels, less 1.
constexpr Split splits8[] = {SplitI8, SplitIA8, SplitRGB8, SplitRGBA8};
constexpr Split splits16[] = {SplitI16, SplitIA16, SplitRGB16, SplitRGBA16};
constexpr Join joins8[] = {JoinI8, JoinIA8, JoinRGB8, JoinRGBA8};
constexpr Join joins16[] = {JoinI16, JoinIA16, JoinRGB16, JoinRGBA16};
}

void PNGBase::TakeRowAs(unsigned char const * decoded, std::size_t count, void * const * rows) const {
    int const channels = layout.channelCount - !hasAlpha;
    (layout.sampleSize == 2 ? splits16 : splits8)[channels - 1](decoded, count, rows);
    if (auto * const alpha = hasAlpha ? nullptr : rows[layout.channelCount - 1])
        std::memset(alpha, 255, count * static_cast<std::size_t>(layout.sampleSize));
}

void PNGBase::PutRowAs(int x, std::size_t count, void const * const * rows) {
    (layout.sampleSize == 2 ? joins16 : joins8)[writtenChannels - 1](rows, count, GetHeldPixel(x));
}
}
