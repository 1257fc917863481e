// A picture in plain memory whose format is chosen at run time: fill it, read it back, clear a part, copy it.
#include "pixel/DynamicBuffer.h"

#include <cstdio>
#include <cstdlib>

namespace {
/// Writes 0, 1, 2 ... into the first channel and the maximum into alpha, through an accessor of the typed buffer.
/// @return the sum of what is then read back from beyond the left edge to beyond the right one.
template<class Buffer>
double FillAndSum(Buffer & buffer) {
    using Tuple = typename Buffer::Tuple;
    Raster::PixelOf<Tuple> pixel{};
    {
        typename Buffer::template PixelAccessor<Raster::AllChannels> writer(&buffer);
        for (int y = 0; y < buffer.GetHeight(); ++y) {
            writer.SetToXY(0, y);
            for (int x = 0; x < buffer.GetWidth(); ++x, writer.Increment()) {
                pixel[0] = static_cast<typename Tuple::Storage>(x);
                pixel[Tuple::alphaIndex - 1] = static_cast<typename Tuple::Storage>(Tuple::First::maximum);
                writer.Write(pixel);
            }
        }
    }
    double sum = 0;
    typename Buffer::template ConstPixelAccessor<Raster::Zero, Raster::IdentityTransform> reader(&buffer);
    reader.SetToXY(-5, 0); // `Zero`: outside there are zeros
    for (int x = -5; x < buffer.GetWidth() + 5; ++x, reader.Increment()) {
        reader.Read(pixel);
        sum += double(pixel[0]);
    }
    return sum;
}
}

int main() {
    bool isRight = true;
    for (auto const format : {Raster::RGBA8, Raster::IA16, Raster::CMYKA8, Raster::RGBAUF}) {
        Raster::DynamicBuffer buffer;
        buffer.Create(/*width=*/10, /*height=*/4, format);
        auto const sum = buffer.Dispatch([](auto & typed) { return FillAndSum(typed); });
        auto const bytes = buffer.Dispatch([](auto const & typed) { return typed.GetBufferSize(); });
        buffer.ClearRect({0, 0, 10, 2});
        auto const opaque = buffer.GetAlphaBoundingBox();
        std::printf("format %u: %d x %d pixels in %llu bytes, a row adds up to %g, opaque from row %d to %d\n",
                    unsigned(format), buffer.GetWidth(), buffer.GetHeight(), static_cast<unsigned long long>(bytes),
                    sum, opaque.top, opaque.bottom);

        Kernel::Counted<Raster::DynamicBuffer> const copy(buffer.Clone()); // owns pixels of its own
        copy->ClearRect({0, 0, 10, 4});
        isRight = isRight && sum == 45 && opaque == Kernel::RectT<int>{0, 2, 10, 4} &&
                  buffer.GetAlphaBoundingBox() == opaque && copy->GetAlphaBoundingBox().IsEmpty();
    }

    Raster::DynamicBuffer unknown;
    unknown.Create(10, 10, static_cast<Raster::Format>(77)); // not an error: there is nothing in it
    isRight = isRight && unknown.GetAlphaBoundingBox().IsEmpty() && unknown.GetWidth() == 0;
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}
