/// Pixels of bitmaps for tests: patterns, and whole pictures as plain arrays.
#pragma once

#include "storage/Bitmap.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace Raster {
using RGBA8Bitmap = BitmapOf<RGBA8Tuple>;
using RGBA16Bitmap = BitmapOf<RGBA16Tuple>;
using RGBAUFBitmap = BitmapOf<RGBAUFTuple>;
using A8Bitmap = BitmapOf<A8Tuple>;

inline std::uint32_t Scramble(std::uint32_t value) {
    value ^= value >> 16;
    value *= 0x7feb352du;
    value ^= value >> 15;
    value *= 0x846ca68bu;
    return value ^ value >> 16;
}

/// A sample that no neighbour shares. Never a NaN, so that equal pixels compare equal.
template<class Storage>
Storage MakeSample(std::uint32_t bits) {
    if constexpr (std::is_same_v<Storage, float>)
        return static_cast<float>(bits % 100003) / 1000.0f;
    else if constexpr (std::is_same_v<Storage, Half>)
        return Half{static_cast<std::uint16_t>(bits)};
    else if constexpr (std::is_same_v<Storage, ComplexFloat>)
        return {static_cast<float>(bits % 1009), static_cast<float>(bits % 917)};
    else
        return static_cast<Storage>(bits);
}

/// The pixel that a picture of this seed has at (x, y).
template<class Tuple>
PixelOf<Tuple> MakePixel(int x, int y, std::uint32_t seed = 1) {
    PixelOf<Tuple> pixel{};
    for (std::size_t i = 0; i < Tuple::channelCount; ++i)
        pixel.channels[i] = MakeSample<typename Tuple::Storage>(
            Scramble(static_cast<std::uint32_t>(x) * 73856093u ^ static_cast<std::uint32_t>(y) * 19349663u ^
                     (seed + static_cast<std::uint32_t>(i)) * 83492791u));
    return pixel;
}

/// Writes the picture of this seed into `rect`.
template<class Model>
void Paint(Model & model, Kernel::RectT<int> const & rect, std::uint32_t seed = 1) {
    ModelAccessor<Model> accessor(&model);
    for (int y = rect.top; y < rect.bottom; ++y) {
        accessor.SetToXY(rect.left, y);
        for (int x = rect.left; x < rect.right; ++x, accessor.Increment())
            accessor.Write(MakePixel<typename Model::Tuple>(x, y, seed));
    }
}

template<class Model>
void Paint(Model & model, std::uint32_t seed = 1) {
    Paint(model, {0, 0, model.GetWidth(0), model.GetHeight(0)}, seed);
}

/// Every pixel, row by row.
template<class Model>
std::vector<PixelOf<typename Model::Tuple>> ReadAll(Model const & model) {
    std::vector<PixelOf<typename Model::Tuple>> pixels;
    int const width = model.GetWidth(0), height = model.GetHeight(0);
    pixels.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    ModelConstAccessor<Model, Safe, IdentityTransform> accessor(&model);
    for (int y = 0; y < height; ++y) {
        accessor.SetToXY(0, y);
        for (int x = 0; x < width; ++x, accessor.Increment())
            accessor.Read(pixels.emplace_back());
    }
    return pixels;
}
}
