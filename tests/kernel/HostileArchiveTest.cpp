// Files whose checksums are all right and whose content is meant to hurt.
#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveError.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"
#include "kernel/ItemCodec.h"
#include "kernel/MemoryDisk.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/PropertyStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zstd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <unordered_set>

using namespace Kernel;
using namespace Kernel::ArchiveLayout;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
constexpr FileID fileID{1234, 5678};

/// Bytes that count how often they are read.
class CountingFile final : public ArchiveFile {
public:
    explicit CountingFile(std::vector<std::uint8_t> content) : bytes(std::move(content)) {}

    std::uint64_t Read(std::uint64_t offset, void * dest, std::uint64_t size) const override {
        offset = std::min<std::uint64_t>(offset, bytes.size());
        size = std::min<std::uint64_t>(size, bytes.size() - offset);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), size, static_cast<std::uint8_t *>(dest));
        bytesRead += size;
        ++reads;
        return size;
    }
    std::optional<std::uint64_t> GetSize() const override { return bytes.size(); }
    bool Write(std::uint64_t, void const *, std::uint64_t) override { return false; }
    bool Truncate(std::uint64_t) override { return false; }
    bool Sync() override { return false; }
    bool Lock() override { return false; }
    void Unlock() override {}
    bool IsAt(std::string const &) const override { return false; }

    mutable std::uint64_t bytesRead = 0, reads = 0;

private:
    std::vector<std::uint8_t> bytes;
};

template<class Part>
void Append(std::vector<std::uint8_t> & file, Part const & part) {
    file.insert(file.end(), part.begin(), part.end());
}

std::vector<std::uint8_t> StartFile() {
    std::vector<std::uint8_t> file;
    Append(file, Header{containerVersion, "Test", fileID}.Encode());
    return file;
}

/// An item to be written, and what the list of contents says of it.
struct Item {
    ItemHeader header;
    Entry entry;
    std::vector<std::uint8_t> payload;
};

Item MakeItem(std::uint64_t number, IDTag type, char const * name, std::vector<std::uint8_t> payload,
              std::vector<ItemID> references = {}) {
    Item item;
    auto & header = item.header;
    header.id = {77, number};
    header.type = type;
    header.name = name;
    header.rawSize = header.storedSize = payload.size();
    header.rawHash = GetHash128(payload.data(), payload.size());
    header.storedHash = Hash64(payload.data(), payload.size());
    header.references = std::move(references);
    item.entry = {
        header.id,   0,          header.GetEncodedSize(), header.storedSize, header.rawSize, header.rawHash.low,
        header.type, header.name};
    item.payload = std::move(payload);
    return item;
}

// A document of one commit. The entries' offsets are filled in.
std::vector<std::uint8_t> MakeFile(std::vector<Item> & items, std::vector<Entry> const & further = {}) {
    auto file = StartFile();
    std::vector<Entry> entries;
    for (auto & [header, entry, payload] : items) {
        file.resize(AlignUp(file.size(), itemAlignment));
        entry.offset = file.size();
        entries.push_back(entry);
        header.Encode(file);
        Append(file, payload);
    }
    for (auto const & entry : further)
        entries.push_back(entry);
    file.resize(AlignUp(file.size(), footerBytes));
    auto const index = EncodeIndex(entries);
    Footer footer;
    footer.commitNumber = 1;
    footer.fileID = fileID.low;
    footer.indexOffset = file.size();
    footer.indexSize = index.size();
    footer.indexHash = Hash64(index.data(), index.size());
    footer.offset = Footer::GetOffset(footer.indexOffset, index.size());
    Append(file, index);
    file.resize(footer.GetSecondIndexOffset());
    Append(file, index);
    file.resize(footer.offset);
    Append(file, footer.Encode());
    return file;
}

Counted<MemoryDisk> MakeDisk(std::vector<std::uint8_t> file) {
    return MakeCounted<MemoryDisk>(MemoryDisk::Files{{"hostile.doc", std::move(file)}});
}

