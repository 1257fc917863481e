#include "kernel/InSerialiserFile.h"

#include "kernel/FileStore.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InStream.h"
#include "kernel/PropertyStream.h"

#include <algorithm>
#include <utility>

namespace Kernel {
using PropertyStream::ReadAt;

namespace {
using Bytes = std::span<std::uint8_t const>;

[[noreturn]] void Fail(char const * what) { throw PropertyStreamError(what); }

// Memory grows with what is really there, not with what a size claims.
std::vector<std::uint8_t> ReadToEnd(InStream & stream) {
    constexpr std::uint64_t piece = 16 << 20;
    std::vector<std::uint8_t> bytes;
    for (;;) {
        std::uint64_t const size = stream.GetSize(), position = stream.Tell();
        std::uint64_t const wanted = std::clamp<std::uint64_t>(size > position ? size - position : 0, 1, piece);
        std::size_t const before = bytes.size();
        bytes.resize(before + static_cast<std::size_t>(wanted));
        auto const got = stream.Read(bytes.data() + before, wanted);
        bytes.resize(before + static_cast<std::size_t>(got));
        if (got < wanted)
            return bytes;
    }
}

// All of these add the items that are referred to, unless `references` is null.
using References = std::vector<ItemID>;
void CheckRecords(Bytes records, int depth, References * references);

void CheckObject(Bytes content, int depth, References * references) {
    if (content.size() < PropertyStream::objectHeaderBytes)
        Fail("an object is shorter than its header");
    CheckRecords(content.subspan(PropertyStream::objectHeaderBytes), depth + 1, references);
}

void CheckArray(Bytes content, int depth, References * references) {
    if (content.size() < sizeof(std::uint64_t))
        Fail("an array is shorter than its header");
    auto const count = ReadAt<std::uint64_t>(content.data());
    auto rest = content.subspan(sizeof(std::uint64_t));
    if (count > rest.size() / (sizeof(std::uint64_t) + PropertyStream::objectHeaderBytes))
        Fail("an array has fewer objects than it says");
    for (std::uint64_t i = 0; i < count; ++i) {
        if (rest.size() < sizeof(std::uint64_t))
            Fail("an array ends within an object");
        auto const length = ReadAt<std::uint64_t>(rest.data());
        rest = rest.subspan(sizeof(std::uint64_t));
        if (length > rest.size())
            Fail("an object reaches beyond its array");
        CheckObject(rest.first(static_cast<std::size_t>(length)), depth, references);
        rest = rest.subspan(static_cast<std::size_t>(length));
    }
    if (!rest.empty())
        Fail("an array has bytes behind its objects");
}

void CheckContent(std::uint32_t type, Bytes content, int depth, References * references) {
    switch (type) {
    case static_cast<std::uint32_t>(PropType::Object):
    case static_cast<std::uint32_t>(PropType::Class):
        return CheckObject(content, depth, references);
    case static_cast<std::uint32_t>(PropType::ObjectArray):
        return CheckArray(content, depth, references);
    case static_cast<std::uint32_t>(PropType::SharedObject):
    case static_cast<std::uint32_t>(PropType::DelayLoadObject):
        if (references && content.size() == 2 * sizeof(std::uint64_t))
            references->push_back({ReadAt<std::uint64_t>(content.data()), ReadAt<std::uint64_t>(content.data() + 8)});
        return;
    default:
        return;
    }
}

void CheckRecords(Bytes records, int depth, References * references) {
    if (depth > PropertyStream::deepest)
        Fail("objects are nested too deeply");
    while (!records.empty()) {
        if (records.size() < PropertyStream::recordHeaderBytes)
            Fail("a record is shorter than its header");
        auto const type = ReadAt<std::uint32_t>(records.data() + 4);
        auto const length = ReadAt<std::uint64_t>(records.data() + 8);
        records = records.subspan(PropertyStream::recordHeaderBytes);
        if (length > records.size())
            Fail("a record reaches beyond its object");
        CheckContent(type, records.first(static_cast<std::size_t>(length)), depth, references);
        records = records.subspan(static_cast<std::size_t>(length));
    }
}

void CheckHeader(Bytes bytes, bool acceptFutureVersions, unsigned short newestRootVersion) {
    if (bytes.size() < PropertyStream::streamHeaderBytes ||
        ReadAt<std::uint32_t>(bytes.data()) != PropertyStream::magic)
        Fail("not a stream of properties");
    bool const isFuture = ReadAt<std::uint16_t>(bytes.data() + 4) > PropertyStream::version ||
                          ReadAt<std::uint16_t>(bytes.data() + 6) > newestRootVersion;
    if (isFuture && !acceptFutureVersions)
        throw FutureVersionException();
}
}

PropertyStreamError::~PropertyStreamError() = default;

Counted<InSerialiserFile const> InSerialiserFile::ParseWithChecks(InStream & stream, FileStore & store,
                                                                  bool acceptFutureVersions,
                                                                  unsigned short newestRootVersion, int depth) {
    auto bytes = ReadToEnd(stream);
    CheckHeader(bytes, acceptFutureVersions, newestRootVersion);
    CheckRecords(Bytes(bytes).subspan(PropertyStream::streamHeaderBytes), depth, nullptr);
    return MakeCounted<InSerialiserFile>(std::move(bytes), store, depth);
}

std::vector<ItemID> InSerialiserFile::FindReferences(Bytes stream) {
    CheckHeader(stream, /*acceptFutureVersions=*/false, std::numeric_limits<unsigned short>::max());
    std::vector<ItemID> references;
    CheckRecords(stream.subspan(PropertyStream::streamHeaderBytes), 0, &references);
    return references;
}

InSerialiserFile::InSerialiserFile(std::vector<std::uint8_t> streamBytes, FileStore & fileStore, int objectDepth)
    : InSerialiser({}, objectDepth), bytes(std::move(streamBytes)), store(&fileStore),
      rootTag(IDTag::FromValue(ReadAt<std::uint32_t>(bytes.data() + 8))),
      rootVersion(ReadAt<std::uint16_t>(bytes.data() + 6)) {
    records = Bytes(bytes).subspan(PropertyStream::streamHeaderBytes);
    store->BeginLoading();
}

InSerialiserFile::~InSerialiserFile() { store->EndLoading(); }
}
