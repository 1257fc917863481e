#include "pixel/PixelMemory.h"
#include "storage/BackstoreReadError.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/BlockEnvironment.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <list>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <thread>
#include <unistd.h>

namespace Raster {
namespace {
using Bytes = std::vector<unsigned char>;

/// A tile and what it should hold. The lock is the application's: a writer needs the tile alone.
struct Subject {
    Tile tile;
    std::vector<std::uint32_t> content = std::vector<std::uint32_t>(16384, 0);
    std::shared_mutex lock;
};

class TileRaceTest : public BlockTest {
protected:
    TileRaceTest() { Tile::InitStaticTiles(); }
    ~TileRaceTest() override { Tile::DestroyStaticTiles(); }
    /// Every tile holds what it should, no session is open, and the ledger counts what there is.
    void ExpectAllHeld(std::vector<Subject> & subjects);
};

bool Holds(Tile const & tile, std::vector<std::uint32_t> const & content) {
    ConstTileGuard const session(tile);
    return std::memcmp(session.GetBuffer(), content.data(), 65536) == 0;
}

class Worker {
public:
    Worker(std::vector<Subject> & all, unsigned seed) : subjects(all), random(seed) {}

    void Run(int steps) {
        for (int i = 0; i < steps; ++i)
            try {
                Step(Pick());
            } catch (BackstoreReadError const &) { // nothing was done then
                ++failedReads;
            } catch (std::bad_alloc const &) { // nor then
                ++failedAllocations;
            }
    }
    int mismatches = 0, failedReads = 0, failedAllocations = 0;

private:
    Subject & Pick() { return subjects[random() % subjects.size()]; }

    void Step(Subject & subject) {
        switch (random() % 10) {
        case 0:
        case 1:
            return WriteWords(subject);
        case 2:
            return FillWhole(subject);
        case 3:
            return Copy(subject, Pick());
        case 4: { // tidying needs no lock of the application: bytes stay what they are
            subject.tile.Scrub();
            return;
        }
        case 5: {
            subject.tile.Deduplicate(support, nullptr);
            if (support.records.size() > 50)
                support.records.clear();
            return;
        }
        case 6:
            return Compare(subject, Pick());
        case 7: {
            std::shared_lock const guard(subject.lock);
            subject.tile.GetDataRect();
            subject.tile.GetDirectInner()->DisposeIfPossible();
            return;
        }
        case 8: { // a reader that outlives its lock keeps its picture
            std::vector<std::uint32_t> seen;
            ConstTileGuard session;
            {
                std::shared_lock const guard(subject.lock);
                session = ConstTileGuard(subject.tile);
                seen = subject.content;
            }
            mismatches += std::memcmp(session.GetBuffer(), seen.data(), 65536) != 0;
            return;
        }
        default: {
            std::shared_lock const guard(subject.lock);
            mismatches += !Holds(subject.tile, subject.content);
        }
        }
    }

    void WriteWords(Subject & subject) {
        std::unique_lock const guard(subject.lock);
        MutableTileGuard const session(subject.tile);
        auto const buffer = session.GetBuffer();
        for (int i = 0; i < 20; ++i) {
            auto const at = random() % 16384;
            buffer[at] = subject.content[at] = static_cast<std::uint32_t>(random());
        }
    }

    void FillWhole(Subject & subject) {
        static constexpr std::uint32_t words[] = {0, 0xFFFFFFFF, 0x3F800000, 1};
        std::unique_lock const guard(subject.lock);
        auto const word = words[random() % 4];
        if (word == 0 && random() % 4 == 0) {
            subject.tile.Unallocate();
        } else {
            MutableTileGuard const session(subject.tile);
            std::fill_n(session.GetBuffer(), 16384, word); // what throws does so before anything has changed
        }
        std::fill(subject.content.begin(), subject.content.end(), word);
    }

    void Copy(Subject & dest, Subject & source) {
        if (&dest == &source)
            return;
        std::scoped_lock const guard(dest.lock, source.lock);
        dest.tile = source.tile;
        dest.content = source.content;
    }

    void Compare(Subject & one, Subject & other) {
        auto const first = std::min(&one, &other), second = std::max(&one, &other); // in one order for all
        std::shared_lock const guard(first->lock);
        std::shared_lock<std::shared_mutex> secondGuard;
        if (second != first)
            secondGuard = std::shared_lock(second->lock);
        mismatches += one.tile.CompareBytes(&other.tile) != (one.content == other.content);
    }

