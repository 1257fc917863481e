#include "files/DecodedPixels.h"

#include "files/ImageLimits.h"
#include "pixel/MemoryManager.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace Raster {
namespace {
// A block is written once from its start to its end, so that the first touch of each page counts: with small pages that
// was a quarter of the time in which a JPEG of 24 megapixels is decoded. Blocks of this size come straight from the
// system, and go back to it.
constexpr std::uint64_t hugePageBytes = 2 << 20, smallestHugeBlock = 32 << 20;

void AdviseHugePages(unsigned char * block, std::uint64_t bytes) {
    if (bytes < smallestHugeBlock)
        return;
    auto const misalignment = reinterpret_cast<std::uintptr_t>(block) % hugePageBytes;
    std::uint64_t const skipped = misalignment ? hugePageBytes - misalignment : 0;
    madvise(block + skipped, bytes - skipped, MADV_HUGEPAGE); // advice: a kernel without them refuses it, rightly
}
}

DecodedPixels::DecodedPixels(int newWidth, int newHeight, std::size_t newPixelBytes, std::uint64_t codecBytes)
    : width(std::max(newWidth, 0)), height(std::max(newHeight, 0)), pixelBytes(newPixelBytes) {
    CheckImageSize(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height), pixelBytes, codecBytes);
    bytes = PixelMemory::GetSize(width, height, pixelBytes);
    memory.reset(PixelMemory::Allocate(bytes, PixelMemory::Content::Zeroed));
    AdviseHugePages(memory.get(), bytes);
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
