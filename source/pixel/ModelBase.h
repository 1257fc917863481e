#pragma once

#include "pixel/Accessor.h"
#include "pixel/ChannelParams.h"
#include "pixel/ChannelTuple.h"

#include <concepts>
#include <cstdint>
#include <vector>

namespace Kernel {
class Countable;
class Interlocked;
class Semaphore;
template<class T>
class Counted;
}

namespace Raster {
/// How a model takes part in a transfer.
enum class ModelKind : std::uint8_t {
    Tiled,   ///< kept in tiles: work on it is split by them
    Plain,   ///< random access to memory in one piece: work is split into squares of 256 by 256
    Rows,    ///< takes rows from top to bottom, such as a file being written: one task, in order, ended by `Flush`
    Sink,    ///< takes pixels and keeps none, such as statistics: never read back, never blended with
    ReadOnly ///< pixels can only be read
};

/// Base of every source or sink of pixels: gives `Model` its accessors and its answers about the tuple, so that one
/// template moves pixels between any two models without a virtual call.
///
/// A model provides
/// - `Model * Clone() const`, a deep copy, and `Model * CloneEmpty() const`, the same size without content; either may
///   give null where there is nothing to copy, as for a file;
/// - `int GetWidth(int level = 0) const` and `int GetHeight(int level = 0) const`, level 0 being the full size; a model
///   without mipmaps answers with its full size for every level;
/// - `static constexpr ModelKind modelKind`, if it is not plain;
/// - a nested `ConstCursor`, a nested `Cursor`, or both: see pixel/Accessor.h.
/// A model that computes its pixels for any coordinates has the size 0 and sets `isUnbounded`.
template<class Model, class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class ModelBase {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using PixelType = Pixel<C1, C2, C3, C4, C5>;
    using FloatPixelType = FloatPixel<C1, C2, C3, C4, C5>;
    using InterleavedSpan = InterleavedPixelSpan<C1, C2, C3, C4, C5>;
    using PlanarSpan = PlanarPixelSpan<C1, C2, C3, C4, C5>;

    static constexpr ModelKind modelKind = ModelKind::Plain;
    static constexpr bool isUnbounded = false;

    template<class Extend, class Transform>
    using ConstPixelAccessor = ModelConstAccessor<Model, Extend, Transform>;
    template<std::same_as<AllChannels> Channels>
    using PixelAccessor = ModelAccessor<Model>;

    /// `NoFormat` for a tuple that has none.
    static constexpr Format GetFormat() { return formatOf<Tuple>; }
    /// Five entries, one for each position of the tuple.
    static std::vector<ChannelParams> GetChannelInfo() { return GetChannelInfoOf<Tuple>(); }
    /// See `LocaliseChannelName`.
    static Kernel::LocalisedString Localise(Kernel::StringUtf8 const & name) { return LocaliseChannelName(name); }

    // The seam for a graphics device. Nothing in the library supplies one; callers have to accept these answers.
    void * GetHardwareDevice() const { return nullptr; }
    void * RetainHardwareBuffer(void *, bool, bool, Kernel::RectT<int> *, Kernel::Interlocked **, Kernel::Semaphore **,
                                Kernel::Counted<Kernel::Countable const> *, bool *) const {
        return nullptr;
    }
    static void * GetDestHardwareFragment() { return nullptr; }
    static void * GetSourceHardwareFragment() { return nullptr; }
    static void * GetMaskHardwareFragment() { return nullptr; }
    static int GetHardwareParams(void const *, float *) { return 0; }

protected:
    ModelBase() = default;
    ModelBase(ModelBase const &) = default;
    ModelBase & operator=(ModelBase const &) = default;
    ~ModelBase() = default;
};

/// Applies M(Extend, Transform, ...) to each of the nine const accessors that the library itself makes for a model.
#define RASTER_FOR_EACH_CONST_ACCESSOR(M, ...)                                                                         \
    M(Repeat, IdentityTransform, __VA_ARGS__)                                                                          \
    M(Safe, IdentityTransform, __VA_ARGS__)                                                                            \
    M(Safe, TranslateTransform, __VA_ARGS__)                                                                           \
    M(Safe, ScaleTransform, __VA_ARGS__)                                                                               \
    M(Safe, IdentityScaleTransform, __VA_ARGS__)                                                                       \
    M(Safe, TranslateScaleTransform, __VA_ARGS__)                                                                      \
    M(Zero, IdentityTransform, __VA_ARGS__)                                                                            \
    M(Zero, TranslateTransform, __VA_ARGS__)                                                                           \
    M(Zero, TranslateScaleTransform, __VA_ARGS__)

// The named accessors of one model, and the cores under them: `extern template class RASTER_EXTERN_TEMPLATE` as the
// prefix declares them, `template class RASTER_TEMPLATE_INSTANCE` makes them.
#define RASTER_CONST_ACCESSOR(Extend, Transform, prefix, ...)                                                          \
    prefix AccessorCore<typename __VA_ARGS__::Tuple, typename __VA_ARGS__::ConstCursor, Extend, Transform>;            \
    prefix ModelConstAccessor<__VA_ARGS__, Extend, Transform>;
#define RASTER_ACCESSORS_OF_MODEL(prefix, ...)                                                                         \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_CONST_ACCESSOR, prefix, __VA_ARGS__)                                         \
    prefix AccessorCore<typename __VA_ARGS__::Tuple, typename __VA_ARGS__::Cursor, Zero, IdentityTransform>;           \
    prefix ModelAccessor<__VA_ARGS__>;
}
