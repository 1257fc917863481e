#pragma once

#include "kernel/OutSerialiser.h"

#include <utility>

namespace Raster {
/// A strategy that is in force for a scope.
class PushedStrategy {
public:
    PushedStrategy(Kernel::OutSerialiser & outSerialiser, Kernel::Counted<Kernel::SerialisationStrategy const> strategy)
        : serialiser(outSerialiser) {
        serialiser.PushStrategy(std::move(strategy));
    }
    PushedStrategy(PushedStrategy const &) = delete;
    PushedStrategy & operator=(PushedStrategy const &) = delete;
    ~PushedStrategy() { serialiser.PopStrategy(); }

private:
    Kernel::OutSerialiser & serialiser;
};
}
