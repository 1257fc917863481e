#include "kernel/Dispatch.h"

#include "kernel/DispatchArena.h"
#include "kernel/LockOrder.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace Kernel {
namespace {
/// One call of DispatchParallelFor. Lives on the caller's stack: a helper counts itself in, under the crew's lock,
/// before it touches the job, and the caller leaves only when all are out again.
struct Job {
    Job(Dispatch::Worker givenWorker, std::uint64_t givenCount, void * givenData)
        : worker(givenWorker), count(givenCount), data(givenData) {}

    bool Claim(std::uint64_t & index) {
        index = next.load(std::memory_order_relaxed);
        while (index < count)
            if (next.compare_exchange_weak(index, index + 1, std::memory_order_relaxed))
                return true;
        return false;
    }
    bool HasIndices() const { return next.load(std::memory_order_relaxed) < count; }
    void SkipTheRest() { next.store(count, std::memory_order_relaxed); }

    Dispatch::Worker const worker;
    std::uint64_t const count;
    void * const data;
    // Orders nothing: what workers write reaches the caller through the crew's lock.
    std::atomic<std::uint64_t> next{0};

    // Guarded by the crew's lock.
    unsigned helpersInside = 0;
    std::condition_variable helpersLeft;
    std::exception_ptr failure; // the first
    Job * older = nullptr;
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

    void Run(Job & job) {
        CallHelpers(job);
        RunIndices(job);
        Close(job);
        if (job.failure)
            std::rethrow_exception(std::move(job.failure));
    }

private:
    Crew() : threadCount(GetProcessorCount()), arena(MakeArena(GetThreadCount())) {}

    static std::shared_ptr<DispatchArena> MakeArena(unsigned threads) {
        return threads > 1 ? std::make_shared<DispatchArena>(threads - 1) : nullptr;
    }

    /// Lists the job and asks for as many helpers as are missing and could find an index.
    void CallHelpers(Job & job) {
        std::unique_lock guard(lock);
        job.older = newest;
        newest = &job;
        auto const usedArena = arena;
        auto const wanted = GetThreadCount() - 1;
        std::uint64_t missing = helperCount < wanted ? std::min<std::uint64_t>(wanted - helperCount, job.count - 1) : 0;
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

    /// A helper's life: joins jobs until there is none with indices left.
    static void Help() {
        Crew & crew = GetInstance();
        std::unique_lock guard(crew.lock);
        while (Job * const job = crew.FindJob()) {
            ++job->helpersInside;
            guard.unlock();
            crew.RunIndices(*job);
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
        while (job && !job->HasIndices())
            job = job->older;
        return job;
    }

    void RunIndices(Job & job) {
        try {
            for (std::uint64_t index; job.Claim(index);)
                job.worker(job.data, index);
        } catch (...) {
            job.SkipTheRest();
            std::lock_guard const guard(lock);
            if (!job.failure)
                job.failure = std::current_exception();
        }
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
    Job job(worker, count, data);
    crew.Run(job);
}

void Dispatch::SetThreadCount(unsigned count) {
    Crew::GetInstance().SetThreadCount(count == 0 ? GetProcessorCount() : count);
}

unsigned Dispatch::GetThreadCount() { return Crew::GetInstance().GetThreadCount(); }
}