std::vector<std::string> Verify(Counted<MemoryDisk> const & disk) {
    std::vector<std::string> problems;
    for (auto const & problem : VerifyArchive("hostile.doc", nullptr, nullptr, nullptr, disk).problems)
        problems.push_back(problem.what);
    return problems;
}

/// A file of several commits that is put together piece by piece.
class HostileFile {
public:
    void AddItem(Item item) {
        bytes.resize(AlignUp(bytes.size(), itemAlignment));
        item.entry.offset = bytes.size();
        entries.push_back(item.entry);
        item.header.Encode(bytes);
        Append(bytes, item.payload);
    }
    void AddStream(std::uint64_t number = 1, char const * name = "Main.dat") {
        AddItem(MakeItem(number, ArchiveTags::stream, name, {1, 2, 3}));
    }

    void AddCommit() { AddCommit(EncodeIndex(entries)); }
    /// Of a list that may be anything. Its two copies stand as near to each other as they can.
    void AddCommit(std::vector<std::uint8_t> const & list) {
        bytes.resize(AlignUp(bytes.size(), footerBytes));
        Footer footer;
        footer.commitNumber = ++commitNumber;
        footer.fileID = fileID.low;
        footer.previous = lastFooter;
        footer.indexOffset = bytes.size();
        footer.indexSize = list.size();
        footer.indexHash = Hash64(list.data(), list.size());
        for (int copy = 0; copy < 2; ++copy) {
            Append(bytes, list);
            bytes.resize(AlignUp(bytes.size(), footerBytes));
        }
        bytes.resize(bytes.size() + footerDistance);
        footer.offset = lastFooter = bytes.size();
        Append(bytes, footer.Encode());
    }

    Counted<ArchiveSnapshot const> Open() const {
        return ArchiveSnapshot::Open("hostile.doc", MakeCounted<CountingFile>(bytes), "Test");
    }

    std::vector<std::uint8_t> bytes = StartFile();
    std::vector<Entry> entries;
    std::uint32_t commitNumber = 0;

private:
    std::uint64_t lastFooter = 0;
};

/// A list that fits its checksum, says how large it is, and is none.
std::vector<std::uint8_t> MakeNonsense(std::uint64_t contentSize) {
    auto list = EncodeIndex({});
    PropertyStream::WriteAt(list.data() + 8, contentSize);
    return list;
}

// A document of one item, the header of which a test has a word in.
Counted<ArchiveSnapshot const> OpenWithItem(std::function<void(ItemHeader & header, Entry & entry)> const & change) {
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3})};
    change(items[0].header, items[0].entry);
    return ArchiveSnapshot::Open("hostile.doc", MakeCounted<CountingFile>(MakeFile(items)), "Test");
}

// The bytes of a stream of properties.
class NoItems final : public FileStoreOut {
public:
    ItemID StoreItem(DelayLoadHolder &, FileStoreOutPathGenerator const &, FileStoreCompressionHint const *) override {
        return {};
    }
    ItemID StoreSharedObject(SharedSerialisable const &) override { return {}; }
};
std::vector<std::uint8_t> MakeStream(IDTag root, std::function<void(OutSerialiser &)> const & save) {
    auto const stream = MakeCounted<MemoryOutStream>();
    auto const store = MakeCounted<NoItems>();
    OutSerialiserFile serialiser(*stream, *store, root, 1);
    save(serialiser);
    serialiser.Close();
    return stream->TakeData();
}
void SaveReference(OutSerialiser & out, IDTag tag, PropType type, ItemID id) {
    std::uint8_t bytes[16];
    PropertyStream::WriteAt(bytes, id.commit);
    PropertyStream::WriteAt(bytes + 8, id.number);
    out.SaveTypeI(tag, type, bytes, sizeof bytes);
}

