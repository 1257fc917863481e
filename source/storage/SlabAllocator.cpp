#include "storage/SlabAllocator.h"

#include "kernel/ScopedLock.h"
#include "pixel/PixelMemory.h"
#include "storage/SlabMemory.h"

#include <bit>
#include <cstring>
#include <ctime>

namespace Raster {
namespace {
// The first buffer of a unit that becomes huge is given out, the others are kept.
constexpr std::size_t othersOfUnit = SlabUnit::MostBuffers - 1;

using Clock = std::chrono::steady_clock;

// A system that had no huge page may have one later, when memory is less in pieces.
constexpr auto waitAfterRefusal = std::chrono::milliseconds(100);

// As many small pages take 0.7 ms. A huge one takes 0.2 ms, but many milliseconds where the system must move others out
// of the way, or, in a virtual machine, get the memory first: then the next will take as long. A third of the time may
// go there, not more.
constexpr auto longPopulation = std::chrono::milliseconds(1);
constexpr int waitForLongOnes = 2;

// Of this thread, so that a call isn't taken for a long one because another thread had its turn.
std::chrono::nanoseconds GetProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Calls the function with the begin and the bytes of each run of neighbours in `set`.
template<class Function>
void ForEachRun(SlabUnit const & unit, SlabUnit::Set set, Function && function) {
    for (unsigned at = 0; set != 0;) {
        auto const gap = static_cast<unsigned>(std::countr_zero(set));
        at += gap;
        set >>= gap;
        auto const run = static_cast<unsigned>(std::countr_one(set));
        function(unit.begin + at * SlabAllocator::BufferBytes, run * SlabAllocator::BufferBytes);
        at += run;
        set = run < SlabUnit::MostBuffers ? set >> run : 0;
    }
}
}

SlabAllocator & SlabAllocator::Instance() {
    static SlabAllocator & instance = *new SlabAllocator;
    return instance;
}

unsigned int * SlabAllocator::Allocate(Content content) {
    PixelMemory::CheckFault();
    Kernel::ScopedLock guard(lock);
    auto taken = Take(content);
    ++usedCount;
    guard.Release();
    if (taken.unitToPopulate)
        taken.isInMemory = Populate(*taken.unitToPopulate);
    SlabMemory::Unpoison(taken.buffer, BufferBytes);
    if (content == Content::Zero && !taken.isZero)
        std::memset(taken.buffer, 0, BufferBytes);
    if (content == Content::Overwritten && !taken.isInMemory)
        SlabMemory::Populate(taken.buffer, BufferBytes);
    return taken.buffer;
}

SlabAllocator::Taken SlabAllocator::Take(Content content) {
    if (warmCount != 0) {
        --warmCount;
        return {warm[(warmBegin + warmCount) % WarmBuffers], /*isZero=*/false, /*isInMemory=*/true, nullptr};
    }
    if (auto * const unit = units.GetKept())
        return TakeFrom(*unit);
    if (!units.GetPartial() && !units.GetEmpty())
        units.Map();
    if (!IsWorthPopulating(content))
        return TakeFrom(*(units.GetPartial() ? units.GetPartial() : units.GetEmpty()));
    auto & unit = *units.GetEmpty();
    units.Remove(unit, unit.all);
    comingCount += othersOfUnit;
    return {reinterpret_cast<unsigned int *>(unit.begin), /*isZero=*/true, /*isInMemory=*/false, &unit};
}

// The lowest is taken: a huge page is cleared so that its begin is in the cache afterwards.
SlabAllocator::Taken SlabAllocator::TakeFrom(SlabUnit & unit) {
    auto const index = static_cast<unsigned>(std::countr_zero(unit.free));
    auto const set = SlabUnit::Set(1) << index;
    Taken const taken{reinterpret_cast<unsigned int *>(unit.begin + index * BufferBytes), (unit.zero & set) != 0,
                      unit.isHuge, nullptr};
    units.Remove(unit, set);
    return taken;
}

// Who uses little never takes more than twice that. Many threads at once take no more than what may be kept.
bool SlabAllocator::IsWorthPopulating(Content content) const {
    return content != Content::Any && usedCount >= SlabUnit::MostBuffers && units.GetEmpty() &&
           units.GetKeptCount() + comingCount + othersOfUnit <= KeptBuffers && Clock::now() >= populateAfter;
}

// Without the lock, for it takes a while: the unit is in no list. Returns whether its first buffer is in memory.
bool SlabAllocator::Populate(SlabUnit & unit) {
    auto const begin = GetProcessorTime();
    bool const isHuge = SlabMemory::PopulateHuge(unit.begin, SlabUnits::UnitBytes);
    auto const taken = GetProcessorTime() - begin;
    Kernel::ScopedLock const guard(lock);
    comingCount -= othersOfUnit;
    unit.isHuge = isHuge;
    units.Add(unit, unit.all & ~SlabUnit::Set(1), /*isZero=*/true);
    if (!isHuge)
        populateAfter = Clock::now() + waitAfterRefusal;
    else if (taken > longPopulation)
        populateAfter = Clock::now() + waitForLongOnes * taken;
    return isHuge;
}

void SlabAllocator::Free(unsigned int * buffer) noexcept {
    if (!buffer)
        return;
    SlabMemory::Poison(buffer, BufferBytes);
    Kernel::ScopedLock guard(lock);
    --usedCount;
    auto * const pushedOut = PushWarm(buffer);
    auto const leaving = pushedOut ? LetGo(pushedOut) : Leaving{};
    guard.Release();
    if (leaving.set == 0)
        return;
    // Without the lock, for it takes a while: nobody else knows of these buffers.
    auto & unit = *leaving.unit;
    if (leaving.isPartOfHuge)
        ForEachRun(unit, leaving.set & -leaving.set, SlabMemory::Split);
    ForEachRun(unit, leaving.set, SlabMemory::GiveBack);
    Kernel::ScopedLock const again(lock);
    units.Add(unit, leaving.set, /*isZero=*/true);
}

// Returns what has no room any longer, or null.
unsigned int * SlabAllocator::PushWarm(unsigned int * buffer) {
    unsigned int * pushedOut = nullptr;
    if (warmCount == WarmBuffers) {
        pushedOut = warm[warmBegin];
        warmBegin = (warmBegin + 1) % WarmBuffers;
        --warmCount;
    }
    warm[(warmBegin + warmCount) % WarmBuffers] = buffer;
    ++warmCount;
    return pushedOut;
}

// What is to be given back now that `buffer` is neither used nor warm. A unit of which nothing is used goes in one
// call, also if it is small: then the table of its pages goes too, and it can become huge again.
SlabAllocator::Leaving SlabAllocator::LetGo(unsigned int * buffer) {
    auto & unit = units.Find(buffer);
    auto const set = SlabUnits::GetSet(unit, buffer);
    if (!unit.isHuge) {
        if ((unit.free | set) != unit.all)
            return {&unit, set, /*isPartOfHuge=*/false};
        units.Remove(unit, unit.free);
        return {&unit, unit.all, /*isPartOfHuge=*/false};
    }
    units.Add(unit, set, /*isZero=*/false);
    if (unit.free == unit.all)
        return LetGoOfAllFree(unit);
    if (units.GetKeptCount() + comingCount > KeptBuffers)
        return LetGoOfAllFree(*units.GetLongestKept());
    return {};
}

// Of a huge unit. It is small from now on.
SlabAllocator::Leaving SlabAllocator::LetGoOfAllFree(SlabUnit & unit) {
    auto const set = unit.free;
    units.Remove(unit, set);
    unit.isHuge = false;
    return {&unit, set, /*isPartOfHuge=*/set != unit.all};
}

std::size_t SlabAllocator::GetUsedCount() const {
    Kernel::ScopedLock const guard(lock);
    return usedCount;
}

std::size_t SlabAllocator::GetWarmCount() const {
    Kernel::ScopedLock const guard(lock);
    return warmCount;
}

std::size_t SlabAllocator::GetKeptCount() const {
    Kernel::ScopedLock const guard(lock);
    return units.GetKeptCount() + comingCount;
}
}
