// Files whose checksums are all right and whose content is meant to hurt.
#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveError.h"
#include "kernel/ArchiveLayout.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/ArchiveTags.h"
#include "kernel/ItemCodec.h"
#include "kernel/MemoryDisk.h"
#include "kernel/PropertyStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zstd.h>

#include <algorithm>
#include <functional>
#include <unordered_set>

using namespace Kernel;
using namespace Kernel::ArchiveLayout;
using testing::Contains;
using testing::HasSubstr;

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
        return size;
    }
    std::optional<std::uint64_t> GetSize() const override { return bytes.size(); }
    bool Write(std::uint64_t, void const *, std::uint64_t) override { return false; }
    bool Truncate(std::uint64_t) override { return false; }
    bool Sync() override { return false; }
    bool Lock() override { return false; }
    void Unlock() override {}
    bool IsAt(std::string const &) const override { return false; }

    mutable std::uint64_t bytesRead = 0;

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

/// A file that is put together piece by piece.
class HostileFile {
public:
    /// Adds an item and what a list says of it, the header of which a test has a word in.
    void AddItem(
        std::uint64_t number, std::function<void(ItemHeader & header)> const & change = [](ItemHeader &) {}) {
        std::vector<std::uint8_t> const payload{1, 2, 3};
        ItemHeader header;
        header.id = {77, number};
        header.type = ArchiveTags::stream;
        header.name = "Main.dat";
        header.rawSize = header.storedSize = payload.size();
        header.rawHash = GetHash128(payload.data(), payload.size());
        header.storedHash = Hash64(payload.data(), payload.size());
        change(header);
        bytes.resize(AlignUp(bytes.size(), itemAlignment));
        entries.push_back({header.id, bytes.size(), header.GetEncodedSize(), header.storedSize, header.rawSize,
                           header.rawHash.low, header.type, header.name});
        header.Encode(bytes);
        Append(bytes, payload);
    }

