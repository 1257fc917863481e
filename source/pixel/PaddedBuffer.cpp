#include "pixel/PaddedBuffer.h"

#include "pixel/BufferCore.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace Raster {
template<class C1, class C2, class C3, class C4, class C5>
PaddedBuffer<C1, C2, C3, C4, C5>::PaddedBuffer(int givenWidth, int givenHeight, int givenAlignment,
                                               unsigned char * givenData)
    : data(givenData), owning(givenData == nullptr), width(std::max(givenWidth, 0)), height(std::max(givenHeight, 0)),
      alignment(std::max(givenAlignment, 1)), padding(CalculatePadding(24, alignment)),
      stride(std::uint64_t(width) * Tuple::pixelSize + padding) {
    auto const bytes = PixelMemory::Multiply(stride, std::uint64_t(height));
    if (!owning)
        return;
    PixelMemory::Owner rows(PixelMemory::Allocate(bytes, PixelMemory::Content::Uninitialised));
    try {
        MemoryManager::Instance().AttachInterleaved(bytes);
    } catch (...) { // of an eviction; the bytes were counted before it
        MemoryManager::Instance().DetachInterleaved(bytes);
        throw;
    }
    data = rows.release();
}

template<class C1, class C2, class C3, class C4, class C5>
PaddedBuffer<C1, C2, C3, C4, C5>::~PaddedBuffer() {
    if (!owning)
        return;
    PixelMemory::Free(data);
    MemoryManager::Instance().DetachInterleaved(GetBufferSize());
}

template<class C1, class C2, class C3, class C4, class C5>
std::uint64_t PaddedBuffer<C1, C2, C3, C4, C5>::CalculatePadding(int bitsPerPixel, int rowAlignment) const {
    auto const bits = std::uint64_t(width) * std::uint64_t(std::max(bitsPerPixel, 0));
    auto const unit = std::uint64_t(std::max(rowAlignment, 1));
    auto const excess = (bits + 7) / 8 % unit;
    return excess == 0 ? 0 : unit - excess;
}

template<class C1, class C2, class C3, class C4, class C5>
void PaddedBuffer<C1, C2, C3, C4, C5>::Clear() {
    if (auto const bytes = GetBufferSize())
        std::memset(data, 0, bytes);
}

template<class C1, class C2, class C3, class C4, class C5>
void PaddedBuffer<C1, C2, C3, C4, C5>::ClearRect(Kernel::RectT<int> rect) {
    ClearRows(data, width, height, stride, Tuple::pixelSize, rect);
}

template<class C1, class C2, class C3, class C4, class C5>
PaddedBuffer<C1, C2, C3, C4, C5> * PaddedBuffer<C1, C2, C3, C4, C5>::Clone() const {
    std::unique_ptr<PaddedBuffer> copy(CloneEmpty());
    if (auto const bytes = GetBufferSize())
        std::memcpy(copy->data, data, bytes);
    return copy.release();
}

template<class C1, class C2, class C3, class C4, class C5>
PaddedBuffer<C1, C2, C3, C4, C5> * PaddedBuffer<C1, C2, C3, C4, C5>::CloneEmpty() const {
    return new PaddedBuffer(width, height, alignment, nullptr);
}

template class RASTER_TEMPLATE_INSTANCE PaddedBuffer<Blue8, Green8, Red8, X4, X5>;
}
