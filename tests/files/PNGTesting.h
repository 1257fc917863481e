/// PNG models over bytes in memory, and what their pixels have to be by libpng's answer.
#pragma once

#include "files/PNGMaker.h"

#include "files/png/DynamicPNG.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Raster {
using FileBytes = std::vector<std::uint8_t>;
using InStreamCounted = Kernel::Counted<Kernel::InStreamSeekable>;
using OutStreamCounted = Kernel::Counted<Kernel::OutStream>;

template<class Tuple>
using PNGOf = typename Tuple::template Apply<PNG>;
template<class Typed>
using Reader = typename Typed::template ConstPixelAccessor<Safe, IdentityTransform>;
template<class Typed>
using Writer = typename Typed::template PixelAccessor<AllChannels>;

/// @param bytes  have to outlive the stream.
inline InStreamCounted StreamOver(FileBytes const & bytes) {
    return Kernel::MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
}

/// The sample of an expanded picture, counted in samples from the start of a row.
inline unsigned SampleAt(PNGAnswer const & answer, int y, std::size_t index) {
    auto const * const row = answer.pixels.data() + static_cast<std::size_t>(y) * answer.rowBytes;
    return answer.depth == 16 ? unsigned(row[2 * index] << 8 | row[2 * index + 1]) : row[index];
}

/// What a channel of a tuple has to be: the channel of the file, or full alpha if the file has none.
inline unsigned ExpectedSample(PNGAnswer const & answer, int x, int y, int channel) {
    if (channel >= answer.channels)
        return answer.depth == 16 ? 65535 : 255;
    return SampleAt(answer, y, static_cast<std::size_t>(x * answer.channels + channel));
}

inline Format ExpectedFormat(PNGAnswer const & answer) {
    bool const isGrey = answer.channels < 3, isDeep = answer.depth == 16;
    return isGrey ? (isDeep ? IA16 : IA8) : (isDeep ? RGBA16 : RGBA8);
}

/// Compares every pixel, read one by one.
template<class Typed>
void ExpectPixels(PNGAnswer const & answer, Typed const & png, std::string const & name) {
    Reader<Typed> reader(&png);
    auto const rect = reader.GetSafeRect();
    ASSERT_EQ(static_cast<int>(answer.width), rect.right) << name << ": " << png.GetFailure();
    ASSERT_EQ(static_cast<int>(answer.height), rect.bottom) << name;
    for (int y = 0; y < rect.bottom; ++y) {
        reader.SetToXY(0, y);
        for (int x = 0; x < rect.right; ++x, reader.Increment()) {
            typename Typed::PixelType pixel;
            reader.Read(pixel);
            for (int channel = 0; channel < Typed::Tuple::channelCount; ++channel)
                ASSERT_EQ(ExpectedSample(answer, x, y, channel), pixel[static_cast<std::size_t>(channel)])
                    << name << " at " << x << ", " << y << ", channel " << channel;
        }
    }
}

/// The same, whatever the wrapper holds.
inline void ExpectPixels(PNGAnswer const & answer, DynamicPNG const & png, std::string const & name) {
    ASSERT_EQ(ExpectedFormat(answer), png.GetFormat()) << name << ": " << png.GetFailure();
    png.Dispatch([&](auto const & typed) {
        using Typed = std::remove_cvref_t<decltype(typed)>;
        if constexpr (Typed::Tuple::channelCount > 1)
            ExpectPixels(answer, typed, name);
        return true;
    });
}

/// Samples that differ from place to place and from channel to channel; alpha, too.
inline unsigned PatternAt(int x, int y, int channel) {
    return (static_cast<unsigned>(x) * 2654435761u + static_cast<unsigned>(y) * 40503u +
            static_cast<unsigned>(channel) * 7919u) >>
           7;
}
template<class PixelType>
PixelType PatternPixel(int x, int y) {
    PixelType pixel;
    for (int channel = 0; channel < PixelType::Tuple::channelCount; ++channel)
        pixel[static_cast<std::size_t>(channel)] = static_cast<typename PixelType::Storage>(PatternAt(x, y, channel));
    return pixel;
}

/// Writes the pattern, pixel by pixel, over the model's whole size.
template<class Typed>
void WritePattern(Typed & png) {
    Writer<Typed> writer(&png);
    for (int y = 0; y < png.GetHeight(); ++y) {
        writer.SetToXY(0, y);
        for (int x = 0; x < png.GetWidth(); ++x, writer.Increment()) {
            auto pixel = PatternPixel<typename Typed::PixelType>(x, y);
            writer.Write(pixel);
        }
    }
    writer.Finish();
}

/// The bytes of a file of that size with the pattern.
template<class Typed>
FileBytes MakePatternFile(int width, int height, ExportOptions const & options = {}) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    Typed png(OutStreamCounted(stream), width, height, options);
    WritePattern(png);
    return stream->TakeData();
}
}
