#pragma once

#include "kernel/Countable.h"
#include "kernel/Counted.h"

#include <cstddef>
#include <vector>

namespace Kernel {
/// Base of what a saver tells the objects that it saves, such as which parts to leave out. The serialiser carries a
/// stack of these; each object looks for the kind that it knows.
class RASTER_API SerialisationStrategy : public virtual Countable {
public:
    ~SerialisationStrategy() override;
};

/// The strategies in force, the latest on top. Belongs to one thread.
class RASTER_API SerialisationStrategyStack {
public:
    void Push(Counted<SerialisationStrategy const> strategy);
    /// Takes the topmost one off. On an empty stack: nothing.
    void Pop() noexcept;
    std::size_t GetCount() const noexcept { return strategies.size(); }

    /// The topmost strategy that is a `T`, or null. It stays the stack's.
    template<class T>
    T const * Find() const noexcept {
        for (auto i = strategies.rbegin(); i != strategies.rend(); ++i)
            if (auto const found = dynamic_cast<T const *>(i->Get()))
                return found;
        return nullptr;
    }

private:
    std::vector<Counted<SerialisationStrategy const>> strategies;
};
}
