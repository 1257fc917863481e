#include "storage/SlabMemory.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace Raster {
namespace {
// Younger than some systems that this is built on. Older kernels refuse them.
constexpr int populateWrite = 23, collapse = 25;

bool Advise(void * begin, std::size_t bytes, int advice) {
    int const savedError = errno;
    bool const isTaken = madvise(begin, bytes, advice) == 0;
    errno = savedError;
    return isTaken;
}

void Unmap(unsigned char * begin, std::size_t bytes) {
    if (bytes != 0)
        munmap(begin, bytes);
}

bool IsLastPageInMemory(unsigned char * begin, std::size_t bytes) {
    static auto const pageBytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    int const savedError = errno;
    unsigned char state = 0;
    bool const isKnown = mincore(begin + bytes - pageBytes, pageBytes, &state) == 0;
    errno = savedError;
    return isKnown && (state & 1);
}
}

unsigned char * SlabMemory::Map(std::size_t bytes, std::size_t alignment) {
    auto const mapped =
        mmap(nullptr, bytes + alignment, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    auto const before = -reinterpret_cast<std::uintptr_t>(mapped) % alignment;
    auto const begin = static_cast<unsigned char *>(mapped) + before;
    Unmap(begin - before, before);
    Unmap(begin + bytes, alignment - before);
    // Huge pages are taken where they are meant, and not wherever the system likes them: giving back one buffer of a
    // huge page gives back nothing, and touching one takes all of it.
    Advise(begin, bytes, MADV_NOHUGEPAGE);
    Poison(begin, bytes);
    return begin;
}

void SlabMemory::Populate(void * begin, std::size_t bytes) { Advise(begin, bytes, populateWrite); }

// The touch of one byte takes all of the page, or a small one where there is no huge one to be had. It takes a small
// one also where small pages were before, as their table still is there (Linux before 6.14); then they are collected
// into a huge one, but only by a process that was given one already: the call overrides who has switched them off.
bool SlabMemory::PopulateHuge(unsigned char * begin, std::size_t bytes) {
    static std::atomic<bool> areGiven{false};
    if (!Advise(begin, bytes, MADV_HUGEPAGE))
        return false;
    Unpoison(begin, 1);
    *static_cast<unsigned char volatile *>(begin) = 0;
    Poison(begin, 1);
    bool isHuge = IsLastPageInMemory(begin, bytes);
    if (isHuge)
        areGiven.store(true, std::memory_order_relaxed);
    else if (areGiven.load(std::memory_order_relaxed))
        isHuge = Advise(begin, bytes, collapse) && IsLastPageInMemory(begin, bytes);
    // Or the system would make a huge page of it again when parts of it have been given back.
    Advise(begin, bytes, MADV_NOHUGEPAGE);
    if (!isHuge)
        Advise(begin, bytes, MADV_DONTNEED); // all is zero, also if this is refused
    return isHuge;
}

// It may be freed later, says this, and each page by itself: the kernel must break the huge one up to remember that.
void SlabMemory::Split(void * begin, std::size_t bytes) { Advise(begin, bytes, MADV_FREE); }

void SlabMemory::GiveBack(void * begin, std::size_t bytes) {
    if (Advise(begin, bytes, MADV_DONTNEED))
        return;
    Unpoison(begin, bytes);
    std::memset(begin, 0, bytes); // locked memory stays; it must be zero all the same
    Poison(begin, bytes);
}
}
