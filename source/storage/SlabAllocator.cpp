#include "storage/SlabAllocator.h"

#include "kernel/ScopedLock.h"
#include "pixel/PixelMemory.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <sys/mman.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

namespace Raster {
namespace {
// 64 MiB: few mappings, and the table of pages of an unused one costs little.
constexpr std::size_t largestSlabBuffers = 1024;

// A mapping of `count` buffers aligned to their size, or null. Without huge pages, so that giving back one buffer
// really gives back its memory, and taking one takes no more than that.
unsigned char * MapSlab(std::size_t count) {
    auto const bytes = count * SlabAllocator::BufferBytes;
    auto const mapped = mmap(nullptr, bytes + SlabAllocator::BufferBytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    auto const begin = reinterpret_cast<std::uintptr_t>(mapped);
    auto const aligned =
        (begin + SlabAllocator::BufferBytes - 1) / SlabAllocator::BufferBytes * SlabAllocator::BufferBytes;
    auto const slab = static_cast<unsigned char *>(mapped) + (aligned - begin);
    madvise(slab, bytes, MADV_NOHUGEPAGE); // advice: a kernel without huge pages refuses it, rightly
    return slab;
}

// Puts memory under a buffer that is about to be written from end to end: one call for what would be 16 page faults,
// which take half as long again. Older systems know no such call, and nothing depends on it.
void Populate(unsigned int * buffer) {
#ifndef MADV_POPULATE_WRITE
    constexpr int MADV_POPULATE_WRITE = 23;
#endif
    int const savedError = errno;
    static_cast<void>(madvise(buffer, SlabAllocator::BufferBytes, MADV_POPULATE_WRITE));
    errno = savedError;
}

// Gives the memory back; the next access finds zeros.
void GiveBack(unsigned int * buffer) {
    ASAN_UNPOISON_MEMORY_REGION(buffer, SlabAllocator::BufferBytes);
    int const savedError = errno;
    if (madvise(buffer, SlabAllocator::BufferBytes, MADV_DONTNEED) != 0)
        std::memset(buffer, 0, SlabAllocator::BufferBytes); // locked memory stays; it must be zero all the same
    errno = savedError;
    ASAN_POISON_MEMORY_REGION(buffer, SlabAllocator::BufferBytes);
}
}

SlabAllocator & SlabAllocator::Instance() {
    static SlabAllocator & instance = *new SlabAllocator;
    return instance;
}

unsigned int * SlabAllocator::PopWarm() {
    if (warmCount == 0)
        return nullptr;
    --warmCount;
    return warm[(warmBegin + warmCount) % WarmBuffers];
}

unsigned int * SlabAllocator::PopCold() {
    if (cold.empty())
        return nullptr;
    auto const buffer = cold.back();
    cold.pop_back();
    return buffer;
}

unsigned int * SlabAllocator::CarveOrMap() {
    if (freshCount == 0) {
        // Smaller slabs are tried so that a limit on the address space is used to the end.
        auto count = largestSlabBuffers;
        while (!(fresh = MapSlab(count)))
            if ((count /= 4) == 0)
                throw std::bad_alloc();
        try {
            cold.reserve(totalCount + count);
        } catch (...) {
            munmap(fresh, count * BufferBytes);
            throw;
        }
        freshCount = count;
        totalCount += count;
    }
    auto const buffer = reinterpret_cast<unsigned int *>(fresh);
    fresh += BufferBytes;
    --freshCount;
    return buffer;
}

unsigned int * SlabAllocator::Allocate(Content content) {
    PixelMemory::CheckFault();
    Kernel::ScopedLock guard(lock);
    auto buffer = PopWarm();
    bool const isZero = !buffer;
    if (!buffer)
        buffer = PopCold();
    if (!buffer)
        buffer = CarveOrMap();
    ++usedCount;
    guard.Release();
    ASAN_UNPOISON_MEMORY_REGION(buffer, BufferBytes);
    if (content == Content::Zero && !isZero)
        std::memset(buffer, 0, BufferBytes);
    if (content == Content::Overwritten && isZero)
        Populate(buffer);
    return buffer;
}

void SlabAllocator::Free(unsigned int * buffer) noexcept {
    if (!buffer)
        return;
    ASAN_POISON_MEMORY_REGION(buffer, BufferBytes);
    unsigned int * pushedOut = nullptr;
    {
        Kernel::ScopedLock const guard(lock);
        --usedCount;
        if (warmCount == WarmBuffers) {
            pushedOut = warm[warmBegin];
            warmBegin = (warmBegin + 1) % WarmBuffers;
            --warmCount;
        }
        warm[(warmBegin + warmCount) % WarmBuffers] = buffer;
        ++warmCount;
    }
    if (!pushedOut)
        return;
    GiveBack(pushedOut); // without the lock: it takes a while
    Kernel::ScopedLock const guard(lock);
    cold.push_back(pushedOut);
}

std::size_t SlabAllocator::GetUsedCount() const {
    Kernel::ScopedLock const guard(lock);
    return usedCount;
}

std::size_t SlabAllocator::GetWarmCount() const {
    Kernel::ScopedLock const guard(lock);
    return warmCount;
}
}