// A shared object that refers to others like it, and to an item.
class Link final : public SharedSerialisable {
public:
    Counted<SharedSerialisable> first, second;
    Counted<DelayLoadHolder> item;
    static inline int loads = 0;

    static SharedClassProperties const & GetClassProperties() {
        static SharedClassProperties const properties("Link", 1, [] { return Counted<Serialisable>(new Link); });
        return properties;
    }
    ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(OutSerialiser &) const override {}
    bool Load(InSerialiser const & in, FileStore & store, unsigned short) override {
        ++loads;
        in.LoadSharedObjectI("Frst", store, GetClassProperties(), first);
        in.LoadSharedObjectI("Scnd", store, GetClassProperties(), second);
        in.LoadDelayLoadObject("Item", store, AlbumForTests::Blob::GetType(), item);
        return true;
    }
    void AccumulateHash(HashAccumulator &) const override {}
    bool CompareMembers(Serialisable const & other) const override { return this == &other; }
};

Item MakeLink(std::uint64_t number, ItemID first, ItemID second) {
    auto const bytes = MakeStream("Link", [&](OutSerialiser & out) {
        SaveReference(out, "Frst", PropType::SharedObject, first);
        SaveReference(out, "Scnd", PropType::SharedObject, second);
    });
    return MakeItem(number, ArchiveTags::sharedObject, "s/", bytes, {first, second});
}
}

TEST(HostileArchive, ItemOfAnUnknownCodecTakesNoMemory) {
    auto const snapshot = OpenWithItem([](ItemHeader & header, Entry & entry) {
        header.codec = static_cast<Codec>(9);
        header.rawSize = entry.rawSize = std::uint64_t(1) << 35;
    });
    EXPECT_THROW(snapshot->GetReader().ReadRaw(snapshot->GetEntries()[0]), ArchiveError);
}

// Whether an item has references is told from its name's length, so a wrong name would hide them.
TEST(HostileArchive, ItemUnderTheNameOfAnotherIsDamaged) {
    auto const whole = OpenWithItem([](ItemHeader &, Entry &) {});
    EXPECT_EQ(whole->GetReader().ReadRaw(whole->GetEntries()[0]).size(), 3u);
    auto const renamed = OpenWithItem([](ItemHeader &, Entry & entry) { entry.name = "Else.dat"; });
    EXPECT_THROW(renamed->GetReader().ReadRaw(renamed->GetEntries()[0]), ArchiveError);
}

// What was stored is what was to be stored, but not what the item held: a writer's memory has failed.
TEST(HostileArchive, ContentThatDoesNotFitItsChecksumIsFoundAndNotSalvaged) {
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3}),
                            MakeItem(2, ArchiveTags::stream, "Else.dat", {4, 5, 6})};
    EXPECT_THAT(Verify(MakeDisk(MakeFile(items))), IsEmpty());
    ++items[0].header.rawHash.high; // the list knows the low half
    auto const disk = MakeDisk(MakeFile(items));
    EXPECT_THAT(Verify(disk), ElementsAre(HasSubstr("Main.dat")));
    auto const salvage = SalvageArchive("hostile.doc", "saved.doc", nullptr, nullptr, nullptr, disk);
    EXPECT_EQ(salvage.itemsSaved, 1u);
    EXPECT_EQ(salvage.itemsLost, 1u);
    auto const saved = Archive::Open("saved.doc", "Test", disk);
    EXPECT_FALSE(saved->HasStream("Main.dat"));
    EXPECT_TRUE(saved->HasStream("Else.dat"));
}

