#include "pixel/PixelMemory.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Raster::PixelMemory {
namespace {
// More than this no process can map. Refused here, since some allocators take an impossible size for a bug and abort.
constexpr std::uint64_t largestAllocation = std::uint64_t(1) << 47;

// Allocations until the one that fails, counting it; 0 if none is to fail.
std::atomic<std::uint64_t> countdown{0};

constexpr std::uint64_t hugePageBytes = 2 << 20;
// The largest that the allocator may give out of memory that was in use before. Larger ones come from the system, zero
// already.
constexpr std::uint64_t largestRecycled = 32 << 20;

// Advice: a kernel without huge pages refuses it, rightly.
void AdviseHugePages(unsigned char * block, std::uint64_t bytes) {
    auto const misalignment = reinterpret_cast<std::uintptr_t>(block) % hugePageBytes;
    std::uint64_t const skipped = misalignment ? hugePageBytes - misalignment : 0;
    if (skipped < bytes)
        madvise(block + skipped, bytes - skipped, MADV_HUGEPAGE);
}
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

// With small pages, touching them was a quarter of the time in which a JPEG of 24 megapixels is decoded.
unsigned char * AllocateBlock(std::uint64_t bytes) {
    if (bytes < hugePageBytes || bytes > largestRecycled) {
        auto * const block = Allocate(bytes, Content::Zeroed);
        if (bytes > largestRecycled)
            AdviseHugePages(block, bytes);
        return block;
    }
    CheckFault();
    std::uint64_t const whole = (bytes + hugePageBytes - 1) / hugePageBytes * hugePageBytes;
    auto * const block = static_cast<unsigned char *>(std::aligned_alloc(hugePageBytes, whole));
    if (!block)
        throw std::bad_alloc();
    AdviseHugePages(block, whole);
    std::memset(block, 0, bytes);
    return block;
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
