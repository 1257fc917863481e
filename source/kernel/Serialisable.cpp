#include "kernel/Serialisable.h"

namespace Kernel {
Serialisable::~Serialisable() = default;

void Serialisable::AccumulateHash(HashAccumulator &) const {}

bool Serialisable::CompareMembers(Serialisable const & other) const { return this == &other; }
}