// An item says that it has the checksum of another content, which then is to be stored: it is no reason to leave it
// out.
TEST(HostileArchive, ItemThatClaimsTheChecksumOfAnotherStandsInForNone) {
    std::vector<std::uint8_t> const content{9, 8, 7}, other{1, 2, 3};
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3}),
                            MakeItem(2, AlbumForTests::Blob::GetType().GetTag(), "b/0", other)};
    items[1].header.rawHash = GetHash128(content.data(), content.size());
    items[1].entry.rawHash = items[1].header.rawHash.low;
    auto const disk = MakeDisk(MakeFile(items));
    AlbumForTests::Album album;
    album.blobs.push_back(DelayLoadHolder::Create(AlbumForTests::Blob::GetType(), AlbumForTests::MakeBlob(content)));
    AlbumForTests::Save(Archive::Open("hostile.doc", "Test", disk), album);
    auto const loaded = AlbumForTests::Load(Archive::Open("hostile.doc", "Test", disk));
    ASSERT_EQ(loaded.blobs.size(), 1u);
    EXPECT_EQ(AlbumForTests::BytesOf(loaded.blobs[0]), content);
}

// It may mean anything, so that nobody takes it apart either.
TEST(HostileArchive, FileOfALaterVersionIsNeitherOpenedNorSalvaged) {
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3})};
    auto file = MakeFile(items);
    auto const header = Header{containerVersion + 1, "Test", fileID}.Encode();
    std::copy(header.begin(), header.end(), file.begin());
    auto const disk = MakeDisk(file);
    auto const getKind = [](auto const & call) {
        try {
            call();
        } catch (ArchiveError const & error) {
            return error.GetKind();
        }
        return ArchiveError::Kind::NotFound;
    };
    EXPECT_EQ(getKind([&] { Archive::Open("hostile.doc", "Test", disk); }), ArchiveError::Kind::Future);
    EXPECT_EQ(getKind([&] { SalvageArchive("hostile.doc", "saved.doc", nullptr, nullptr, nullptr, disk); }),
              ArchiveError::Kind::Future);
}

// A list that checks, but is not the one that the footer was written for.
TEST(HostileArchive, ListThatDoesNotFitItsFooterIsNone) {
    HostileFile file;
    file.AddStream();
    file.AddCommit();
    file.AddStream(2, "Else.dat");
    auto const begin = file.bytes.size();
    file.AddCommit();
    ASSERT_EQ(file.Open()->GetFooter().commitNumber, 2u);
    auto const list = EncodeIndex(file.entries);
    int copies = 0;
    for (auto at = begin; at + list.size() <= file.bytes.size(); ++at)
        if (std::equal(list.begin(), list.end(), file.bytes.begin() + static_cast<std::ptrdiff_t>(at))) {
            file.bytes[at + 5] ^= 1; // the list's own checksum is of its entries only
            ++copies;
        }
    ASSERT_EQ(copies, 2);
    EXPECT_EQ(file.Open()->GetFooter().commitNumber, 1u);
}

// Each footer is good and names the whole file before it as its list of contents, which is none.
TEST(HostileArchive, ManyFootersAreNotReadManyTimes) {
    for (bool const isChained : {false, true}) {
        auto file = StartFile();
        file.resize(file.size() + footerBytes + footerDistance);
        std::uint64_t before = 0;
        for (std::uint32_t i = 1; i <= (isChained ? 2000u : 20000u); ++i) {
            Footer footer;
            footer.commitNumber = i;
            footer.fileID = fileID.low;
            footer.offset = file.size();
            footer.previous = isChained ? before : 0;
            footer.indexOffset = isChained ? file.size() - footerDistance - footerBytes : headerBytes;
            footer.indexSize = footer.offset - footerDistance - footer.indexOffset;
            ASSERT_TRUE(Footer::Decode(footer.Encode(), fileID.low, footer.offset)) << "it is a good one";
            before = footer.offset;
            Append(file, footer.Encode());
            if (isChained)
                file.resize(file.size() + footerDistance + 2 * footerBytes);
        }
        auto const size = file.size();
        auto const disk = MakeCounted<CountingFile>(std::move(file));
        EXPECT_THROW(ArchiveSnapshot::Open("hostile.doc", disk, "Test"), ArchiveError);
        EXPECT_LT(disk->bytesRead, 16 * size) << isChained;
    }
}

