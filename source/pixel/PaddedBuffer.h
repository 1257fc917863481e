#pragma once

#include "kernel/Consolidated.h"
#include "kernel/Countable.h"
#include "pixel/ModelBase.h"
#include "pixel/PlainCursor.h"

#include <concepts>

namespace Raster {
class ICCProfile;

/// A buffer whose rows are padded to the alignment of the caller, as window systems want them. Exists for three bytes a
/// pixel in the order blue, green, red.
/// Threads: as `Buffer`.
template<class C1, class C2, class C3, class C4, class C5>
class RASTER_API PaddedBuffer : public Kernel::Countable,
                                public ModelBase<PaddedBuffer<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    static_assert(std::same_as<Tuple, ChannelTuple<Blue8, Green8, Red8, X4, X5>>);

    /// Negative sizes count as 0. Throws std::bad_alloc, nothing being attached then, if the pixels can't be had.
    /// @param alignment  of a row, in bytes. Below 1 counts as 1.
    /// @param data  null: the buffer allocates, owns and accounts for its rows, which are not cleared. Otherwise
    ///              memory of stride * height bytes that outlives the buffer and stays the caller's.
    PaddedBuffer(int width, int height, int alignment, unsigned char * data);
    ~PaddedBuffer() override;
    PaddedBuffer(PaddedBuffer const &) = delete;
    PaddedBuffer & operator=(PaddedBuffer const &) = delete;

    /// Bytes that fill a row of this width up to a multiple of `alignment`, which below 1 counts as 1.
    std::uint64_t CalculatePadding(int bitsPerPixel, int alignment) const;
    std::uint64_t GetPixelSize() const { return Tuple::pixelSize; }                ///< bytes
    std::uint64_t GetBufferSize() const { return stride * std::uint64_t(height); } ///< bytes, padding included
    std::uint64_t GetStride() const { return stride; }                             ///< bytes from one row to the next
    int GetWidth(int level = 0) const { return static_cast<void>(level), width; }
    int GetHeight(int level = 0) const { return static_cast<void>(level), height; }
    unsigned char * GetData() { return data; } ///< The first row; null if there are none.
    unsigned char const * GetData() const { return data; }

    /// All bytes to zero, padding included.
    void Clear();
    /// Zeroes the pixels of a rectangle that lies in the buffer; of any other, the part that does. Padding stays.
    void ClearRect(Kernel::RectT<int> rect);

    /// A buffer that owns a copy of the rows, padding included. Its count is 0: the caller puts it into a `Counted`.
    PaddedBuffer * Clone() const;
    /// A buffer of the same shape that owns its rows, which are not cleared. Its count is 0.
    PaddedBuffer * CloneEmpty() const;

    /// Null: a buffer carries no profile. A template, so that only who asks needs the profile's class.
    template<class Profile = ICCProfile>
    Kernel::Consolidated<Profile> GetProfile() const {
        return {};
    }

    class ConstCursor : public PlainReader<Tuple> {
    public:
        ConstCursor(PaddedBuffer const * buffer, bool *, bool) : PlainReader<Tuple>(buffer->data, buffer->stride) {}
    };
    class Cursor : public PlainWriter<Tuple> {
    public:
        Cursor(PaddedBuffer * buffer, bool) : PlainWriter<Tuple>(buffer->data, buffer->stride) {}
    };

private:
    unsigned char * data;
    bool owning;
    int width;
    int height;
    int alignment;
    std::uint64_t padding; // bytes a row
    std::uint64_t stride;  // bytes
};

extern template class RASTER_EXTERN_TEMPLATE PaddedBuffer<Blue8, Green8, Red8, X4, X5>;
}
