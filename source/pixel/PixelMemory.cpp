#include "pixel/PixelMemory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace Raster::PixelMemory {
namespace {
// More than this no process can map. Refused here, since some allocators take an impossible size for a bug and abort.
constexpr std::uint64_t largestAllocation = std::uint64_t(1) << 47;

// Allocations until the one that fails, counting it; 0 if none is to fail.
std::atomic<std::uint64_t> countdown{0};
}

void Deleter::operator()(unsigned char * bytes) const noexcept { Free(bytes); }

std::uint64_t Multiply(std::uint64_t first, std::uint64_t second) {
    std::uint64_t product = 0;
    if (__builtin_mul_overflow(first, second, &product))
        throw std::bad_alloc();
    return product;
}

std::uint64_t GetSize(int width, int height, std::uint64_t pixelBytes) {
    auto const columns = static_cast<std::uint64_t>(std::max(width, 0));
    auto const rows = static_cast<std::uint64_t>(std::max(height, 0));
    return Multiply(columns * rows, pixelBytes); // the first product has at most 62 bits
}

unsigned char * Allocate(std::uint64_t bytes, Content content) {
    if (bytes == 0)
        return nullptr;
    CheckFault();
    if (bytes > largestAllocation)
        throw std::bad_alloc();
    void * const memory = content == Content::Zeroed ? std::calloc(bytes, 1) : std::malloc(bytes);
    if (!memory)
        throw std::bad_alloc();
    return static_cast<unsigned char *>(memory);
}

void Free(unsigned char * bytes) noexcept { std::free(bytes); }

void FailAllocation(std::uint64_t n) noexcept { countdown.store(n, std::memory_order_relaxed); }

void CheckFault() {
    auto left = countdown.load(std::memory_order_relaxed);
    while (left != 0)
        if (countdown.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
            if (left == 1)
                throw std::bad_alloc();
            return;
        }
}
}