// A save would keep one of two items, and nobody knows which is meant.
TEST(HostileArchive, ListsThatNameAnItemTwiceOrItemsThatOverlapAreDamage) {
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3})};
    EXPECT_THAT(Verify(MakeDisk(MakeFile(items))), IsEmpty());
    std::vector<Item> twoOfOneID{items[0], MakeItem(1, ArchiveTags::stream, "Else.dat", {4, 5, 6})};
    auto const twice = MakeDisk(MakeFile(twoOfOneID));
    EXPECT_THAT(Verify(twice), Contains(HasSubstr("is listed twice")));
    EXPECT_THROW(Archive::Open("hostile.doc", "Test", twice), ArchiveError);

    // A whole item that lies within the bytes of another one.
    auto const inner = MakeItem(2, ArchiveTags::stream, "Inner.dat", {4, 5, 6});
    std::vector<std::uint8_t> payload;
    inner.header.Encode(payload);
    Append(payload, inner.payload);
    payload.insert(payload.begin(), AlignUp(itemHeaderBytes + 9, itemAlignment) - itemHeaderBytes - 9, 0);
    std::vector<Item> outer{MakeItem(1, ArchiveTags::stream, "Outer.dat", payload)};
    EXPECT_THAT(Verify(MakeDisk(MakeFile(outer))), IsEmpty());
    auto within = inner.entry;
    within.offset = outer[0].entry.GetEnd() - inner.entry.headerSize - inner.payload.size();
    ASSERT_EQ(within.offset % itemAlignment, 0u);
    auto const overlapping = MakeDisk(MakeFile(outer, {within}));
    EXPECT_THAT(Verify(overlapping), Contains(HasSubstr("a copy of the list of contents")));
    EXPECT_THROW(Archive::Open("hostile.doc", "Test", overlapping), ArchiveError);

    // The same, but in two lists.
    HostileFile file;
    file.AddItem(outer[0]);
    within.offset += file.entries[0].offset - outer[0].entry.offset;
    file.AddCommit();
    file.entries = {within};
    file.AddCommit();
    EXPECT_THAT(Verify(MakeDisk(file.bytes)), Contains(HasSubstr("overlaps another one")));
}

// A copy of an item takes along what its header names, and would lack the rest.
TEST(HostileArchive, HeaderThatDoesNotNameWhatTheContentRefersToIsDamage) {
    ItemID const blob{77, 2};
    auto const stream = MakeStream("Root", [&](OutSerialiser & out) {
        ASSERT_TRUE(out.StartClassTestI("Deep"));
        out.StartClassBeginI("Clss", 1);
        SaveReference(out, "Item", PropType::DelayLoadObject, blob);
        SaveReference(out, "None", PropType::DelayLoadObject, {});
        out.EndPropClassI();
    });
    auto const verify = [&](IDTag type, std::vector<ItemID> references) {
        std::vector<Item> items{MakeItem(1, type, "Main.dat", stream, std::move(references)),
                                MakeItem(2, "Blob", "b/0", {1, 2, 3})};
        return Verify(MakeDisk(MakeFile(items)));
    };
    for (auto const type : {ArchiveTags::stream, ArchiveTags::sharedObject}) {
        EXPECT_THAT(verify(type, {blob}), IsEmpty());
        EXPECT_THAT(verify(type, {}), ElementsAre(HasSubstr("refers to an item that its header doesn't name")));
        EXPECT_THAT(verify(type, {blob, {77, 3}}), ElementsAre(HasSubstr("missing")));
    }
    EXPECT_THAT(verify("Blob", {}), IsEmpty()) << "who knows what it holds";
}

