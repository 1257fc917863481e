#include "pixel/MemoryManager.h"

#include "kernel/ScopedLock.h"

#include <algorithm>

namespace Raster {
namespace {
std::uint64_t BytesOfMebibytes(std::uint64_t mebibytes) {
    auto const most = std::numeric_limits<std::uint64_t>::max();
    return mebibytes > most >> 20 ? most : mebibytes << 20;
}
}

void MemoryManager::Usage::Add(std::uint64_t amount) {
    auto before = bytes.load(std::memory_order_relaxed);
    std::uint64_t after;
    do
        after = before > std::numeric_limits<std::uint64_t>::max() - amount ? std::numeric_limits<std::uint64_t>::max()
                                                                            : before + amount;
    while (!bytes.compare_exchange_weak(before, after, std::memory_order_relaxed));
    auto highest = peak.load(std::memory_order_relaxed);
    while (highest < after && !peak.compare_exchange_weak(highest, after, std::memory_order_relaxed)) {
    }
}

void MemoryManager::Usage::Subtract(std::uint64_t amount) {
    auto before = bytes.load(std::memory_order_relaxed);
    while (!bytes.compare_exchange_weak(before, before - std::min(before, amount), std::memory_order_relaxed)) {
    }
}

MemoryManager & MemoryManager::Instance() {
    // Never destroyed: tiles in other static objects may go later than anything in this library.
    static MemoryManager & instance = *new MemoryManager;
    return instance;
}

std::uint64_t MemoryManager::GetLimitedUsage() const {
    auto const tiles = planar.Get(), buffers = interleaved.Get();
    return tiles > std::numeric_limits<std::uint64_t>::max() - buffers ? std::numeric_limits<std::uint64_t>::max()
                                                                       : tiles + buffers;
}

void MemoryManager::Append(Evictable const * block) {
    block->older = newest;
    block->newer = nullptr;
    (newest ? newest->newer : oldest) = block;
    newest = block;
    block->listed = true;
}

void MemoryManager::Unlink(Evictable const * block) {
    if (!block->listed)
        return;
    (block->older ? block->older->newer : oldest) = block->newer;
    (block->newer ? block->newer->older : newest) = block->older;
    block->older = block->newer = nullptr;
    block->listed = false;
}

// Evicts the oldest blocks that allow it while `above(usage)` holds. One pass: what was busy a moment ago is not asked
// again. The main lock is held, so nobody but the victim leaves the list meanwhile.
// Returns Failed if the disk ended it.
template<class Above>
Eviction MemoryManager::EvictWhile(Above above, Evictable const * skipped) {
    for (auto block = oldest; block && above(GetLimitedUsage());) {
        auto const next = block->newer;
        if (block != skipped && block->TryEvict() == Eviction::Failed)
            return Eviction::Failed;
        block = next;
    }
    return Eviction::Done;
}

// With no lock held: what is called sends a message.
void MemoryManager::Report(Eviction result) const {
    if (result != Eviction::Failed)
        return;
    if (auto const reporter = failureReporter.load(std::memory_order_acquire))
        reporter();
}

void MemoryManager::Attach(Evictable const * block) {
    Kernel::ScopedLock const guard(mainLock);
    auto const limit = GetDRAMLimit();
    // Begins at the limit and goes down to about 91 % of it, so that the next tiles come in without evicting.
    if (GetLimitedUsage() >= limit)
        EvictWhile([&](std::uint64_t usage) { return double(usage) * 1.1 >= double(limit); }, block);
    Unlink(block);
    Append(block);
    planar.Add(BlockBytes);
}

void MemoryManager::Detach(Evictable const * block) {
    Kernel::ScopedLock const guard(mainLock);
    if (block->IsAllocatedAndPresent())
        UnsafeDetach(block);
}

void MemoryManager::UnsafeDetach(Evictable const * block) {
    Unlink(block);
    planar.Subtract(BlockBytes);
}

bool MemoryManager::Evict(Evictable const * block) {
    Kernel::ScopedLock guard(mainLock);
    auto const result = block->TryEvict();
    guard.Release();
    Report(result);
    return result == Eviction::Done;
}

void MemoryManager::AttachPlanar(std::uint64_t bytes) { planar.Add(bytes); }

void MemoryManager::DetachPlanar(std::uint64_t bytes) { planar.Subtract(bytes); }

void MemoryManager::AttachInterleaved(std::uint64_t bytes) {
    interleaved.Add(bytes);
    if (GetLimitedUsage() < GetDRAMLimit())
        return; // the common case waits for nobody
    Kernel::ScopedLock guard(mainLock);
    auto const limit = GetDRAMLimit();
    auto const result = EvictWhile([&](std::uint64_t usage) { return usage >= limit; }, nullptr);
    guard.Release();
    Report(result);
}

void MemoryManager::DetachInterleaved(std::uint64_t bytes) { interleaved.Subtract(bytes); }

void MemoryManager::AttachVirtual(std::uint64_t bytes) { virtualGrids.Add(bytes); }

void MemoryManager::DetachVirtual(std::uint64_t bytes) { virtualGrids.Subtract(bytes); }

void MemoryManager::AttachCompressed(std::uint64_t bytes) { compressed.Add(bytes); }

void MemoryManager::DetachCompressed(std::uint64_t bytes) { compressed.Subtract(bytes); }

void MemoryManager::AttachDelayed() { delayed.Add(BlockBytes); }

void MemoryManager::DetachDelayed() { delayed.Subtract(BlockBytes); }

void MemoryManager::AttachHardware(std::uint64_t bytes) { hardware.Add(bytes); }

void MemoryManager::DetachHardware(std::uint64_t bytes) { hardware.Subtract(bytes); }

void MemoryManager::AttachFrontEndHardware(std::uint64_t bytes) { frontEndHardware.Add(bytes); }

void MemoryManager::DetachFrontEndHardware(std::uint64_t bytes) { frontEndHardware.Subtract(bytes); }

void MemoryManager::TileDisposed() { backstore.Add(BlockBytes); }

void MemoryManager::TileRecovered() { backstore.Subtract(BlockBytes); }

void MemoryManager::SetDRAMLimit(std::uint64_t mebibytes) {
    auto const limit = BytesOfMebibytes(mebibytes);
    if (dramLimit.exchange(limit, std::memory_order_relaxed) <= limit)
        return;
    Kernel::ScopedLock guard(mainLock);
    auto result = Eviction::Done;
    if (GetLimitedUsage() > limit)
        result = EvictWhile([&](std::uint64_t usage) { return double(usage) * 1.1 > double(limit); }, nullptr);
    guard.Release();
    Report(result);
}

void MemoryManager::SetHardwareLimit(std::uint64_t mebibytes) {
    hardwareLimit.store(BytesOfMebibytes(mebibytes), std::memory_order_relaxed);
}

void MemoryManager::SetDiskWarningLimit(std::uint64_t mebibytes) {
    diskWarningLimit.store(BytesOfMebibytes(mebibytes), std::memory_order_relaxed);
}

bool MemoryManager::ShouldWarnAboutDiskUsage() {
    bool const above = backstore.Get() > diskWarningLimit.load(std::memory_order_relaxed);
    return !diskWarningLatched.exchange(above, std::memory_order_relaxed) && above;
}

void MemoryManager::Destroy() {
    Kernel::ScopedLock const guard(mainLock);
    while (oldest)
        Unlink(oldest);
}

std::uint64_t MemoryManager::CountListedBlocks() const {
    Kernel::ScopedLock const guard(mainLock);
    std::uint64_t count = 0;
    for (auto block = oldest; block; block = block->newer)
        ++count;
    return count;
}
}