    void AddCommit() { AddCommit(EncodeIndex(entries)); }
    /// Of a list that may be anything.
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
    Counted<MemoryDisk> MakeDisk() const { return MakeCounted<MemoryDisk>(MemoryDisk::Files{{"hostile.doc", bytes}}); }
    std::vector<std::string> Verify() const {
        std::vector<std::string> texts;
        for (auto const & problem : VerifyArchive("hostile.doc", nullptr, nullptr, nullptr, MakeDisk()).problems)
            texts.push_back(problem.what);
        return texts;
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
Counted<ArchiveSnapshot const> OpenWithItem(
    std::function<void(ItemHeader & header)> const & changeHeader,
    std::function<void(Entry & entry)> const & changeEntry = [](Entry &) {}) {
    HostileFile file;
    file.AddItem(1, changeHeader);
    changeEntry(file.entries[0]);
    file.AddCommit();
    return file.Open();
}
}

TEST(HostileArchive, ItemOfAnUnknownCodecTakesNoMemory) {
    auto const snapshot = OpenWithItem([](ItemHeader & header) {
        header.codec = static_cast<Codec>(9);
        header.rawSize = std::uint64_t(1) << 35;
    });
    EXPECT_THROW(snapshot->GetReader().ReadRaw(snapshot->GetEntries()[0]), ArchiveError);
}

// Whether an item has references is told from its name's length, so a wrong name would hide them.
TEST(HostileArchive, ItemUnderTheNameOfAnotherIsDamaged) {
    auto const whole = OpenWithItem([](ItemHeader &) {});
    EXPECT_EQ(whole->GetReader().ReadRaw(whole->GetEntries()[0]).size(), 3u);
    auto const renamed = OpenWithItem([](ItemHeader &) {}, [](Entry & entry) { entry.name = "Else.dat"; });
    EXPECT_THROW(renamed->GetReader().ReadRaw(renamed->GetEntries()[0]), ArchiveError);
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

TEST(HostileArchive, FewListsOfNonsenseAreTriedBeforeTheFileIsGivenUp) {
    for (int const count : {3, 20}) {
        HostileFile file;
        file.AddItem(1);
        file.AddCommit();
        for (int i = 0; i < count; ++i)
            file.AddCommit(MakeNonsense(100));
        if (count == 3)
            EXPECT_EQ(file.Open()->GetFooter().commitNumber, 1u);
        else
            EXPECT_THROW(file.Open(), ArchiveError);
    }
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

TEST(HostileArchive, ListThatHasAnIdTwiceIsNotTaken) {
    HostileFile file;
    file.AddItem(1);
    file.AddCommit();
    file.AddItem(1, [](ItemHeader & header) { header.name = "Else.dat"; });
    file.AddCommit();
    EXPECT_EQ(file.Open()->GetFooter().commitNumber, 1u);
    EXPECT_THAT(file.Verify(), Contains(HasSubstr("listed twice")));
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

TEST(HostileArchive, ItemsOfTwoCommitsThatOverlapAreNotReadTwice) {
    HostileFile file;
    // The payload of the first item is the second one.
    ItemHeader inner;
    inner.id = {77, 2};
    inner.type = ArchiveTags::stream;
    inner.rawHash = GetHash128(nullptr, 0);
    inner.storedHash = Hash64(nullptr, 0);
    std::vector<std::uint8_t> payload;
    inner.Encode(payload);
    file.AddItem(1, [&](ItemHeader & header) {
        header.name = std::string(16, 'n'); // so that its end is aligned
        header.rawSize = header.storedSize = payload.size();
        header.rawHash = GetHash128(payload.data(), payload.size());
        header.storedHash = Hash64(payload.data(), payload.size());
    });
    auto const at = file.entries[0].offset + file.entries[0].headerSize;
    file.bytes.resize(at);
    Append(file.bytes, payload);
    file.AddCommit();
    EXPECT_TRUE(file.Verify().empty());
    file.entries = {Entry{inner.id, at, inner.GetEncodedSize(), 0, 0, inner.rawHash.low, inner.type, {}}};
    file.AddCommit();
    EXPECT_THAT(file.Verify(), Contains(HasSubstr("overlaps another")));
}

TEST(HostileArchive, ItemThatRefersToManyMissingOnesIsOneProblem) {
    HostileFile file;
    file.AddItem(1, [](ItemHeader & header) {
        header.name = std::string(4000, 'n');
        for (std::uint64_t i = 0; i < 1000; ++i)
            header.references.push_back({5, i});
    });
    file.AddCommit();
    EXPECT_EQ(file.Verify().size(), 1u);
}

TEST(HostileArchive, VerifyDoesNotGoThroughEndlessOldLists) {
    HostileFile file;
    for (int i = 0; i < 100; ++i)
        file.AddCommit(MakeNonsense(std::uint64_t(1) << 31));
    file.AddItem(1);
    file.AddCommit();
    EXPECT_THAT(file.Verify(), Contains(HasSubstr("too large to be checked")));
}

TEST(HostileArchive, VerifyDoesNotGoThroughEndlessListsBehindTheEnd) {
    HostileFile file;
    file.AddItem(1);
    file.AddCommit();
    file.bytes.resize(file.bytes.size() + 200000 / footerBytes * footerBytes);
    for (int i = 0; i < 40; ++i) {
        Append(file.bytes, MakeNonsense(std::uint64_t(1) << 31));
        file.bytes.resize(AlignUp(file.bytes.size(), footerBytes));
    }
    EXPECT_THAT(file.Verify(), Contains(HasSubstr("end of the last commit")));
}

TEST(HostileArchive, CommitNumbersBeginAnewAfterTheLast) {
    HostileFile file;
    file.AddItem(1);
    file.commitNumber = 0xfffffffe;
    file.AddCommit();
    auto const disk = file.MakeDisk();
    auto const archive = Archive::Open("hostile.doc", "Test", disk);
    for (std::uint32_t number = 1; number < 3; ++number) {
        auto session = archive->CreateSession();
        EXPECT_TRUE(session->KeepStream("Main.dat"));
        archive->CloseSession(std::move(session));
        auto const again = Archive::Open("hostile.doc", "Test", disk);
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
