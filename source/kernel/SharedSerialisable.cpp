#include "kernel/SharedSerialisable.h"

#include "kernel/HashAccumulator.h"

namespace Kernel {
SharedSerialisable::~SharedSerialisable() = default;

std::uint64_t SharedSerialisable::GetConsolidationHash() const {
    HashAccumulator accumulator;
    accumulator.AddToHash(GetObjectClassProperties().GetClassUID().GetValue());
    AccumulateHash(accumulator);
    return accumulator.GetHash();
}

bool SharedSerialisable::IsEqualTo(Consolidatable const & other) const {
    auto const * const object = dynamic_cast<SharedSerialisable const *>(&other);
    return object && CompareMembers(*object);
}
}
