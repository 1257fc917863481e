#include "storage/BackstoreReadError.h"
#include "storage/BlockDeduplicationSupport.h"
#include "storage/BlockEnvironment.h"
#include "storage/Tile.h"
#include "storage/TileGuard.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <list>
#include <mutex>
#include <shared_mutex>
#include <thread>

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
                ++failures;
            }
    }
    int mismatches = 0, failures = 0;

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
        MutableTileGuard session;
        if (word == 0 && random() % 4 == 0)
            subject.tile.Unallocate();
        else
            session = MutableTileGuard(subject.tile); // throws before anything has changed
        std::fill(subject.content.begin(), subject.content.end(), word);
        if (session.GetBlock())
            std::memcpy(session.GetBuffer(), subject.content.data(), 65536);
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

/// Eight workers at once. Returns how often the disk kept one of them from its work.
int RunWorkers(std::vector<Subject> & subjects) {
    std::list<Worker> workers;
    for (unsigned i = 0; i < 8; ++i)
        workers.emplace_back(subjects, i);
    std::vector<std::thread> threads;
    for (auto & worker : workers)
        threads.emplace_back([&worker] { worker.Run(workerSteps); });
    for (auto & thread : threads)
        thread.join();
    int failures = 0;
    for (auto const & worker : workers) {
        EXPECT_EQ(worker.mismatches, 0);
        failures += worker.failures;
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
    EXPECT_EQ(RunWorkers(subjects), 0);
    ExpectAllHeld(subjects);
}

TEST_F(TileRaceTest, NoPixelIsLostOnADiskThatFailsNowAndThen) {
    ledger.SetDRAMLimit(1);
    std::vector<Subject> subjects(100);
    std::atomic<bool> isDone{false};
    std::thread saboteur([&] {
        using Fault = TestDisk::Fault;
        static constexpr Fault faults[] = {Fault::None, Fault::Error, Fault::Short};
        std::mt19937 random(7);
        while (!isDone) {
            TestDisk::writeFault = faults[random() % 3];
            TestDisk::readFault = faults[random() % 3];
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
        }
        TestDisk::writeFault = TestDisk::readFault = Fault::None;
    });
    int const failures = RunWorkers(subjects);
    isDone = true;
    saboteur.join();
    EXPECT_GT(failures, 0) << "the faults were felt";
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
