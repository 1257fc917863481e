#include "kernel/Consolidated.h"

#include "kernel/CriticalSection.h"
#include "kernel/ScopedLock.h"

#include <algorithm>
#include <typeinfo>
#include <unordered_map>
#include <vector>

namespace Kernel {
/// The process-wide table. Its lock guards `listed` and each object's `tableHash`; under it nothing is called but
/// atomics and the allocator. Destroying a listed object takes it too. The table is never destroyed: objects may
/// outlive every static.
class ConsolidationTable {
public:
    using Owners = std::vector<Counted<Consolidatable>>;

    static ConsolidationTable & GetInstance() {
        static auto & instance = *new ConsolidationTable;
        return instance;
    }

    /// Lists the object unless candidates turn up that are not in `compared`; those are appended to it, each retained.
    /// @return true if the object is listed now, by this call or by another thread's.
    bool ListUnlessNewCandidates(Consolidatable & object, std::uint64_t hash, Owners & compared, bool & wasListed) {
        ScopedLock const guard(lock);
        wasListed = object.consolidated.load(std::memory_order_relaxed);
        if (wasListed)
            return true;
        auto const known = compared.size();
        auto const [first, last] = listed.equal_range(hash);
        for (auto i = first; i != last; ++i)
            AppendIfNewAndHeld(i->second, compared, known);
        if (compared.size() != known)
            return false;
        listed.emplace(hash, Entry{&object, &object});
        object.tableHash = hash;
        object.consolidated.store(true, std::memory_order_release);
        return true;
    }

    void Unlist(Consolidatable const & object) noexcept {
        ScopedLock const guard(lock);
        auto const [first, last] = listed.equal_range(object.tableHash);
        auto const found =
            std::find_if(first, last, [&](auto const & entry) { return entry.second.object == &object; });
        if (found != last)
            listed.erase(found);
    }

private:
    // A listed object may be in its destructor, which waits in Unlist, and the way to a virtual base then changes under
    // the reader: so the base is found once, while the object is whole.
    struct Entry {
        Consolidatable * object;
        Countable const * counter;
    };

    static void AppendIfNewAndHeld(Entry const & candidate, Owners & compared, std::size_t known) {
        auto const end = compared.begin() + static_cast<std::ptrdiff_t>(known);
        if (std::find(compared.begin(), end, candidate.object) != end)
            return;
        compared.emplace_back(); // first, so that a failure to allocate leaves no count behind
        if (candidate.counter->RetainIfHeld())
            compared.back() = Counted<Consolidatable>::Adopt(candidate.object);
        else
            compared.pop_back();
    }

    CriticalSection lock{LockRank::Consolidation};
    std::unordered_multimap<std::uint64_t, Entry> listed;
};

Consolidatable::~Consolidatable() {
    if (IsConsolidated())
        ConsolidationTable::GetInstance().Unlist(*this);
}

namespace {
bool AreEqual(Consolidatable const & one, Consolidatable const & other) {
    return typeid(one) == typeid(other) && one.IsEqualTo(other);
}
}

Counted<Consolidatable const> ConsolidateObject(Counted<Consolidatable> object) {
    if (!object || object->IsConsolidated())
        return object;
    auto const hash = object->GetConsolidationHash();
    auto & table = ConsolidationTable::GetInstance();
    // Comparisons run outside the lock, so every return to the table can meet objects listed meanwhile. Those compared
    // stay retained: their addresses can't come back as other objects.
    ConsolidationTable::Owners compared;
    bool wasListed = false;
    for (std::size_t next = 0; !table.ListUnlessNewCandidates(*object, hash, compared, wasListed);)
        for (; next < compared.size(); ++next)
            if (AreEqual(*object, *compared[next]))
                return compared[next];
    if (!wasListed)
        object->OnConsolidated();
    return object;
}
}
