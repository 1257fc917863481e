#include "kernel/LockOrder.h"

#ifdef RASTER_CHECK_LOCK_ORDER
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Kernel::LockOrder {
namespace {
struct HeldLock {
    void const * section;
    LockRank rank;
    std::size_t entries; // more than 1 for a re-entrant section that was entered again
};

/// A plain array: the checker must not allocate, since allocators take locks of their own.
struct HeldStack {
    std::array<HeldLock, 32> locks{};
    std::size_t count = 0;

    HeldLock * begin() { return locks.data(); }
    HeldLock * end() { return locks.data() + count; }

    HeldLock * Find(void const * section) {
        auto const found = std::find_if(begin(), end(), [&](HeldLock const & lock) { return lock.section == section; });
        return found == end() ? nullptr : found;
    }
    LockRank GetHighestRank() {
        auto const highest = std::max_element(
            begin(), end(), [](HeldLock const & left, HeldLock const & right) { return left.rank < right.rank; });
        return highest == end() ? LockRank::None : highest->rank;
    }
};

constinit thread_local HeldStack held;
std::atomic<ViolationHandler> violationHandler{nullptr};

char const * GetName(LockRank rank) {
    static constexpr std::array names{"None",          "Bitmap",    "FileModel",   "ProfileRegistry",
                                      "Consolidation", "BlockRect", "BlockBuffer", "DelayLoadHolder",
                                      "MemoryManager", "Backstore", "Leaf"};
    static_assert(names.size() == static_cast<std::size_t>(LockRank::Leaf) + 1);
    return names[static_cast<std::size_t>(rank)];
}

void Report(char const * what, LockRank rank) {
    std::string message = std::string("lock order: ") + what + ' ' + GetName(rank) + "; held:";
    for (HeldLock const & lock : held)
        message += std::string(" ") + GetName(lock.rank);
    if (auto const handler = violationHandler.load()) {
        handler(message.c_str());
        return;
    }
    std::fprintf(stderr, "%s\n", message.c_str());
    std::abort();
}
}

void WillAcquire(void const * section, LockRank rank, bool isReentrant, LockNesting nesting) {
    if (rank == LockRank::None || (isReentrant && held.Find(section)))
        return;
    LockRank const highest = held.GetHighestRank();
    bool const isNestedBitmap =
        nesting == LockNesting::FromOuterBitmap && rank == LockRank::Bitmap && highest == LockRank::Bitmap;
    if (rank <= highest && !isNestedBitmap)
        Report("out of order:", rank);
}

void DidAcquire(void const * section, LockRank rank) {
    if (rank == LockRank::None)
        return;
    if (HeldLock * const lock = held.Find(section))
        ++lock->entries;
    else if (held.count == held.locks.size())
        Report("too many locks:", rank);
    else
        held.locks[held.count++] = {section, rank, 1};
}

void WillRelease(void const * section, LockRank rank) {
    if (rank == LockRank::None)
        return;
    HeldLock * const lock = held.Find(section);
    if (!lock) {
        Report("released by a thread that doesn't hold it:", rank);
        return;
    }
    if (--lock->entries == 0) {
        std::copy(lock + 1, held.end(), lock);
        --held.count;
    }
}

void WillCallOut() {
    if (auto const highest = held.GetHighestRank(); highest >= LockRank::BlockRect)
        Report("called out under", highest);
}

std::size_t GetHeldCount() { return held.count; }

ViolationHandler SetViolationHandler(ViolationHandler handler) { return violationHandler.exchange(handler); }
}
#endif
