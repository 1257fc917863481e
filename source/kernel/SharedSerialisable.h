#pragma once

#include "kernel/Consolidated.h"
#include "kernel/Serialisable.h"

namespace Kernel {
/// Base of immutable objects that a process and a file keep once, however many others refer to them. Hash and equality
/// are those of `AccumulateHash` and `CompareMembers`, which a derived class must give; `CompareMembers` gets objects
/// of its own class only.
class RASTER_API SharedSerialisable : public Serialisable, public Consolidatable {
public:
    SharedSerialisable() noexcept = default;
    SharedSerialisable(SharedSerialisable const &) noexcept = default;
    SharedSerialisable & operator=(SharedSerialisable const &) noexcept = default;
    ~SharedSerialisable() override;

    void AccumulateHash(HashAccumulator & accumulator) const override = 0;
    bool CompareMembers(Serialisable const & other) const override = 0;

    std::uint64_t GetConsolidationHash() const final;
    bool IsEqualTo(Consolidatable const & other) const final;
};
}
