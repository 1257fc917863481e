#pragma once

#include "pixel/PixelMemory.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
/// The pixels of a decoded file: one block of rows from the top, in the layout that the codec delivers. Zeroed when it
/// is made, so that rows which never came show as zeros. Counted as interleaved memory while it lives. Moves only.
class RASTER_API DecodedPixels {
public:
    DecodedPixels() = default;
    /// @param pixelBytes  of one pixel. Throws `ImageLimitError` or std::bad_alloc.
    DecodedPixels(int width, int height, std::size_t pixelBytes);
    DecodedPixels(DecodedPixels && other) noexcept;
    DecodedPixels & operator=(DecodedPixels && other) noexcept;
    ~DecodedPixels();

    bool IsEmpty() const { return !memory; }
    int GetWidth() const { return width; }
    int GetHeight() const { return height; }
    /// Has only so many of its rows count from now on.
    /// @param rows  at most as many as it was made with
    void SetHeight(int rows) { height = rows; }
    std::size_t GetPixelBytes() const { return pixelBytes; }
    /// From one row to the next, in bytes; rows are not padded.
    std::size_t GetStride() const { return static_cast<std::size_t>(width) * pixelBytes; }
    unsigned char * GetRow(int y) { return memory.get() + static_cast<std::size_t>(y) * GetStride(); }
    unsigned char const * GetRow(int y) const { return memory.get() + static_cast<std::size_t>(y) * GetStride(); }

private:
    PixelMemory::Owner memory;
    std::uint64_t bytes = 0;
    int width = 0, height = 0;
    std::size_t pixelBytes = 0;
};
}
