/// Models for tests of accessors: pixels in a plain vector, kept as if in tiles, with every promise to a cursor
/// checked.
#pragma once

#include "pixel/ModelBase.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace Raster {
template<class PixelType>
PixelType RandomPixel(std::mt19937 & random) {
    PixelType pixel;
    for (auto & sample : pixel.channels) {
        auto const value = random();
        if constexpr (std::is_same_v<std::decay_t<decltype(sample)>, float>)
            sample = static_cast<float>(value % 1000) / 8;
        else
            std::memcpy(&sample, &value, std::min(sizeof(sample), sizeof(value)));
    }
    return pixel;
}

/// A tiled model whose cursors fail the test if they are asked for anything outside the tile that was sought last. The
/// mutable one hands out rows, the other does not.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class TiledTestModel : public ModelBase<TiledTestModel<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
    using Base = ModelBase<TiledTestModel, C1, C2, C3, C4, C5>;

public:
    using typename Base::PixelType;
    using typename Base::PlanarSpan;
    static constexpr ModelKind modelKind = ModelKind::Tiled;
    static constexpr int tileWidth = 64, tileHeight = 16;

    TiledTestModel(int givenWidth, int givenHeight)
        : width(givenWidth), height(givenHeight), pixels(std::size_t(width) * std::size_t(height)) {}
    TiledTestModel * Clone() const { return new TiledTestModel(*this); }
    TiledTestModel * CloneEmpty() const { return new TiledTestModel(width, height); }
    int GetWidth(int = 0) const { return width; }
    int GetHeight(int = 0) const { return height; }

    class ConstCursor {
    public:
        ConstCursor(TiledTestModel const * givenModel, bool *, bool) : model(givenModel) {}
        Kernel::RectT<int> Seek(int x, int y) {
            ++model->seeks;
            EXPECT_TRUE(model->Contains(x, y)) << x << ", " << y;
            int const left = x / tileWidth * tileWidth, top = y / tileHeight * tileHeight;
            return tile = {left, top, left + tileWidth, top + tileHeight}; // not clipped: the accessor has to do it
        }
        void Read(int x, int y, PixelType & pixel) const {
            Check(x, y);
            pixel = model->At(x, y);
        }
        void ReadSpan(int x, int y, PlanarSpan & span) const {
            Check(x, y);
            Check(x + spanLength - 1, y);
            for (int i = 0; i < spanLength; ++i)
                for (int channel = 0; channel < Base::Tuple::channelCount; ++channel)
                    span.runs[channel][i] = model->At(x + i, y).channels[channel];
        }
        void Reset() { tile = {}; }

    protected:
        void Check(int x, int y) const {
            ASSERT_TRUE(tile.Contains(x, y)) << x << ", " << y;
            ASSERT_TRUE(model->Contains(x, y)) << x << ", " << y;
        }

    private:
        TiledTestModel const * model;
        Kernel::RectT<int> tile;
    };

    class Cursor : public ConstCursor {
    public:
        Cursor(TiledTestModel * givenModel, bool) : ConstCursor(givenModel, nullptr, false), model(givenModel) {}
        void Write(int x, int y, PixelType const & pixel) {
            this->Check(x, y);
            model->At(x, y) = pixel;
        }
        std::size_t GetRow(int left, int y) const {
            this->Check(left, y);
            return static_cast<std::size_t>(y) * rowFactor + static_cast<std::size_t>(left);
        }
        void ReadInRow(std::size_t row, std::size_t column, PixelType & pixel) const {
            this->Read(static_cast<int>(row % rowFactor + column), static_cast<int>(row / rowFactor), pixel);
        }
        void WriteInRow(std::size_t row, std::size_t column, PixelType const & pixel) {
            Write(static_cast<int>(row % rowFactor + column), static_cast<int>(row / rowFactor), pixel);
        }
        void WriteSpan(int x, int y, PlanarSpan const & span) {
            this->Check(x, y);
            this->Check(x + spanLength - 1, y);
            for (int i = 0; i < spanLength; ++i)
                for (int channel = 0; channel < Base::Tuple::channelCount; ++channel)
                    model->At(x + i, y).channels[channel] = span.runs[channel][i];
        }

    private:
        static constexpr std::size_t rowFactor = 1 << 20;
        TiledTestModel * model;
    };

    bool Contains(int x, int y) const { return x >= 0 && y >= 0 && x < width && y < height; }
    PixelType & At(int x, int y) { return pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)]; }
    PixelType const & At(int x, int y) const { return pixels[std::size_t(y) * std::size_t(width) + std::size_t(x)]; }

    mutable int seeks = 0;

private:
    int width, height;
    std::vector<PixelType> pixels;
};
}
