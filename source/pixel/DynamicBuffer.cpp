#include "pixel/DynamicBuffer.h"

#include "pixel/DynamicBase.inl"

namespace Raster {
template class RASTER_TEMPLATE_INSTANCE DynamicBase<DynamicBuffer>;

void DynamicBuffer::Create(int width, int height, Format format) { Create(width, height, nullptr, format); }

void DynamicBuffer::Create(int width, int height, unsigned char * data, Format format) {
    // The buffer comes first, so that a failure to make it leaves format and pointer a pair.
    Kernel::Counted<Kernel::Countable> buffer =
        VisitFormat(format, [&](auto tuple) -> Kernel::Counted<Kernel::Countable> {
            return Kernel::MakeCounted<TypedOf<decltype(tuple)>>(width, height, data);
        });
    if (buffer)
        SetTyped(format, std::move(buffer));
    else
        SetFormatOnly(format);
}

void DynamicBuffer::ClearRect(Kernel::RectT<int> rect) {
    Dispatch([&](auto & buffer) { buffer.ClearRect(rect); });
}

Kernel::RectT<int> DynamicBuffer::GetAlphaBoundingBox() const {
    return Dispatch([](auto const & buffer) { return buffer.GetAlphaBoundingBox(); });
}
}