TEST(HostileArchive, WhatOnlyTheContentRefersToIsKeptByEverySave) {
    auto const stream = MakeStream("Root", [](OutSerialiser & out) {
        SaveReference(out, "Shrd", PropType::SharedObject, {77, 2});
        SaveReference(out, "None", PropType::DelayLoadObject, {77, 9});
    });
    auto const shared = MakeStream("Link", [](OutSerialiser & out) {
        SaveReference(out, "Item", PropType::DelayLoadObject, {77, 3});
    });
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", stream),
                            MakeItem(2, ArchiveTags::sharedObject, "s/", shared),
                            MakeItem(3, "Blob", "b/0", {1, 2, 3})};
    for (auto const mode : {ArchiveSaveMode::Update, ArchiveSaveMode::Compact}) {
        auto const disk = MakeDisk(MakeFile(items));
        auto const archive = Archive::Open("hostile.doc", "Test", disk);
        auto session = archive->CreateSession(mode);
        EXPECT_TRUE(session->KeepStream("Main.dat"));
        archive->CloseSession(std::move(session));
        auto const saved = Archive::Open("hostile.doc", "Test", disk);
        EXPECT_EQ(saved->GetInfo().items.size(), 3u);
        EXPECT_EQ(AlbumForTests::BytesOf(saved->GetHolder({77, 3}, AlbumForTests::Blob::GetType())),
                  (std::vector<std::uint8_t>{1, 2, 3}));
    }
}

TEST(HostileArchive, SharedObjectsThatReferToThemselvesEnd) {
    Link::GetClassProperties().Init();
    Link::loads = 0;
    std::vector<Item> items{MakeLink(1, {77, 1}, {77, 2}), MakeLink(2, {77, 1}, {77, 2})};
    auto const archive = Archive::Open("hostile.doc", "Test", MakeDisk(MakeFile(items)));
    auto const link = DynamicCast<Link>(archive->LoadSharedObject({77, 1}, 0));
    ASSERT_TRUE(link);
    EXPECT_FALSE(link->first) << "it is within itself";
    EXPECT_TRUE(link->second);
    EXPECT_EQ(Link::loads, 2);
}

// Each refers to the next one twice: by every path there would be 2^60 of them.
TEST(HostileArchive, SharedObjectsAreLoadedOnceHoweverManyPathsLeadToThem) {
    Link::GetClassProperties().Init();
    Link::loads = 0;
    std::vector<Item> items;
    for (std::uint64_t i = 1; i <= 60; ++i)
        items.push_back(MakeLink(i, {77, i + 1}, {77, i + 1}));
    auto const archive = Archive::Open("hostile.doc", "Test", MakeDisk(MakeFile(items)));
    EXPECT_TRUE(archive->LoadSharedObject({77, 1}, 0));
    EXPECT_EQ(Link::loads, 60);
}

// It holds a holder, which holds the archive: nobody may hold the object for the archive's sake.
TEST(HostileArchive, SharedObjectThatRefersToAnItemDoesNotKeepItsArchiveOpen) {
    Link::GetClassProperties().Init();
    auto const bytes = MakeStream("Link", [](OutSerialiser & out) {
        SaveReference(out, "Item", PropType::DelayLoadObject, {77, 2});
    });
    auto const stream = MakeStream("Root", [](OutSerialiser & out) {
        SaveReference(out, "Frst", PropType::SharedObject, {77, 1});
        SaveReference(out, "Scnd", PropType::SharedObject, {77, 1});
    });
    for (bool const isNamed : {true, false}) {
        std::vector<ItemID> const named{{77, 2}};
        std::vector<Item> items{
            MakeItem(1, ArchiveTags::sharedObject, "s/", bytes, isNamed ? named : std::vector<ItemID>()),
            MakeItem(2, "Blob", "b/", {1, 2, 3}), MakeItem(3, ArchiveTags::stream, "Main.dat", stream, {{77, 1}})};
        auto const disk = MakeDisk(MakeFile(items));
        {
            Link root;
            auto const archive = Archive::Open("hostile.doc", "Test", disk);
            auto const parsed = InSerialiserFile::ParseWithChecks(*archive->OpenStream("Main.dat"), *archive,
                                                                  /*acceptFutureVersions=*/false);
            Link::loads = 0;
            root.Load(*parsed, *archive, 1);
            EXPECT_EQ(Link::loads, 2) << "the root, and the one object";
            auto const link = DynamicCast<Link>(root.first);
            ASSERT_TRUE(link);
            EXPECT_EQ(root.first, root.second);
            EXPECT_EQ(AlbumForTests::BytesOf(link->item), std::vector<std::uint8_t>({1, 2, 3}));
            EXPECT_GT(disk->GetCount(), 1u);
        }
        EXPECT_EQ(disk->GetCount(), 1u) << "somebody still has the file open; named in the header: " << isNamed;
    }
}

