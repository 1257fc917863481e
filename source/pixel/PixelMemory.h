#pragma once

#include "kernel/Export.h"

#include <cstdint>
#include <memory>

/// The one allocator of pixel memory. Every kind of pixel store takes its bytes here, or asks `CheckFault` before it
/// takes them elsewhere, so that tests can make any of them fail. It keeps no accounts: those are the memory manager's.
/// Threads: all functions may be called from any thread.
namespace Raster::PixelMemory {
enum class Content {
    Uninitialised, ///< for memory that is overwritten before anybody can see it
    Zeroed         ///< fresh pages come from the system as zeros, so this costs nothing extra for large sizes
};

struct Deleter {
    void operator()(unsigned char * bytes) const noexcept;
};
/// Memory that goes with its owner.
using Owner = std::unique_ptr<unsigned char[], Deleter>;

/// `first * second`. Throws std::bad_alloc if that has no 64-bit number.
RASTER_API std::uint64_t Multiply(std::uint64_t first, std::uint64_t second);
/// The bytes of `width` by `height` pixels; negative sizes count as 0. Throws std::bad_alloc if there is no such
/// number.
RASTER_API std::uint64_t GetSize(int width, int height, std::uint64_t pixelBytes);

/// Aligned as for any fundamental type. Null if `bytes` is 0. Throws std::bad_alloc if the memory can't be had.
RASTER_API unsigned char * Allocate(std::uint64_t bytes, Content content);
/// Zeroed, for a block that is written once from its start to its end, where the first touch of each page is what
/// costs: the system is asked for huge pages. Up to 2 MiB more than `bytes` may be taken of it.
RASTER_API unsigned char * AllocateBlock(std::uint64_t bytes);
/// Null does nothing.
RASTER_API void Free(unsigned char * bytes) noexcept;

/// For tests: the n-th allocation from now throws std::bad_alloc, and the ones after it succeed again. 0 takes an order
/// back that has not come due.
RASTER_API void FailAllocation(std::uint64_t n) noexcept;
/// For stores with memory of their own: counts as one allocation, and throws if it is the one that was ordered to fail.
RASTER_API void CheckFault();
}
