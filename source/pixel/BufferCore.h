#pragma once

#include "kernel/Export.h"
#include "kernel/Rect.h"
#include "pixel/ChannelTuple.h"

#include <cstdint>

namespace Raster {
/// What is the same in a `Buffer` of any tuple: the memory, its accounts, and work on bytes. It does not remember its
/// tuple; the buffer around it passes the layout to each call.
class RASTER_API BufferCore {
public:
    BufferCore(BufferCore const &) = delete;
    BufferCore & operator=(BufferCore const &) = delete;

    /// See `Buffer`. Throws std::bad_alloc with nothing attached.
    BufferCore(int width, int height, unsigned char * data, TupleLayout const & layout);
    ~BufferCore() = default; // the buffer calls Release, which needs the layout

    /// Frees and detaches what is owned.
    void Release(TupleLayout const & layout) noexcept;

    std::uint64_t GetSize(TupleLayout const & layout) const noexcept {
        return std::uint64_t(width) * std::uint64_t(height) * layout.GetPixelSize();
    }
    void Clear(TupleLayout const & layout);
    void ClearRect(Kernel::RectT<int> const & rect, TupleLayout const & layout);
    /// @param source  of the same size and layout.
    void CopyFrom(BufferCore const & source, TupleLayout const & layout);
    Kernel::RectT<int> GetAlphaBoundingBox(TupleLayout const & layout) const;

    unsigned char * data;
    bool owning;
    int width;
    int height;
};

/// Zeroes the part of `rect` that lies in an image of that size.
/// @param stride  bytes from one row to the next.
void ClearRows(unsigned char * data, int width, int height, std::uint64_t stride, std::uint64_t pixelSize,
               Kernel::RectT<int> const & rect);
}