TEST(HostileArchive, FewListsOfNonsenseAreTriedBeforeTheFileIsGivenUp) {
    for (int const count : {3, 20}) {
        HostileFile file;
        file.AddStream();
        file.AddCommit();
        for (int i = 0; i < count; ++i)
            file.AddCommit(MakeNonsense(100));
        if (count == 3)
            EXPECT_EQ(file.Open()->GetFooter().commitNumber, 1u);
        else
            EXPECT_THROW(file.Open(), ArchiveError);
    }
}

TEST(HostileArchive, ListThatHasAnIdTwiceGivesWayToTheOneBefore) {
    HostileFile file;
    file.AddStream();
    file.AddCommit();
    file.AddStream(1, "Else.dat");
    file.AddCommit();
    EXPECT_EQ(file.Open()->GetFooter().commitNumber, 1u);
}

TEST(HostileArchive, ListWhoseItemsOverlapIsNone) {
    auto const isList = [](std::vector<Entry> const & entries) {
        return DecodeIndex(EncodeIndex(entries), 4096).has_value();
    };
    Entry a, b;
    a.id = {1, 1};
    b.id = {1, 2};
    a.headerSize = b.headerSize = itemHeaderBytes;
    a.storedSize = b.storedSize = 160;
    a.offset = headerBytes;
    b.offset = a.GetEnd();
    EXPECT_TRUE(isList({a, b}));
    EXPECT_FALSE(isList({b, a}));
    EXPECT_FALSE(isList({a, a}));
    b.offset -= itemAlignment;
    EXPECT_FALSE(isList({a, b}));
    a.name = "name";
    EXPECT_FALSE(isList({a})) << "its header has no room for a name";
}

TEST(HostileArchive, SmallItemGivesNoLargeOne) {
    for (std::size_t const size : {std::size_t(4) << 20, std::size_t(8) << 20}) {
        std::vector<std::uint8_t> const zeros(size);
        std::vector<std::uint8_t> frame(ZSTD_compressBound(size));
        frame.resize(ZSTD_compress(frame.data(), frame.size(), zeros.data(), size, 1));
        bool const isAllowed = size == std::size_t(4) << 20;
        EXPECT_EQ(ItemCodec::Decode(Codec::Zstd, 0, frame, size) == zeros, isAllowed) << size;
        // What is written is read.
        FileStoreCompressionHintGeneral const hint(1);
        auto const encoded = ItemCodec::Encode(zeros, &hint);
        EXPECT_EQ(encoded.codec, isAllowed ? Codec::Zstd : Codec::Raw) << size;
    }
    EXPECT_FALSE(ItemCodec::IsWithinRatio(1 << 20, 31)) << "nothing compresses so well";
    EXPECT_TRUE(ItemCodec::IsWithinRatio(std::uint64_t(1) << 30, 16 << 20));
}

TEST(HostileArchive, ItemThatRefersToManyMissingOnesIsOneProblem) {
    std::vector<ItemID> missing;
    for (std::uint64_t i = 1; i <= 1000; ++i)
        missing.push_back({5, i});
    std::vector<Item> items{MakeItem(1, ArchiveTags::stream, "Main.dat", {1, 2, 3}, missing)};
    EXPECT_THAT(Verify(MakeDisk(MakeFile(items))), ElementsAre(HasSubstr("missing")));
}

