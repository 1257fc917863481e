#pragma once

#include "kernel/OutSerialiser.h"

namespace Kernel {
class OutStream;

/// A full save into a stream, which is given the records as they become complete.
class RASTER_API OutSerialiserFile final : public OutSerialiser {
public:
    /// Stream and store outlive the serialiser. Throws what the stream throws.
    OutSerialiserFile(OutStream & outStream, FileStoreOut & itemStore, IDTag rootTag, unsigned short version);
    void Close() override;

private:
    void WriteOut(void const * bytes, std::uint64_t size) override;

    OutStream & stream;
};

/// Goes through an object for the items that it refers to, and writes nothing.
class RASTER_API OutSerialiserPaths final : public OutSerialiser {
public:
    explicit OutSerialiserPaths(FileStoreOut & itemStore) : OutSerialiser(Kind::PathsOnly, itemStore) {}
    void Close() override {}

private:
    void WriteOut(void const *, std::uint64_t) override {}
};
}
