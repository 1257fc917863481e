#include "files/DecodedPixels.h"

#include "files/ImageLimits.h"
#include "pixel/MemoryManager.h"

#include <algorithm>
#include <utility>

namespace Raster {
DecodedPixels::DecodedPixels(int newWidth, int newHeight, std::size_t newPixelBytes)
    : width(std::max(newWidth, 0)), height(std::max(newHeight, 0)), pixelBytes(newPixelBytes) {
    CheckImageSize(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height), pixelBytes);
    bytes = PixelMemory::GetSize(width, height, pixelBytes);
    memory.reset(PixelMemory::AllocateBlock(bytes));
    MemoryManager::Instance().AttachInterleaved(bytes);
}

DecodedPixels::DecodedPixels(DecodedPixels && other) noexcept
    : memory(std::move(other.memory)), bytes(std::exchange(other.bytes, 0)), width(std::exchange(other.width, 0)),
      height(std::exchange(other.height, 0)), pixelBytes(std::exchange(other.pixelBytes, 0)) {}

DecodedPixels & DecodedPixels::operator=(DecodedPixels && other) noexcept {
    DecodedPixels moved(std::move(other));
    std::swap(memory, moved.memory);
    std::swap(bytes, moved.bytes);
    std::swap(width, moved.width);
    std::swap(height, moved.height);
    std::swap(pixelBytes, moved.pixelBytes);
    return *this;
}

DecodedPixels::~DecodedPixels() {
    if (memory)
        MemoryManager::Instance().DetachInterleaved(bytes);
}
}
