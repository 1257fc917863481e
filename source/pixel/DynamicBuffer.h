#pragma once

#include "kernel/String.h"
#include "pixel/Buffer.h"
#include "pixel/DynamicBase.h"

namespace Raster {
class DynamicBuffer;
extern template class RASTER_EXTERN_TEMPLATE DynamicBase<DynamicBuffer>;

/// A `Buffer` whose format is known at run time only. Copies share the pixels; `Clone` copies them.
class RASTER_API DynamicBuffer : public DynamicBase<DynamicBuffer>, public Kernel::Countable {
public:
    template<class Tuple>
    using TypedOf = typename Tuple::template Apply<Buffer>;

    DynamicBuffer() noexcept = default;

    /// Takes a new buffer of that format, which owns its pixels; they are not cleared. Negative sizes count as 0. If
    /// the pixels can't be had this throws std::bad_alloc and leaves everything as it was. `NoFormat` and unknown
    /// formats are stored, and hide what was held before.
    void Create(int width, int height, Format format);
    /// The same around pixels of the caller, who keeps them alive. `data` holds width * height pixels without padding;
    /// null makes the buffer own its pixels.
    void Create(int width, int height, unsigned char * data, Format format);

    /// Zeroes the part of `rect` that lies in the buffer.
    void ClearRect(Kernel::RectT<int> rect);
    /// Around all pixels whose alpha has a byte that is not 0, so that a float of -0.0 counts; the zero rectangle if
    /// there are none.
    Kernel::RectT<int> GetAlphaBoundingBox() const;

    Kernel::StringUtf8 GetDescription() const { return "DynamicBuffer"; }
};
}