TEST(HostileArchive, VerifyDoesNotGoThroughEndlessOldLists) {
    HostileFile file;
    for (int i = 0; i < 100; ++i)
        file.AddCommit(MakeNonsense(std::uint64_t(1) << 31));
    file.AddStream();
    file.AddCommit();
    EXPECT_THAT(Verify(MakeDisk(file.bytes)), Contains(HasSubstr("too large to be checked")));
}

TEST(HostileArchive, VerifyDoesNotGoThroughEndlessListsBehindTheEnd) {
    HostileFile file;
    file.AddStream();
    file.AddCommit();
    file.bytes.resize(file.bytes.size() + 200000 / footerBytes * footerBytes);
    for (int i = 0; i < 40; ++i) {
        Append(file.bytes, MakeNonsense(std::uint64_t(1) << 31));
        file.bytes.resize(AlignUp(file.bytes.size(), footerBytes));
    }
    EXPECT_THAT(Verify(MakeDisk(file.bytes)), Contains(HasSubstr("end of the last commit")));
}

// What a large save left that was cut off is gone through before the next one, while others wait.
TEST(HostileArchive, LongTailIsReadInFewPieces) {
    HostileFile file;
    file.AddStream();
    file.AddCommit();
    auto const end = file.bytes.size();
    file.bytes.resize(end + (20 << 20), std::uint8_t(7));
    auto const disk = MakeCounted<CountingFile>(file.bytes);
    EXPECT_FALSE(ArchiveSnapshot::FindFooterPlace(*disk, end));
    EXPECT_LT(disk->reads, 100u);
    EXPECT_LT(disk->bytesRead, 21u << 20);
}

TEST(HostileArchive, CommitNumbersBeginAnewAfterTheLast) {
    HostileFile file;
    file.AddStream();
    file.commitNumber = 0xfffffffe;
    file.AddCommit();
    auto const disk = MakeDisk(file.bytes);
    Counted<Archive> const archive = Archive::Open("hostile.doc", "Test", disk);
    for (std::uint32_t number = 1; number < 3; ++number) {
        auto session = archive->CreateSession();
        EXPECT_TRUE(session->KeepStream("Main.dat"));
        archive->CloseSession(std::move(session));
        Counted<Archive> const again = Archive::Open("hostile.doc", "Test", disk);
        EXPECT_EQ(again->GetInfo().commitNumber, number);
        EXPECT_TRUE(again->HasStream("Main.dat"));
    }
}

// With a hash that everybody knows these would all meet in one place of a table.
TEST(HostileArchive, IdsCannotBeChosenToCollide) {
    std::unordered_set<ItemID> ids;
    for (std::uint64_t i = 1; i <= 20000; ++i)
        ids.insert({i * 0x9e3779b97f4a7c15u, i});
    std::size_t fullest = 0;
    for (std::size_t i = 0; i < ids.bucket_count(); ++i)
        fullest = std::max(fullest, ids.bucket_size(i));
    EXPECT_LT(fullest, 40u);
}

// Tables of positions have one place for one key: each further item under it would be looked for behind all others.
TEST(HostileArchive, ManyItemsOfOneNameAndOneHashTakeNoLongerThanOthers) {
    using Clock = std::chrono::steady_clock;
#ifdef RASTER_SANITIZED
    constexpr std::uint64_t count = 100000;
#else
    constexpr std::uint64_t count = 300000;
#endif
    HostileFile file;
    for (std::uint64_t i = 1; i <= count; ++i)
        file.AddStream(i);
    file.AddCommit();
    auto const begin = Clock::now();
    auto const archive = Archive::Open("hostile.doc", "Test", MakeDisk(file.bytes));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10)) << "to open it";
    auto const opened = Clock::now();
    EXPECT_TRUE(archive->CreateSession());
    EXPECT_LT(Clock::now() - opened, std::chrono::seconds(10)) << "to begin a save";
}
