#include "kernel/Dispatch.h"

#include "kernel/DispatchArena.h"
#include "kernel/LockOrder.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>

namespace Kernel {
namespace {
/// What helpers may join. Lives on the caller's stack: a helper counts itself in, under the crew's lock, before it
/// touches the job, and the caller leaves only when all are out again.
class Job {
public:
    /// Whether a helper would find anything to do. Called under the crew's lock.
    virtual bool HasWork() const = 0;
    /// Does what there is. Keeps what is thrown for the caller.
    virtual void Work() noexcept = 0;

    // Guarded by the crew's lock.
    unsigned helpersInside = 0;
    std::condition_variable helpersLeft;
    Job * older = nullptr;

protected:
    ~Job() = default;
};

/// One call of DispatchParallelFor.
class Loop final : public Job {
public:
    Loop(Dispatch::Worker givenWorker, std::uint64_t givenCount, void * givenData)
        : worker(givenWorker), count(givenCount), data(givenData) {}

    bool HasWork() const override { return next.load(std::memory_order_relaxed) < count; }
    void Work() noexcept override {
        try {
            for (std::uint64_t index; Claim(index);)
                worker(data, index);
        } catch (...) {
            next.store(count, std::memory_order_relaxed); // the rest is skipped
            std::lock_guard const guard(lock);
            if (!failure)
                failure = std::current_exception();
        }
    }
    /// When all helpers have left.
    void ThrowFailure() {
        if (failure)
            std::rethrow_exception(std::move(failure));
    }

private:
    bool Claim(std::uint64_t & index) {
        index = next.load(std::memory_order_relaxed);
        while (index < count)
            if (next.compare_exchange_weak(index, index + 1, std::memory_order_relaxed))
                return true;
        return false;
    }

    Dispatch::Worker const worker;
    std::uint64_t const count;
    void * const data;
    // Orders nothing: what workers write reaches the caller through the crew's lock.
    std::atomic<std::uint64_t> next{0};
    std::mutex lock;            // guards the failure until all helpers have left
    std::exception_ptr failure; // the first
};

/// One call of DispatchPipeline. A helper stays while there are pieces and leaves when it has used them up: it never
/// waits for one to be made.
class Line final : public Job {
public:
    Line(Dispatch::Maker givenMake, Dispatch::Worker givenUse, void * givenData, std::uint64_t givenDepth)
        : make(givenMake), use(givenUse), data(givenData), depth(givenDepth) {}

    bool HasWork() const override { return isPieceWaiting.load(std::memory_order_relaxed); }
    void Work() noexcept override {
        std::unique_lock guard(lock);
        UsePieces(guard, std::numeric_limits<std::uint64_t>::max());
    }
    /// The caller's part: makes all pieces, and uses those for which no helper came in time.
    /// @param callHelper  called for a piece that nobody is about to use.
    template<class CallHelper>
    void Run(CallHelper callHelper) {
        while (MakeRoom() && MakePiece())
            if (HasWork())
                callHelper();
        Work();
    }
    /// When all helpers have left.
    void ThrowFailure() {
        if (failure)
            std::rethrow_exception(std::move(failure));
    }

private:
    using Guard = std::unique_lock<std::mutex>;

    /// @return false after a failure.
    bool MakeRoom() {
        Guard guard(lock);
        while (!failure && madeCount - usedCount >= depth) {
            if (isInUse)
                pieceUsed.wait(guard);
            else
                UsePieces(guard, madeCount - depth + 1);
        }
        return !failure;
    }

    bool MakePiece() {
        bool isMade = false;
        std::exception_ptr thrown;
        try {
            isMade = make(data, madeCount); // which nobody else changes
        } catch (...) {
            thrown = std::current_exception();
        }
        Guard const guard(lock);
        madeCount += isMade;
        if (thrown && !failure)
            failure = thrown;
        UpdateWaiting();
        return isMade;
    }

    /// Those below `end`, also such as are made meanwhile, unless somebody is at it already.
    void UsePieces(Guard & guard, std::uint64_t end) noexcept {
        if (isInUse)
            return;
        isInUse = true;
        while (usedCount < std::min(madeCount, end) && !failure) {
            UpdateWaiting();
            guard.unlock();
            std::exception_ptr thrown;
            try {
                use(data, usedCount); // which nobody else changes
            } catch (...) {
                thrown = std::current_exception();
            }
            guard.lock();
            ++usedCount;
            if (!failure)
                failure = thrown;
            pieceUsed.notify_one();
        }
        isInUse = false;
        UpdateWaiting();
        pieceUsed.notify_one();
    }

    void UpdateWaiting() {
        isPieceWaiting.store(usedCount < madeCount && !isInUse && !failure, std::memory_order_relaxed);
    }

    Dispatch::Maker const make;
    Dispatch::Worker const use;
    void * const data;
    std::uint64_t const depth;

