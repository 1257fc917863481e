#pragma once

#include "kernel/Consolidated.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "pixel/BufferCore.h"
#include "pixel/ModelBase.h"
#include "pixel/PlainCursor.h"

#include <memory>

namespace Raster {
class ICCProfile;

/// A contiguous block of interleaved pixels, rows without padding: for small or transient images, and for memory that
/// belongs to others. Exists for all 73 tuples.
/// Threads: no lock. Reading is free; writers must keep to disjoint rows.
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class Buffer : public Kernel::Countable, public ModelBase<Buffer<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;

    /// Negative sizes count as 0. Throws std::bad_alloc, nothing being attached then, if the pixels can't be had.
    /// @param data  null: the buffer allocates, owns and accounts for its pixels, which are not cleared. Otherwise
    ///              memory of width * height pixels that outlives the buffer and stays the caller's.
    Buffer(int width, int height, unsigned char * data) : core(width, height, data, layoutOf<Tuple>) {}
    ~Buffer() override { core.Release(layoutOf<Tuple>); }
    Buffer(Buffer const &) = delete;
    Buffer & operator=(Buffer const &) = delete;

    std::uint64_t GetPixelSize() const { return Tuple::pixelSize; }               ///< bytes
    std::uint64_t GetBufferSize() const { return core.GetSize(layoutOf<Tuple>); } ///< bytes
    int GetWidth(int level = 0) const { return static_cast<void>(level), core.width; }
    int GetHeight(int level = 0) const { return static_cast<void>(level), core.height; }
    unsigned char * GetData() { return core.data; } ///< The first pixel; null if there are none.
    unsigned char const * GetData() const { return core.data; }

    /// All bytes to zero, also in memory that is not owned.
    void Clear() { core.Clear(layoutOf<Tuple>); }
    /// Zeroes the pixels of a rectangle that lies in the buffer; of any other, the part that does.
    void ClearRect(Kernel::RectT<int> rect) { core.ClearRect(rect, layoutOf<Tuple>); }
    /// Around all pixels whose alpha has a byte that is not 0, so that a float of -0.0 counts. The zero rectangle if
    /// there are none, or no alpha.
    Kernel::RectT<int> GetAlphaBoundingBox() const { return core.GetAlphaBoundingBox(layoutOf<Tuple>); }

    /// A buffer that owns a copy of the pixels. Its count is 0: the caller puts it into a `Counted`.
    Buffer * Clone() const {
        auto copy = std::make_unique<Buffer>(core.width, core.height, nullptr);
        copy->core.CopyFrom(core, layoutOf<Tuple>);
        return copy.release();
    }
    /// A buffer of the same size that owns its pixels, which are not cleared. Its count is 0.
    Buffer * CloneEmpty() const { return new Buffer(core.width, core.height, nullptr); }

    /// Null: a buffer carries no profile. A template, so that only who asks needs the profile's class.
    template<class Profile = ICCProfile>
    Kernel::Consolidated<Profile> GetProfile() const {
        return {};
    }

    class ConstCursor : public PlainReader<Tuple> {
    public:
        ConstCursor(Buffer const * buffer, bool *, bool) : PlainReader<Tuple>(buffer->GetData(), buffer->GetStride()) {}
    };
    class Cursor : public PlainWriter<Tuple> {
    public:
        Cursor(Buffer * buffer, bool) : PlainWriter<Tuple>(buffer->GetData(), buffer->GetStride()) {}
    };

    std::uint64_t GetStride() const { return std::uint64_t(core.width) * Tuple::pixelSize; } ///< bytes of a row

private:
    BufferCore core;
};

#define RASTER_DECLARE_BUFFER(C1, C2, C3, C4, C5)                                                                      \
    extern template class RASTER_EXTERN_TEMPLATE Buffer<C1, C2, C3, C4, C5>;
RASTER_FOR_EACH_TUPLE(RASTER_DECLARE_BUFFER)
#undef RASTER_DECLARE_BUFFER

#define RASTER_DECLARE_ACCESSORS(format, ...)                                                                          \
    RASTER_ACCESSORS_OF_MODEL(extern template class RASTER_EXTERN_TEMPLATE, Buffer<__VA_ARGS__>)
RASTER_FOR_EACH_FORMAT(RASTER_DECLARE_ACCESSORS)
#undef RASTER_DECLARE_ACCESSORS
}
