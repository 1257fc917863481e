#pragma once

#include "kernel/Countable.h"
#include "kernel/InSerialiser.h"

#include <limits>
#include <stdexcept>
#include <vector>

namespace Kernel {
class InStream;

/// A stream holds no properties, or broken ones. The text says what is wrong with it.
class RASTER_API PropertyStreamError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    ~PropertyStreamError() override;
};

/// The properties of a stream, all of whose bytes are kept in memory.
class RASTER_API InSerialiserFile final : public Countable, public InSerialiser {
public:
    /// Reads the stream from its position to its end and checks the form of everything in it: lengths against what
    /// they lie in, counts against the bytes that are there, depth. Throws `PropertyStreamError` for what isn't whole,
    /// and `FutureVersionException` for a stream or a root of a later version than is known.
    /// @param acceptFutureVersions  reads what can be recognised of those.
    /// @param newestRootVersion  that the caller knows.
    static Counted<InSerialiserFile const>
    ParseWithChecks(InStream & stream, FileStore & store, bool acceptFutureVersions,
                    unsigned short newestRootVersion = std::numeric_limits<unsigned short>::max(), int depth = 0);

    /// The items that a stream refers to, anywhere in it; may repeat. Throws as `ParseWithChecks` does.
    static std::vector<ItemID> FindReferences(std::span<std::uint8_t const> stream);

    ~InSerialiserFile() override;

    IDTag GetRootTag() const noexcept { return rootTag; }
    unsigned short GetRootVersion() const noexcept { return rootVersion; }
    /// The store that was given, in which the stream's references are looked up.
    FileStore & GetStore() const noexcept { return *store; }

private:
    template<class T, class... Arguments>
    friend Counted<T> MakeCounted(Arguments &&... arguments);
    InSerialiserFile(std::vector<std::uint8_t> streamBytes, FileStore & fileStore, int objectDepth);

    std::vector<std::uint8_t> bytes;
    Counted<FileStore> store;
    IDTag rootTag;
    unsigned short rootVersion;
};
}
