#pragma once

#include "files/DecodedCursor.h"
#include "files/RowWriteAccessor.h"
#include "files/png/PNGBase.h"
#include "pixel/FileColourTypes.h"
#include "pixel/ModelBase.h"
#include "storage/CompressedRasterData.h"

#include <concepts>
#include <cstddef>
#include <limits>
#include <utility>

namespace Raster {
/// A PNG file as a model: pixels come out of it, or go into it row by row. Read are the tuples of `RGBA8`, `RGBA16`,
/// `IA8` and `IA16`, each from files that open as such (see `PNGBase::GetFormat`); written are these, alpha alone as
/// grey, and `Index8`, which takes its palette from the options. Others exist and fail.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class PNG : public PNGBase, public ModelBase<PNG<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
    using Base = ModelBase<PNG, C1, C2, C3, C4, C5>;

public:
    using Base::GetFormat;
    using PNGBase::GetFormat;
    using typename Base::PixelType;
    using typename Base::Tuple;

    static constexpr ModelKind modelKind = ModelKind::Rows;

    /// Reads. Check `HasFailed`, or the size, which is 0 then.
    explicit PNG(char const * path) : PNG() { InitialiseFromSource(FileSource(path)); }
    explicit PNG(Kernel::Counted<CompressedRasterData const> data) : PNG() {
        InitialiseFromSource(FileSource(std::move(data)));
    }
    explicit PNG(Kernel::Counted<Kernel::InStreamSeekable> stream) : PNG() { InitialiseFromStream(std::move(stream)); }

    /// Writes. Check `HasFailed` of the one that creates a file.
    PNG(char const * path, int newWidth, int newHeight, ExportOptions const & options) : PNG() {
        InitialiseForWrite(path, newWidth, newHeight, options);
    }
    PNG(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight, ExportOptions const & options)
        : PNG() {
        InitialiseForWrite(std::move(data), newWidth, newHeight, options);
    }
    PNG(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight, ExportOptions const & options) : PNG() {
        InitialiseFromStream(std::move(stream), newWidth, newHeight, options);
    }
    ~PNG() override = default;

    PNG * Clone() const { return nullptr; } ///< A file can't be copied.
    PNG * CloneEmpty() const { return nullptr; }
    Kernel::StringUtf8 GetDescription() const { return Describe(Base::GetChannelInfo()); }

    using ConstCursor = DecodedCursor<PNG>;
    template<std::same_as<AllChannels> Channels>
    using PixelAccessor = RowWriteAccessor<PNG>;

    // See `DecodedCursor` and `RowWriteAccessor`.
    void Take(unsigned char const * decoded, PixelType & pixel) const {
        if constexpr (isReadable) {
            for (std::size_t channel = 0; channel < alpha; ++channel)
                pixel[channel] = Load(decoded + channel * Tuple::sampleSize);
            pixel[alpha] = HasAlpha() ? Load(decoded + alpha * Tuple::sampleSize) : std::numeric_limits<Sample>::max();
        } else
            pixel = PixelType{};
    }
    void TakeRow(unsigned char const * decoded, std::size_t count, void * const * rows) const {
        if constexpr (isReadable)
            TakeRowAs(decoded, count, rows);
    }
    void Put(int x, PixelType & pixel) {
        if constexpr (isWritable) {
            auto * const held = GetHeldPixel(x);
            for (int channel = 0; channel < GetWrittenChannels(); ++channel)
                Store(pixel[static_cast<std::size_t>(channel)], held + channel * Tuple::sampleSize);
        }
    }
    void PutRow(int x, std::size_t count, void const * const * rows) {
        if constexpr (isWritable)
            PutRowAs(x, count, rows);
    }

private:
    using Sample = typename Tuple::Storage;
    static constexpr int type = FormatToPNGColourType<C1, C2, C3, C4, C5>();
    static constexpr int nonAlphaType = FormatToNonAlphaPNGColourType<C1, C2, C3, C4, C5>();
    static constexpr bool isWritable = type != noColourType;
    static constexpr bool isReadable = type != nonAlphaType; // grey or RGB, and alpha
    static constexpr std::size_t alpha = Tuple::channelCount - 1;

    PNG() : PNGBase(layoutOf<Tuple>, type, nonAlphaType) {}

    // Samples have their high byte first in the file.
    static Sample Load(unsigned char const * bytes) {
        if constexpr (Tuple::sampleSize == 2)
            return static_cast<Sample>(bytes[0] << 8 | bytes[1]);
        else
            return bytes[0];
    }
    static void Store(Sample sample, unsigned char * bytes) {
        if constexpr (Tuple::sampleSize == 2) {
            bytes[0] = static_cast<unsigned char>(sample >> 8);
            bytes[1] = static_cast<unsigned char>(sample);
        } else
            bytes[0] = sample;
    }
};

/// Applies M to each tuple that PNG is made for: those of the formats, and `Index8`.
#define RASTER_FOR_EACH_PNG_TUPLE(M)                                                                                   \
    RASTER_FOR_EACH_FORMAT(M)                                                                                          \
    M(NoFormat, Index8, X2, X3, X4, X5)
#define RASTER_DECLARE_PNG(format, ...) extern template class RASTER_EXTERN_TEMPLATE PNG<__VA_ARGS__>;
RASTER_FOR_EACH_PNG_TUPLE(RASTER_DECLARE_PNG)
#undef RASTER_DECLARE_PNG

// The accessors of what can come out of a file.
#define RASTER_PNG_CONST_ACCESSORS(prefix, ...)                                                                        \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_CONST_ACCESSOR, prefix, __VA_ARGS__)
#define RASTER_FOR_EACH_READ_PNG(M, prefix)                                                                            \
    M(prefix, PNG<Red8, Green8, Blue8, Alpha8, X5>)                                                                    \
    M(prefix, PNG<Red16, Green16, Blue16, Alpha16, X5>)                                                                \
    M(prefix, PNG<Intensity8, Alpha8, X3, X4, X5>)                                                                     \
    M(prefix, PNG<Intensity16, Alpha16, X3, X4, X5>)
RASTER_FOR_EACH_READ_PNG(RASTER_PNG_CONST_ACCESSORS, extern template class RASTER_EXTERN_TEMPLATE)
}
