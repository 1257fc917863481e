#pragma once

#include "kernel/ClassProperties.h"
#include "kernel/Countable.h"

namespace Kernel {
class FileStore;
class HashAccumulator;
class InSerialiser;
class OutSerialiser;

/// Base of what is stored in documents as a set of tagged properties.
class RASTER_API Serialisable : public virtual Countable {
public:
    Serialisable() noexcept = default;
    Serialisable(Serialisable const & other) noexcept : Countable(other) {}
    Serialisable & operator=(Serialisable const &) noexcept { return *this; }
    ~Serialisable() override;

    /// Writes the properties. Exceptions of the stream pass through.
    virtual void Save(OutSerialiser & serialiser) const = 0;
    /// Reads the properties that are there and leaves the rest as constructed.
    /// @param version  the schema version that the object was written with.
    /// @return false if the object is of no use.
    virtual bool Load(InSerialiser const & serialiser, FileStore & store, unsigned short version) = 0;
    virtual ClassPropertiesBase const & GetObjectClassProperties() const = 0;
    /// Adds everything that `CompareMembers` compares. The default adds nothing.
    virtual void AccumulateHash(HashAccumulator & accumulator) const;
    /// Whether an object of the same class has the same value. By default only the object itself has.
    virtual bool CompareMembers(Serialisable const & other) const;
};
}
