/// A small kind of document for tests of archives: blobs of bytes under one label.
#pragma once

#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ClassProperties.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/OutStream.h"
#include "kernel/ScopedLock.h"
#include "kernel/SharedSerialisable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace AlbumForTests {
using namespace Kernel;

/// An item of bytes.
class Blob final : public FileStoreItem {
public:
    std::vector<std::uint8_t> bytes;

    static FileStoreItemType const & GetType() {
        static FileStoreItemType const type("Blob", ItemNesting::NotNestable, ItemRecovery::Recoverable,
                                            [] { return Counted<FileStoreItem>(new Blob); });
        return type;
    }
    FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
    void Save(OutStream & stream, FileStoreOut &) const override { stream.WriteAll(bytes.data(), bytes.size()); }
    bool Load(InStream & stream, FileStore &) override {
        bytes.resize(stream.GetSize());
        return stream.ReadAll(bytes.data(), bytes.size());
    }
};

class Label final : public SharedSerialisable {
public:
    StringUtf8 text;

    static SharedClassProperties const & GetClassProperties() {
        static SharedClassProperties const properties("Labl", 1, [] { return Counted<Serialisable>(new Label); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser & serialiser) const override { serialiser.SaveType("Text", text); }
    bool Load(InSerialiser const & serialiser, FileStore &, unsigned short) override {
        return serialiser.LoadType("Text", text);
    }
    void AccumulateHash(HashAccumulator & accumulator) const override { accumulator.AddToHash(text.GetView()); }
    bool CompareMembers(Serialisable const & other) const override {
        return static_cast<Label const &>(other).text == text;
    }
};

/// A document of numbered blobs under one label.
class Album final : public Serialisable {
public:
    std::vector<Counted<DelayLoadHolder>> blobs;
    Consolidated<Label> label;

    static ClassProperties const & GetClassProperties() {
        static ClassProperties const properties("Albm", 1, [] { return Counted<Serialisable>(new Album); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    static IDTag TagOf(std::size_t i) {
        return {'B', static_cast<char>('0' + i / 100 % 10), static_cast<char>('0' + i / 10 % 10),
                static_cast<char>('0' + i % 10)};
    }
    void Save(OutSerialiser & serialiser) const override {
        serialiser.SaveType("Coun", static_cast<std::uint32_t>(blobs.size()));
        FileStoreCompressionHintGeneral const hint(1, CompressionPredictor::Bytes1, CompressionStriping::Rows256);
        for (std::size_t i = 0; i < blobs.size(); ++i)
            serialiser.SaveDelayLoadObject(TagOf(i), blobs[i].Get(), FileStoreOutIndexedPathGenerator("", "b/"), &hint);
        serialiser.SaveSharedObject("Labl", label.Get());
    }
    bool Load(InSerialiser const & serialiser, FileStore & store, unsigned short) override {
        std::uint32_t count = 0;
        serialiser.LoadType("Coun", count);
        blobs.resize(std::min(count, 1000u));
        for (std::size_t i = 0; i < blobs.size(); ++i)
            serialiser.LoadDelayLoadObject(TagOf(i), store, Blob::GetType(), blobs[i]);
        serialiser.LoadSharedObject("Labl", store, label);
        return true;
    }
};

inline std::vector<std::uint8_t> MakeBytes(unsigned seed, std::size_t size = 65536) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(i / 7 + random() % 4);
    return bytes;
}

inline Counted<Blob> MakeBlob(std::vector<std::uint8_t> bytes) {
    auto blob = MakeCounted<Blob>();
    blob->bytes = std::move(bytes);
    return blob;
}

inline Album MakeAlbum(std::size_t count, unsigned seed = 1) {
    Album album;
    for (std::size_t i = 0; i < count; ++i)
        album.blobs.push_back(
            DelayLoadHolder::Create(Blob::GetType(), MakeBlob(MakeBytes(seed + static_cast<unsigned>(i)))));
    auto label = MakeCounted<Label>();
    label->text = "An album";
    album.label = Consolidated<Label>::ConsolidateObjectSacrifice(label);
    return album;
}

inline std::vector<std::uint8_t> BytesOf(Counted<DelayLoadHolder> const & holder) {
    DelayLoadHolder::TempLoadItem const temp(holder);
    auto const * const blob = temp.GetItemAs<Blob>();
    return blob ? blob->bytes : std::vector<std::uint8_t>();
}

inline void Change(Counted<DelayLoadHolder> const & holder, std::vector<std::uint8_t> bytes) {
    ScopedLock const guard(*holder);
    ASSERT_TRUE(holder->LoadItemI());
    auto & blob = dynamic_cast<Blob &>(*holder->GetItem());
    blob.bytes = std::move(bytes);
    blob.GetState().MarkAsDirty();
}

struct SaveCounts {
    std::uint64_t items, bytes;
};
inline SaveCounts Save(Counted<Archive> const & archive, Album const & album,
                       ArchiveSaveMode mode = ArchiveSaveMode::Update) {
    auto session = archive->CreateSession(mode);
    session->StoreObject("Album.dat", album);
    auto const counts = archive->CloseSession(std::move(session));
    return {counts.itemsAdded, counts.bytesWritten};
}

inline Album Load(Counted<Archive> const & archive) {
    Label::GetClassProperties().Init();
    auto const stream = archive->OpenStream("Album.dat");
    Album album;
    if (stream)
        album.Load(*InSerialiserFile::ParseWithChecks(*stream, *archive, false), *archive, 1);
    return album;
}

inline void ExpectSame(Album const & a, Album const & b) {
    ASSERT_EQ(a.blobs.size(), b.blobs.size());
    for (std::size_t i = 0; i < a.blobs.size(); ++i)
        EXPECT_EQ(BytesOf(a.blobs[i]), BytesOf(b.blobs[i])) << i;
    EXPECT_EQ(a.label, b.label);
}
}
