/// Pictures for tests of transfers: bitmaps and their plain twins.
#pragma once

#include "storage/BitmapPixels.h"
#include "storage/StorageEnvironment.h"
#include "transfer/SlowTransfer.h"

#include <random>

namespace Raster {
/// A sample between 0 and full, often at one of the ends.
template<class Storage>
Storage RandomSample(std::mt19937 & random) {
    bool const extreme = random() % 3 == 0;
    if constexpr (std::is_same_v<Storage, float>)
        return extreme ? float(random() % 2) : float(random() % 65536) / 65535.0f;
    else
        return extreme ? Storage(random() % 2 ? 0 : -1) : Storage(random());
}

/// Random pixels. Patches of 32 by 16 are wholly transparent, wholly opaque or mixed.
template<class Tuple>
Slow::Picture<Tuple> MakePicture(int width, int height, unsigned seed) {
    using Storage = typename Tuple::Storage;
    std::mt19937 random(seed);
    Slow::Picture<Tuple> picture(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            auto & pixel = picture.At(x, y);
            for (auto & sample : pixel.channels)
                sample = RandomSample<Storage>(random);
            auto const patch = Scramble(unsigned(x / 32) * 31u + unsigned(y / 16) * 1009u + seed) % 3;
            if (patch != 2)
                pixel[Tuple::channelCount - 1] = patch ? Storage(Tuple::First::maximum) : Storage(0);
        }
    return picture;
}

/// The picture as a bitmap. Rows of zeros at the end of tiles stay unallocated if the whole tile is zero.
template<class Tuple>
Kernel::Counted<BitmapOf<Tuple>> MakeBitmap(Slow::Picture<Tuple> const & picture, MipmapMode mode = MipmapModeNone) {
    Kernel::Counted<BitmapOf<Tuple>> bitmap(
        new BitmapOf<Tuple>(picture.width, picture.height, mode, HardwareCachePolicy()));
    ModelAccessor<BitmapOf<Tuple>> accessor(bitmap.Get());
    for (int y = 0; y < picture.height; ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < picture.width; ++x, accessor.Increment())
            accessor.Write(picture.At(x, y));
    }
    return bitmap;
}

/// The first pixel in which the two differ, in words; empty if there is none. NaN counts as equal to itself.
template<class Tuple>
std::string FindDifference(Slow::Picture<Tuple> const & expected, BitmapOf<Tuple> const & actual) {
    auto const pixels = ReadAll(actual);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        for (std::size_t c = 0; c < Tuple::channelCount; ++c) {
            auto const a = pixels[i].channels[c], e = expected.pixels[i].channels[c];
            if (std::memcmp(&a, &e, sizeof a) != 0 && !(a != a && e != e))
                return "channel " + std::to_string(c) + " at (" + std::to_string(i % std::size_t(expected.width)) +
                       ", " + std::to_string(i / std::size_t(expected.width)) + "): expected " + std::to_string(e) +
                       ", got " + std::to_string(a);
        }
    return {};
}
}
