/// The order in which locks may be taken, and its check at run time. docs/locks.md gives the reason for each rank.
#pragma once

#include "kernel/Export.h"

#include <cstddef>
#include <cstdint>

namespace Kernel {
/// What a lock guards, outermost first. A thread takes ranks in rising order only.
enum class LockRank : std::uint8_t {
    None,            ///< Not part of the order: neither checked nor recorded.
    Bitmap,          ///< A bitmap's `delayLoadLock` or `mipmapLock`.
    FileModel,       ///< A file model's critical section.
    ProfileRegistry, ///< The registry of ICC profiles.
    Consolidation,   ///< The table of shared immutable objects.
    BlockRect,       ///< A block's `rectLock`.
    BlockBuffer,     ///< A block's `bufferLock`. Another block's only by try-lock.
    DelayLoadHolder, ///< A delay-load holder's lock.
    MemoryManager,   ///< The eviction list.
    Backstore,       ///< The backstore file.
    Leaf,            ///< Nothing is acquired or called out to while one is held.
};

/// Whether a lock may be taken while its thread holds another one of the same rank.
enum class LockNesting : std::uint8_t {
    Forbidden,
    FromOuterBitmap, ///< From a bitmap to its levels, or from a pending bitmap to the one that it is filled from.
};

/// Keeps, for each thread, the stack of ranked locks that it holds. Works only in builds with RASTER_CHECK_LOCK_ORDER;
/// in others every function is empty.
namespace LockOrder {
/// Gets a line that names the offending rank and those that are held, outermost first.
using ViolationHandler = void (*)(char const * message);

#ifdef RASTER_CHECK_LOCK_ORDER
inline constexpr bool isChecked = true;

/// Before a blocking acquisition. Taking a rank that isn't above the highest held one is a violation, but for entering
/// a re-entrant section again and for bitmaps under `LockNesting::FromOuterBitmap`.
RASTER_API void WillAcquire(void const * section, LockRank rank, bool isReentrant, LockNesting nesting);
/// After any acquisition, that of a try-lock included: it can't deadlock itself, but what comes after it can.
RASTER_API void DidAcquire(void const * section, LockRank rank);
/// Before a release, in any order. Releasing what the thread doesn't hold is a violation.
RASTER_API void WillRelease(void const * section, LockRank rank);
/// Before a call out of the library: a callback, a message sink, a parallel job. Under the locks from `BlockRect` on
/// that is a violation. The ones before are held over whole decodes and levels, which call out as they go.
RASTER_API void WillCallOut();
/// The number of ranked locks that this thread holds, repeated entries not counted.
RASTER_API std::size_t GetHeldCount();
/// Replaces what is done on a violation, for the whole process; null brings back the default, which prints to stderr
/// and aborts. After a handler that returns the lock is taken nevertheless.
/// @return the handler before; null if it was the default.
RASTER_API ViolationHandler SetViolationHandler(ViolationHandler handler);
#else
inline constexpr bool isChecked = false;

inline void WillAcquire(void const *, LockRank, bool, LockNesting) {}
inline void DidAcquire(void const *, LockRank) {}
inline void WillRelease(void const *, LockRank) {}
inline void WillCallOut() {}
inline std::size_t GetHeldCount() { return 0; }
inline ViolationHandler SetViolationHandler(ViolationHandler) { return nullptr; }
#endif
}
}
