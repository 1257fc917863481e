#pragma once

#include "files/DecodedCursor.h"
#include "files/RowWriteAccessor.h"
#include "files/jpeg/JPEGBase.h"
#include "pixel/Conversion.h"
#include "pixel/ModelBase.h"

#include <type_traits>

namespace Raster {
/// A JPEG file as a model of one tuple: to read, or to write. Files open as `RGBA8`, `IA8` and `CMYKA8`, which the
/// codec knows; pixels of the other tuples are RGB in the file and are converted by formula.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class JPEG : public JPEGBase, public ModelBase<JPEG<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using PixelType = PixelOf<Tuple>;
    using ConstCursor = DecodedCursor<JPEG>;

    static constexpr ModelKind modelKind = ModelKind::Rows;
    /// There is one in the life of a model.
    template<std::same_as<AllChannels> Channels>
    using PixelAccessor = RowWriteAccessor<JPEG>;

    /// Neither reads nor writes until it is initialised.
    JPEG() : JPEGBase(componentCount) {}

    // To read. What can't be opened gives the size 0; see also `InitialiseForRead`.
    explicit JPEG(char const * path) : JPEG() { JPEGBase::InitialiseForRead(FileSource(path)); }
    explicit JPEG(Kernel::Counted<CompressedRasterData const> data) : JPEG() {
        JPEGBase::InitialiseForRead(FileSource(std::move(data)));
    }
    explicit JPEG(Kernel::Counted<Kernel::InStreamSeekable> stream) : JPEG() {
        JPEGBase::InitialiseForRead(std::move(stream));
    }
    // To write. What can't be created gives the size 0.
    JPEG(char const * path, int newWidth, int newHeight, ExportOptions const & options) : JPEG() {
        JPEGBase::InitialiseForWrite(path, newWidth, newHeight, options);
    }
    JPEG(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight, ExportOptions const & options)
        : JPEG() {
        JPEGBase::InitialiseForWrite(std::move(data), newWidth, newHeight, options);
    }
    JPEG(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight, ExportOptions const & options)
        : JPEG() {
        JPEGBase::InitialiseForWrite(std::move(stream), newWidth, newHeight, options);
    }

    /// Null: a file has no copy.
    JPEG * Clone() const { return nullptr; }
    JPEG * CloneEmpty() const { return nullptr; }

    /// "JPEG<Red,Green,Blue,Alpha,Empty>", with the names that users see.
    Kernel::StringUtf8 GetDescription() const { return Describe(GetChannelInfoOf<Tuple>()); }

    // What the cursors ask for.
    bool IsOpaque() const { return true; }
    void Take(unsigned char const * decoded, PixelType & pixel) const {
        if constexpr (isRGB) {
            pixel = {{decoded[0], decoded[1], decoded[2], 255}};
        } else if constexpr (isGrey) {
            pixel = {{decoded[0], 255}};
        } else if constexpr (isCMYK) {
            std::uint8_t const flip = IsInvertCMYK() ? 255 : 0; // 255 - sample and sample ^ 255 are the same
            for (int channel = 0; channel < componentCount; ++channel)
                pixel.channels[channel] = static_cast<std::uint8_t>(decoded[channel] ^ flip);
            pixel.channels[componentCount] = 255;
        } else {
            ConvertPixel<Tuple, RGBA8Tuple>(pixel, {{decoded[0], decoded[1], decoded[2], 255}});
        }
    }
    void TakeRow(unsigned char const * decoded, std::size_t count, void * const * rows) const {
        TakeRowAs(formatOf<Tuple>, decoded, count, rows);
    }
    void Put(int x, PixelType & pixel) {
        auto * const held = GetHeldPixel(x);
        if constexpr (isCMYK)
            if (IsInvertCMYK())
                for (int channel = 0; channel < componentCount; ++channel)
                    pixel.channels[channel] = static_cast<std::uint8_t>(255 - pixel.channels[channel]);
        if constexpr (isRGB || isGrey || isCMYK) {
            for (int channel = 0; channel < componentCount; ++channel)
                held[channel] = pixel.channels[channel];
        } else {
            PixelOf<RGBA8Tuple> converted;
            ConvertPixel<RGBA8Tuple, Tuple>(converted, pixel);
            for (int channel = 0; channel < componentCount; ++channel)
                held[channel] = converted.channels[channel];
        }
    }
    void PutRow(int x, std::size_t count, void const * const * rows) { PutRowAs(formatOf<Tuple>, x, count, rows); }

private:
    static constexpr bool isRGB = std::is_same_v<Tuple, RGBA8Tuple>, isGrey = std::is_same_v<Tuple, IA8Tuple>,
                          isCMYK = std::is_same_v<Tuple, CMYKA8Tuple>;
    static constexpr int componentCount = isGrey ? 1 : isCMYK ? 4 : 3;
};

// All that an instance for one tuple consists of; see pixel/ModelBase.h.
#define RASTER_JPEG_CONST_ACCESSOR(Extend, Transform, prefix, ...)                                                     \
    prefix AccessorCore<typename __VA_ARGS__::Tuple, typename __VA_ARGS__::ConstCursor, Extend, Transform>;            \
    prefix ModelConstAccessor<__VA_ARGS__, Extend, Transform>;
#define RASTER_JPEG_OF_TUPLE(prefix, ...)                                                                              \
    prefix JPEG<__VA_ARGS__>;                                                                                          \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_JPEG_CONST_ACCESSOR, prefix, JPEG<__VA_ARGS__>)                              \
    prefix RowWriteAccessor<JPEG<__VA_ARGS__>>;

#define RASTER_DECLARE_JPEG(format, ...) RASTER_JPEG_OF_TUPLE(extern template class RASTER_EXTERN_TEMPLATE, __VA_ARGS__)
RASTER_FOR_EACH_FORMAT(RASTER_DECLARE_JPEG)
#undef RASTER_DECLARE_JPEG
}