    std::mutex lock; // guards what follows, but see above
    std::condition_variable pieceUsed;
    std::uint64_t madeCount = 0, usedCount = 0;
    bool isInUse = false;
    std::exception_ptr failure; // the first
    std::atomic<bool> isPieceWaiting{false};
};

unsigned GetProcessorCount() { return std::max(1u, std::thread::hardware_concurrency()); }

/// The helpers and the jobs that they may join. Its lock is a leaf of the whole process: it may be taken under any
/// other, and nothing is called while it is held.
class Crew {
public:
    /// Never destroyed: helpers may outlive every static.
    static Crew & GetInstance() {
        static Crew & instance = *new Crew;
        return instance;
    }

    unsigned GetThreadCount() const { return threadCount.load(std::memory_order_relaxed); }

    void SetThreadCount(unsigned count) {
        auto newArena = MakeArena(count);
        std::lock_guard const guard(lock);
        threadCount.store(count, std::memory_order_relaxed);
        arena.swap(newArena); // the old one goes after the guard: it was made before
    }

    void Run(Loop & loop, std::uint64_t count) {
        Open(loop);
        CallHelpers(count - 1);
        loop.Work();
        Close(loop);
        loop.ThrowFailure();
    }

    void Run(Line & line) {
        Open(line);
        line.Run([this] { CallHelpers(1); });
        Close(line);
        line.ThrowFailure();
    }

private:
    Crew() : threadCount(GetProcessorCount()), arena(MakeArena(GetThreadCount())) {}

    static std::shared_ptr<DispatchArena> MakeArena(unsigned threads) {
        return threads > 1 ? std::make_shared<DispatchArena>(threads - 1) : nullptr;
    }

    void Open(Job & job) {
        std::lock_guard const guard(lock);
        job.older = newest;
        newest = &job;
    }

    /// Asks for as many helpers as are missing, and for no more than `most`.
    void CallHelpers(std::uint64_t most) noexcept {
        std::unique_lock guard(lock);
        auto const usedArena = arena;
        auto const wanted = GetThreadCount() - 1;
        std::uint64_t missing = helperCount < wanted ? std::min<std::uint64_t>(wanted - helperCount, most) : 0;
        helperCount += static_cast<unsigned>(missing);
        guard.unlock();
        try {
            for (; missing != 0; --missing)
                usedArena->Enqueue(&Help);
        } catch (...) { // with fewer helpers the job is only slower
            guard.lock();
            helperCount -= static_cast<unsigned>(missing);
        }
    }

    /// A helper's life: joins jobs until there is none with anything to do.
    static void Help() {
        Crew & crew = GetInstance();
        std::unique_lock guard(crew.lock);
        while (Job * const job = crew.FindJob()) {
            ++job->helpersInside;
            guard.unlock();
            job->Work();
            guard.lock();
            if (--job->helpersInside == 0)
                job->helpersLeft.notify_one();
        }
        --crew.helperCount;
    }

    /// The newest first, so that a nested job, for which another one waits, is helped before its parent.
    Job * FindJob() const {
        if (helperCount > GetThreadCount() - 1)
            return nullptr; // the crew was made smaller
        Job * job = newest;
        while (job && !job->HasWork())
            job = job->older;
        return job;
    }

    void Close(Job & job) {
        std::unique_lock guard(lock);
        Job ** link = &newest;
        while (*link != &job)
            link = &(*link)->older;
        *link = job.older;
        job.helpersLeft.wait(guard, [&] { return job.helpersInside == 0; });
    }

    std::atomic<unsigned> threadCount;    // written under the lock
    std::mutex lock;                      // guards what follows
    std::shared_ptr<DispatchArena> arena; // null for one thread
    unsigned helperCount = 0;             // called and not yet gone, whether begun or not
    Job * newest = nullptr;               // the list of open jobs; each belongs to its caller
};
}

void Dispatch::DispatchParallelFor(Worker worker, std::uint64_t count, void * data, DispatchPriority) {
    LockOrder::WillCallOut();
    if (count == 0)
        return;
    Crew & crew = Crew::GetInstance();
    if (count == 1 || crew.GetThreadCount() == 1) {
        for (std::uint64_t index = 0; index < count; ++index)
            worker(data, index);
        return;
    }
    Loop loop(worker, count, data);
    crew.Run(loop, count);
}

void Dispatch::DispatchPipeline(Maker make, Worker use, void * data, std::uint64_t depth) {
    LockOrder::WillCallOut();
    Crew & crew = Crew::GetInstance();
    if (crew.GetThreadCount() == 1 || depth < 2) {
        for (std::uint64_t index = 0; make(data, index); ++index)
            use(data, index);
        return;
    }
    Line line(make, use, data, depth);
    crew.Run(line);
}

void Dispatch::SetThreadCount(unsigned count) {
    Crew::GetInstance().SetThreadCount(count == 0 ? GetProcessorCount() : count);
}

unsigned Dispatch::GetThreadCount() { return Crew::GetInstance().GetThreadCount(); }
}
