#include "kernel/SerialisationStrategy.h"

namespace Kernel {
SerialisationStrategy::~SerialisationStrategy() = default;

void SerialisationStrategyStack::Push(Counted<SerialisationStrategy const> strategy) {
    strategies.push_back(std::move(strategy));
}

void SerialisationStrategyStack::Pop() noexcept {
    if (!strategies.empty())
        strategies.pop_back();
}
}
