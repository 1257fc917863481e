#pragma once

#include <cstddef>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

/// What slabs ask of the system. All of it but `Map` is advice that may be refused without harm, and leaves `errno`
/// as it is. Threads: any, each on memory that is its own.
namespace Raster::SlabMemory {
/// Address space without memory, in small pages only. Aligned to `alignment`, a power of two. Null if there is none.
unsigned char * Map(std::size_t bytes, std::size_t alignment);

/// Puts memory under what is about to be written from end to end: one call for what would be 16 page faults, which
/// take half as long again.
void Populate(void * begin, std::size_t bytes);

/// Puts one huge page under `bytes` that have no memory, and are as many and aligned as such a page is.
/// @return false if the system gave none: they are without memory then.
bool PopulateHuge(unsigned char * begin, std::size_t bytes);

/// Before a part of a huge page is given back: breaks the page up. Without that the memory of the part stays taken
/// until all of the page goes. What the given part holds is lost.
void Split(void * begin, std::size_t bytes);

/// Gives the memory back. What is there reads as zero from now on.
void GiveBack(void * begin, std::size_t bytes);

/// Tell the address sanitizer whether anybody may look.
#ifdef __SANITIZE_ADDRESS__
inline void Poison(void const * begin, std::size_t bytes) { ASAN_POISON_MEMORY_REGION(begin, bytes); }
inline void Unpoison(void const * begin, std::size_t bytes) { ASAN_UNPOISON_MEMORY_REGION(begin, bytes); }
#else
inline void Poison(void const *, std::size_t) {}
inline void Unpoison(void const *, std::size_t) {}
#endif
}