    std::vector<Subject> & subjects;
    BlockDeduplicationSupport support;
    std::mt19937 random;
};

#ifdef RASTER_SANITIZED
constexpr int workerSteps = 600;
#else
constexpr int workerSteps = 4000;
#endif

struct Failures {
    int reads = 0, allocations = 0;
};

/// Eight workers at once. Returns how often something kept one of them from its work.
Failures RunWorkers(std::vector<Subject> & subjects) {
    std::list<Worker> workers;
    for (unsigned i = 0; i < 8; ++i)
        workers.emplace_back(subjects, i);
    std::vector<std::thread> threads;
    for (auto & worker : workers)
        threads.emplace_back([&worker] { worker.Run(workerSteps); });
    for (auto & thread : threads)
        thread.join();
    Failures failures;
    for (auto const & worker : workers) {
        EXPECT_EQ(worker.mismatches, 0);
        failures.reads += worker.failedReads;
        failures.allocations += worker.failedAllocations;
    }
    return failures;
}

void TileRaceTest::ExpectAllHeld(std::vector<Subject> & subjects) {
    std::uint64_t resident = 3, disposed = 0; // the static tiles are resident
    std::vector<Block const *> blocks;
    for (auto & subject : subjects) {
        EXPECT_TRUE(Holds(subject.tile, subject.content));
        blocks.push_back(subject.tile.GetConstInner());
    }
    std::sort(blocks.begin(), blocks.end());
    blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
    for (auto const block : blocks) {
        bool const isStatic = block == Tile::GetZeroTile()->GetConstInner() ||
                              block == Tile::GetFullTile()->GetConstInner() ||
                              block == Tile::GetFullFloatTile()->GetConstInner();
        EXPECT_EQ(block->GetPinCount(), isStatic ? 1 : 0);
        EXPECT_FALSE(block->HasMutableSession());
        resident += !isStatic && block->IsAllocatedAndPresent();
        disposed += block->IsDisposed();
    }
    ExpectAtRest(resident, disposed, 0);
}

TEST_F(TileRaceTest, EightThreadsWorkOnAHundredTilesUnderOneMebibyte) {
    ledger.SetDRAMLimit(1);
    std::vector<Subject> subjects(100);
    auto const failures = RunWorkers(subjects);
    EXPECT_EQ(failures.reads + failures.allocations, 0);
    ExpectAllHeld(subjects);
}

/// A disk that goes wrong and right again as it is used, and memory with it: by the number of calls, so that no run is
/// spared.
struct FickleDisk {
    static ssize_t Write(int file, void const * bytes, size_t count, off_t offset) {
        return IsWrong() ? Fail() : pwrite(file, bytes, count, offset);
    }
    static ssize_t Read(int file, void * bytes, size_t count, off_t offset) {
        return IsWrong() ? Fail() : pread(file, bytes, count, offset);
    }
    static ssize_t Fail() {
        errno = EIO;
        return -1;
    }
    static bool IsWrong() {
        auto const call = calls.fetch_add(1, std::memory_order_relaxed);
        if (call % 8 == 0)
            PixelMemory::FailAllocation(1 + call / 8 % 4);
        return call / 32 % 2 != 0;
    }
    static inline std::atomic<unsigned> calls{0};
};

TEST_F(TileRaceTest, NoPixelIsLostWhenDiskAndMemoryFailNowAndThen) {
    ledger.SetDRAMLimit(1);
    std::vector<Subject> subjects(100);
    backstore.SetFileFunctions(&FickleDisk::Read, &FickleDisk::Write);
    auto const failures = RunWorkers(subjects);
    TestDisk::Install();
    PixelMemory::FailAllocation(0);
    EXPECT_GT(failures.reads, 0) << "the faults were felt";
    EXPECT_GT(failures.allocations, 0);
    ExpectAllHeld(subjects);
}

TEST_F(TileRaceTest, WritersOfDifferentTilesOfOneBlockDoNotDisturbEachOther) {
    for (int round = 0; round < 50; ++round) {
        Tile source;
        {
            MutableTileGuard const session(source);
            std::fill_n(session.GetBuffer(), 16384, 42u);
        }
        std::array<Tile, 8> tiles;
        tiles.fill(source);
        source.Unallocate(); // now the tiles alone hold the block
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < tiles.size(); ++i)
            threads.emplace_back([&, i] {
                MutableTileGuard const session(tiles[i]);
                session.GetBuffer()[i] = i;
            });
        for (auto & thread : threads)
            thread.join();
        for (unsigned i = 0; i < tiles.size(); ++i) {
            std::vector<std::uint32_t> expected(16384, 42);
            expected[i] = i;
            ASSERT_TRUE(Holds(tiles[i], expected)) << "round " << round << ", tile " << i;
        }
    }
}

TEST_F(TileRaceTest, ManyThreadsAskForTheBlockOfAnEmptyTileAndGetOne) {
    for (int round = 0; round < 100; ++round) {
        Tile tile;
        std::array<Block const *, 4> seen{};
        std::vector<std::thread> threads;
        for (auto & each : seen)
            threads.emplace_back([&] { each = tile.GetConstInner(); });
        for (auto & thread : threads)
            thread.join();
        for (auto const each : seen)
            ASSERT_EQ(each, tile.GetConstInner());
    }
}

#ifdef RASTER_CHECK_LOCK_ORDER
std::atomic<int> violations{0};

TEST_F(TileRaceTest, TheCheckerCatchesALockTakenInTheWrongOrder) {
    auto const before = Kernel::LockOrder::SetViolationHandler([](char const *) { ++violations; });
    Kernel::CriticalSection backstoreLock(Kernel::LockRank::Backstore);
    backstoreLock.AcquireLock();
    Tile tile;
    MutableTileGuard(tile).GetBuffer(); // takes the block's lock and the ledger's, both above
    backstoreLock.ReleaseLock();
    Kernel::LockOrder::SetViolationHandler(before);
    EXPECT_GT(violations, 0);
}
#endif
}
}
