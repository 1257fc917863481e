#pragma once

#include "pixel/ModelBase.h"
#include "storage/BitmapCore.h"
#include "storage/TileCursor.h"

namespace Raster {
/// The editable picture of one channel tuple. It adds types to `BitmapCore`, which holds and does everything.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class Bitmap : public BitmapCore, public ModelBase<Bitmap<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using ConstCursor = ConstTileCursor<Tuple>;
    using Cursor = MutableTileCursor<Tuple>;
    static constexpr ModelKind modelKind = ModelKind::Tiled;

    /// No pixel memory. Negative sizes count as 0.
    /// @throws std::length_error for more than `maximumTileCount` tiles in all planes.
    Bitmap(int width, int height, MipmapMode mode, HardwareCachePolicy policy);
    ~Bitmap() override;

    /// A bitmap of its own that shares all tiles until one of the two is written: levels, backing, profile and
    /// inflation counts come along, and a pending bitmap gives a pending one. Its count is 0.
    Bitmap * Clone() const;
    /// The same size, mode and policy, and nothing else. Its count is 0.
    Bitmap * CloneEmpty() const;
    void CopyPlanesFrom(Bitmap const * source);

    /// The level if it matches the image, else null. Builds nothing.
    Kernel::Counted<Bitmap> GetMipmap(int level);
    Kernel::Counted<Bitmap const> GetMipmap(int level) const;

private:
    static BitmapType const & GetType();
    static BitmapCore * Create(int width, int height, MipmapMode mode, HardwareCachePolicy policy);
};

template<class Tuple>
using BitmapOf = typename Tuple::template Apply<Bitmap>;

#define RASTER_DECLARE_BITMAP(...) extern template class RASTER_EXTERN_TEMPLATE Bitmap<__VA_ARGS__>;
RASTER_FOR_EACH_TUPLE(RASTER_DECLARE_BITMAP)
#undef RASTER_DECLARE_BITMAP

// The accessors of the ten formats are in the library; those of other tuples are made where they are used.
#define RASTER_DECLARE_CONST_ACCESSOR(Extend, Transform, ...)                                                          \
    extern template class RASTER_EXTERN_TEMPLATE ModelConstAccessor<Bitmap<__VA_ARGS__>, Extend, Transform>;
#define RASTER_DECLARE_ACCESSORS(format, ...)                                                                          \
    RASTER_FOR_EACH_CONST_ACCESSOR(RASTER_DECLARE_CONST_ACCESSOR, __VA_ARGS__)                                         \
    extern template class RASTER_EXTERN_TEMPLATE ModelAccessor<Bitmap<__VA_ARGS__>>;
RASTER_FOR_EACH_FORMAT(RASTER_DECLARE_ACCESSORS)
#undef RASTER_DECLARE_ACCESSORS
#undef RASTER_DECLARE_CONST_ACCESSOR
}
