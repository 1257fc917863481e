#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/Dispatch.h"
#include "kernel/MemoryDisk.h"
#include "kernel/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <iterator>
#include <thread>
#include <utility>

using namespace Kernel;
using namespace AlbumForTests;
using testing::IsEmpty;
using testing::SizeIs;

namespace {
class ArchiveTest : public testing::Test {
protected:
    std::string GetPath(char const * name = "album.doc") const { return directory.GetPath(name); }
    std::string ReadFile() const { return GetFile(GetPath()); }
    void WriteFile(std::string const & bytes) const { PutFile(GetPath(), bytes); }
    std::vector<std::string> List() const {
        std::vector<std::string> names;
        for (auto const & entry : std::filesystem::directory_iterator(directory.GetPath()))
            names.push_back(entry.path().filename());
        return names;
    }

    TemporaryDirectory directory;
};
}

TEST_F(ArchiveTest, GivesBackWhatWasStored) {
    auto const album = MakeAlbum(20);
    Save(Archive::Create(GetPath(), "Test"), album);
    auto const archive = Archive::Open(GetPath(), "Test");
    auto const loaded = Load(archive);
    for (auto const & holder : loaded.blobs)
        EXPECT_FALSE(holder->IsLoaded());
    ExpectSame(loaded, album);
    EXPECT_FALSE(archive->HasStream("Other.dat"));
    EXPECT_FALSE(archive->OpenStream("Other.dat"));
}

TEST_F(ArchiveTest, OpensOnlyItsOwnKind) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    EXPECT_THROW(Archive::Open(GetPath(), "Othr"), ArchiveError);
    EXPECT_EQ(Archive::Open(GetPath(), IDTag())->GetArchiveTag(), IDTag("Test"));
    EXPECT_THROW(Archive::Open(GetPath("none"), "Test"), ArchiveError);
    WriteFile("not a document at all, but longer than a header of sixty-four bytes would be");
    EXPECT_THROW(Archive::Open(GetPath(), "Test"), ArchiveError);
}

TEST_F(ArchiveTest, SavingTwiceWithoutChangesAddsNoItem) {
    auto const album = MakeAlbum(5);
    auto const archive = Archive::Create(GetPath(), "Test");
    EXPECT_EQ(Save(archive, album).items, 7u); // five blobs, the label and the stream
    auto const again = Save(archive, album);
    EXPECT_EQ(again.items, 0u);
    EXPECT_EQ(archive->GetInfo().items.size(), 7u);
    auto const opened = Archive::Open(GetPath(), "Test");
    EXPECT_EQ(Save(opened, Load(opened)).items, 0u);
}

TEST_F(ArchiveTest, WritesOnlyWhatChanged) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto album = MakeAlbum(50);
    Save(archive, album);
    Change(album.blobs[3], MakeBytes(1000));
    auto const counts = Save(archive, album);
    EXPECT_EQ(counts.items, 2u); // the blob, and the stream that names it
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    EXPECT_GT(archive->GetInfo().deadBytes, 0u);
}

TEST_F(ArchiveTest, StoresEqualContentOnce) {
    Album album;
    for (int i = 0; i < 10; ++i)
        album.blobs.push_back(DelayLoadHolder::Create(Blob::GetType(), MakeBlob(MakeBytes(i % 2 ? 5 : 6))));
    auto const archive = Archive::Create(GetPath(), "Test");
    EXPECT_EQ(Save(archive, album).items, 3u);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    album.blobs.push_back(DelayLoadHolder::Create(Blob::GetType(), MakeBlob(MakeBytes(5))));
    EXPECT_EQ(Save(archive, album).items, 1u) << "the stream alone";
}

TEST_F(ArchiveTest, HasOneHolderForAnItem) {
    auto const album = MakeAlbum(2);
    auto const archive = Archive::Create(GetPath(), "Test");
    Save(archive, album);
    auto const first = Load(archive), second = Load(archive);
    EXPECT_EQ(first.blobs[0], second.blobs[0]);
    EXPECT_EQ(first.blobs[0], album.blobs[0]) << "the one that was stored stands for it";
    EXPECT_NE(first.blobs[0], first.blobs[1]);
}

TEST_F(ArchiveTest, HoldersMayGoWhileOthersAskForThem) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    auto const archive = Archive::Open(GetPath(), "Test");
    auto const id = archive->GetInfo().items.front().id;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 2000; ++n)
                EXPECT_TRUE(archive->GetHolder(id, Blob::GetType()));
        });
    for (auto & thread : threads)
        thread.join();
    auto const holder = archive->GetHolder(id, Blob::GetType());
    EXPECT_EQ(BytesOf(holder), MakeBytes(1));
    EXPECT_EQ(archive->GetHolder(id, Blob::GetType()), holder);
}

// Holders are told of the new file one by one while others ask for them.
TEST_F(ArchiveTest, HasOneHolderForAnItemWhileTheFileIsWrittenAnew) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto const album = MakeAlbum(1);
    Save(archive, album);
    auto const items = archive->GetInfo().items;
    auto const blob = std::find_if(items.begin(), items.end(), [](auto const & item) { return item.type == "Blob"; });
    ASSERT_NE(blob, items.end());
    std::atomic<bool> isEnding{false};
    std::thread other([&] {
        while (!isEnding) {
            auto const holder = archive->GetHolder(blob->id, Blob::GetType());
            if (holder != album.blobs[0])
                isEnding = true;
        }
    });
    for (int i = 0; i < 200 && !isEnding; ++i)
        Save(archive, album, ArchiveSaveMode::Compact);
    EXPECT_FALSE(isEnding.exchange(true)) << "there was another one";
    other.join();
}

TEST_F(ArchiveTest, DropsWhatCanBeLoadedAgain) {
    auto const album = MakeAlbum(1);
    auto const archive = Archive::Create(GetPath(), "Test");
    EXPECT_TRUE(album.blobs[0]->IsLoaded());
    Save(archive, album);
    EXPECT_FALSE(album.blobs[0]->IsLoaded());
    EXPECT_EQ(BytesOf(album.blobs[0]), MakeBytes(1));
    EXPECT_FALSE(album.blobs[0]->IsLoaded());
}

TEST_F(ArchiveTest, WriteDuringASaveStaysDirty) {
    auto album = MakeAlbum(1);
    auto const archive = Archive::Create(GetPath(), "Test");
    auto session = archive->CreateSession();
    session->StoreObject("Album.dat", album);
    Change(album.blobs[0], MakeBytes(77));
    archive->CloseSession(std::move(session));
    EXPECT_TRUE(album.blobs[0]->IsLoaded()) << "it could not be loaded again as it is";
    EXPECT_EQ(BytesOf(Load(Archive::Open(GetPath(), "Test")).blobs[0]), MakeBytes(1));
    EXPECT_EQ(Save(archive, album).items, 2u);
    EXPECT_EQ(BytesOf(Load(Archive::Open(GetPath(), "Test")).blobs[0]), MakeBytes(77));
}

TEST_F(ArchiveTest, SessionThatIsGivenUpLeavesTheDocumentAsItWas) {
    auto album = MakeAlbum(3);
    auto const archive = Archive::Create(GetPath(), "Test");
    Save(archive, album);
    auto const before = ReadFile();
    Change(album.blobs[0], MakeBytes(77, 40 << 20)); // larger than a batch, so that something is written
    {
        auto const session = archive->CreateSession();
        session->StoreObject("Album.dat", album);
        EXPECT_GT(ReadFile().size(), before.size());
    }
    EXPECT_EQ(ReadFile(), before);
    EXPECT_FALSE(album.blobs[0]->GetItem()->GetState().CanShare());
    {
        auto const created = Archive::Create(GetPath("new.doc"), "Test");
        auto const session = created->CreateSession();
        session->StoreObject("Album.dat", album);
    }
    EXPECT_THAT(List(), SizeIs(1));
}

TEST_F(ArchiveTest, CopiesItemsBetweenDocumentsWithoutLoadingThem) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(10));
    auto const album = Load(Archive::Open(GetPath(), "Test"));
    auto const copy = Archive::Create(GetPath("copy.doc"), "Test");
    Save(copy, album);
    for (auto const & holder : album.blobs)
        EXPECT_FALSE(holder->IsLoaded());
    ExpectSame(Load(Archive::Open(GetPath("copy.doc"), "Test")), MakeAlbum(10));
    // The same names for ever.
    auto const ids = [](ArchiveInfo const & info) {
        std::vector<ItemID> result;
        for (auto const & item : info.items)
            if (item.type == IDTag("Blob"))
                result.push_back(item.id);
        std::sort(result.begin(), result.end());
        return result;
    };
    EXPECT_EQ(ids(copy->GetInfo()), ids(Archive::Open(GetPath(), "Test")->GetInfo()));
    EXPECT_EQ(Save(copy, album).items, 0u);
}

TEST_F(ArchiveTest, CompactionKeepsEverythingAndDropsTheDead) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto album = MakeAlbum(10);
    Save(archive, album);
    for (unsigned i = 0; i < 10; ++i) {
        Change(album.blobs[i], MakeBytes(100 + i));
        Save(archive, album);
    }
    auto const before = archive->GetInfo();
    EXPECT_GT(before.deadBytes, 0u);
    auto const held = Load(archive);
    Save(archive, album, ArchiveSaveMode::Compact);
    auto const after = archive->GetInfo();
    EXPECT_EQ(after.deadBytes, 0u);
    EXPECT_LT(after.fileBytes, before.fileBytes);
    EXPECT_EQ(after.items.size(), before.items.size());
    EXPECT_EQ(after.commitNumber, before.commitNumber + 1);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    ExpectSame(held, album);
    EXPECT_EQ(Save(archive, album).items, 0u);
    EXPECT_THAT(List(), SizeIs(1));
}

TEST_F(ArchiveTest, FileThatIsMostlyDeadIsWrittenAnewIfItIsLarge) {
    std::mt19937 random(1);
    std::vector<std::uint32_t> noise(5 << 20);
    std::generate(noise.begin(), noise.end(), random);
    for (std::size_t const mebibytes : {12, 20}) {
        auto const disk = MakeCounted<MemoryDisk>();
        auto const archive = Archive::Create("album.doc", "Test", disk);
        auto session = archive->CreateSession();
        session->StoreStream("Noise", noise.data(), mebibytes << 20);
        archive->CloseSession(std::move(session));
        auto const album = MakeAlbum(2);
        Save(archive, album); // without the noise, which is dead from here on
        EXPECT_GT(archive->GetInfo().deadBytes, mebibytes << 20);
        Save(archive, album);
        EXPECT_EQ(archive->GetInfo().deadBytes < 1 << 20, mebibytes == 20);
        ExpectSame(Load(Archive::Open("album.doc", "Test", disk)), album);
    }
}

// Else the disk would keep all of the old file for as long as anybody has one of its items.
TEST_F(ArchiveTest, HoldersLetGoOfAFileThatWasReplaced) {
    auto const disk = MakeCounted<MemoryDisk>();
    Save(Archive::Create("album.doc", "Test", disk), MakeAlbum(4));
    auto const archive = Archive::Open("album.doc", "Test", disk);
    auto album = Load(archive);
    BytesOf(album.blobs[0]);
    for (int i = 0; i < 3; ++i) // the archive itself keeps the last one
        Save(archive, album, ArchiveSaveMode::Compact);
    auto const openFiles = disk->GetCount();
    ExpectSame(album, MakeAlbum(4));
    album = {};
    EXPECT_EQ(disk->GetCount(), openFiles) << "a holder had an old file open";
}

TEST_F(ArchiveTest, RemovedItemCanStillBeReadAndSavedAgain) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto album = MakeAlbum(3);
    Save(archive, album);
    auto const removed = album.blobs.back();
    album.blobs.pop_back();
    Save(archive, album);
    EXPECT_EQ(BytesOf(removed), MakeBytes(3));
    album.blobs.push_back(removed);
    EXPECT_EQ(Save(archive, album).items, 1u) << "the stream; the bytes of the item are still in the file";
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
}

namespace {
/// An item that refers to a shared object.
class Page final : public FileStoreItem {
public:
    Counted<SharedSerialisable> label;

    static FileStoreItemType const & GetType() {
        static FileStoreItemType const type("Page", ItemNesting::Nestable, ItemRecovery::Recoverable,
                                            [] { return Counted<FileStoreItem>(new Page); });
        return type;
    }
    FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
    void Save(OutStream & stream, FileStoreOut & store) const override {
        auto const id = store.StoreSharedObject(*label);
        stream.Write(id.commit);
        stream.Write(id.number);
    }
    bool Load(InStream & stream, FileStore & store) override {
        ItemID id;
        if (!stream.Read(id.commit) || !stream.Read(id.number))
            return false;
        label = store.LoadSharedObject(id, 0);
        return static_cast<bool>(label);
    }
};

void SavePage(Counted<Archive> const & archive, Counted<DelayLoadHolder> const & holder, ArchiveSaveMode mode) {
    auto session = archive->CreateSession(mode);
    session->StoreProperties("Page.dat", "Page", 1, [&](OutSerialiser & out) {
        out.SaveDelayLoadObject("Page", holder.Get(), FileStoreOutIndexedPathGenerator("", "p/"), nullptr);
    });
    archive->CloseSession(std::move(session));
}

std::string GetLabelText(Counted<DelayLoadHolder> const & holder) {
    DelayLoadHolder::TempLoadItem const temp(holder);
    auto const * const page = temp.GetItemAs<Page>();
    return page ? std::string(dynamic_cast<Label const &>(*page->label).text.GetView()) : "none";
}
}

TEST_F(ArchiveTest, HolderOfADocumentThatWasNeverSavedLoadsNothing) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto const holder = archive->GetHolder({1, 1}, Blob::GetType());
    ASSERT_TRUE(holder);
    EXPECT_THAT(BytesOf(holder), IsEmpty());
}

// What the item refers to has left the document with it.
TEST_F(ArchiveTest, RemovedItemComesBackWithWhatItRefersTo) {
    Label::GetClassProperties().Init();
    for (auto const mode : {ArchiveSaveMode::Update, ArchiveSaveMode::Compact}) {
        auto const archive = Archive::Create(GetPath(), "Test");
        auto page = MakeCounted<Page>();
        auto label = MakeCounted<Label>();
        label->text = "Page one";
        page->label = label;
        auto const holder = DelayLoadHolder::Create(Page::GetType(), std::move(page));
        SavePage(archive, holder, mode);
        for (unsigned seed = 1; seed <= 3; ++seed)
            Save(archive, MakeAlbum(2, seed * 10), mode);
        SavePage(archive, holder, mode);

        auto const opened = Archive::Open(GetPath(), "Test");
        auto const parsed = InSerialiserFile::ParseWithChecks(*opened->OpenStream("Page.dat"), *opened, false);
        Counted<DelayLoadHolder> loaded;
        ASSERT_TRUE(parsed->LoadDelayLoadObject("Page", *opened, Page::GetType(), loaded));
        EXPECT_EQ(GetLabelText(loaded), "Page one");
        EXPECT_EQ(opened->GetInfo().items.size(), 3u) << "the stream, the page and its label";
        std::filesystem::remove(GetPath());
    }
}

// A tile of a large document knows where it lies; it does not keep the list of contents of every save alive.
TEST_F(ArchiveTest, ManySavesOfOneDocumentLeaveEveryItemWhereItCanBeRead) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto album = MakeAlbum(8);
    Save(archive, album);
    for (unsigned round = 0; round < 20; ++round) {
        Change(album.blobs[round % 8], MakeBytes(100 + round));
        Save(archive, album, round % 7 == 6 ? ArchiveSaveMode::Compact : ArchiveSaveMode::Update);
        for (auto const & blob : album.blobs) {
            ScopedLock const guard(*blob);
            EXPECT_TRUE(blob->DropItem() && blob->LoadItemI()) << round;
        }
        ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    }
}

TEST_F(ArchiveTest, KeepsAStreamThatIsNotStoredAnew) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto session = archive->CreateSession();
    session->StoreObject("Album.dat", MakeAlbum(3));
    session->StoreStream("Note", "text", 4);
    archive->CloseSession(std::move(session));
    session = archive->CreateSession();
    EXPECT_TRUE(session->KeepStream("Album.dat"));
    EXPECT_FALSE(session->KeepStream("None"));
    archive->CloseSession(std::move(session));
    EXPECT_FALSE(archive->HasStream("Note"));
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(3));
}

// The items that a stream names without holding them are part of what it is.
TEST_F(ArchiveTest, StreamOfTheSameContentThatNamesOtherItemsIsAnotherOne) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto const store = [&](Album const & album) {
        auto session = archive->CreateSession();
        session->StoreProperties("Note", "Note", 1, [&](OutSerialiser & out) {
            out.SaveType("Valu", 5);
            out.SaveObjectEnumeratePathsOnlyI(album);
        });
        return archive->CloseSession(std::move(session)).itemsAdded;
    };
    auto const first = MakeAlbum(1), second = MakeAlbum(3, 30);
    store(first);
    EXPECT_EQ(store(first), 0u);
    store(second);
    EXPECT_EQ(store(second), 0u);
    auto session = archive->CreateSession();
    session->KeepStream("Note");
    archive->CloseSession(std::move(session));
    EXPECT_EQ(archive->GetInfo().items.size(), 5u) << "the stream, a label, three blobs";
    EXPECT_THAT(VerifyArchive(GetPath()).problems, IsEmpty());
}

TEST_F(ArchiveTest, HasOneStreamOfANameAndNoNamesThatAreTooLong) {
    auto const archive = Archive::Create(GetPath(), "Test");
    auto session = archive->CreateSession();
    session->StoreStream("Note", "first", 5);
    EXPECT_THROW(session->StoreStream("Note", "second", 6), std::invalid_argument);
    EXPECT_THROW(session->StoreObject("Note", MakeAlbum(1)), std::invalid_argument);
    EXPECT_THROW(session->StoreStream(std::string(4097, 'n'), "long", 4), std::length_error);
    session->StoreStream(std::string(4096, 'n'), "as long as can be", 17);
    archive->CloseSession(std::move(session)); // what was refused is not in it
    EXPECT_EQ(archive->GetInfo().items.size(), 2u);
    session = archive->CreateSession();
    EXPECT_TRUE(session->KeepStream("Note"));
    EXPECT_THROW(session->KeepStream("Note"), std::invalid_argument);
    EXPECT_THROW(session->StoreStream("Note", "second", 6), std::invalid_argument);
    archive->CloseSession(std::move(session));
    auto const stream = Archive::Open(GetPath(), "Test")->OpenStream("Note");
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->GetSize(), 5u);
    EXPECT_THAT(VerifyArchive(GetPath()).problems, IsEmpty());
}

// Whoever replaces a file has its lock, so that a save into it can't be lost with it.
TEST_F(ArchiveTest, KeepsOthersOutWhileAFileIsReplaced) {
    auto const disk = MakeCounted<MemoryDisk>(); // which doesn't wait for a lock
    Save(Archive::Create("album.doc", "Test", disk), MakeAlbum(1));
    auto const other = Archive::Open("album.doc", "Test", disk);
    auto const archive = Archive::Open("album.doc", "Test", disk), another = Archive::Create("album.doc", "Test", disk);
    auto const expectBusy = [&] {
        for (auto const mode : {ArchiveSaveMode::Update, ArchiveSaveMode::Compact})
            try {
                other->CreateSession(mode);
                ADD_FAILURE();
            } catch (ArchiveError const & error) {
                EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Busy);
            }
    };
    {
        auto const session = archive->CreateSession(ArchiveSaveMode::Compact);
        expectBusy();
    }
    {
        auto const session = another->CreateSession();
        expectBusy();
        EXPECT_THROW(Archive::Create("album.doc", "Test", disk)->CreateSession(), ArchiveError);
    }
    Save(another, MakeAlbum(1, 40));
    EXPECT_THROW(Save(other, MakeAlbum(1, 50)), ArchiveError) << "the path leads to another file now";
    ExpectSame(Load(Archive::Open("album.doc", "Test", disk)), MakeAlbum(1, 40));
    EXPECT_THAT(disk->GetFiles(), SizeIs(1));
}

TEST_F(ArchiveTest, RefusesToSaveOverTheSaveOfAnotherProgram) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(2));
    auto const first = Archive::Open(GetPath(), "Test"), second = Archive::Open(GetPath(), "Test");
    Save(first, MakeAlbum(2, 50));
    try {
        Save(second, MakeAlbum(2, 70));
        FAIL();
    } catch (ArchiveError const & error) {
        EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Changed);
    }
    EXPECT_THROW(Save(second, MakeAlbum(2, 70), ArchiveSaveMode::Compact), ArchiveError);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(2, 50));
    Save(first, MakeAlbum(2, 60));
}

TEST_F(ArchiveTest, RefusesToSaveWhenThePathLeadsElsewhere) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(2));
    auto const archive = Archive::Open(GetPath(), "Test");
    auto const album = Load(archive);
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(3, 30)); // replaced by another one
    EXPECT_THROW(Save(archive, album), ArchiveError);
    ExpectSame(album, MakeAlbum(2)); // what was open stays readable
}

TEST_F(ArchiveTest, OpensTheStateBeforeWhenTheLastOneIsCutOff) {
    auto const archive = Archive::Create(GetPath(), "Test");
    Save(archive, MakeAlbum(2));
    auto const first = ReadFile();
    Save(archive, MakeAlbum(2, 40));
    auto const second = ReadFile();
    for (auto const length :
         {first.size(), first.size() + 1, first.size() + 1000, second.size() - 64, second.size() - 1}) {
        WriteFile(second.substr(0, length));
        auto const opened = Archive::Open(GetPath(), "Test");
        ExpectSame(Load(opened), MakeAlbum(2));
        Save(opened, MakeAlbum(2, 60));
        ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(2, 60));
    }
    WriteFile(second + std::string(5000, 'x'));
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(2, 40));
}

TEST_F(ArchiveTest, ReadsTheSecondIndexWhenTheFirstIsDamaged) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(2));
    auto const whole = ReadFile();
    auto const firstIndex = whole.find("Indx");
    ASSERT_NE(firstIndex, std::string::npos);
    auto const secondIndex = whole.find("Indx", firstIndex + 1);
    EXPECT_GE(secondIndex - firstIndex, 65536u);
    auto damaged = whole;
    damaged[firstIndex + 40] = static_cast<char>(damaged[firstIndex + 40] ^ 1);
    WriteFile(damaged);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(2));
    damaged[secondIndex + 40] = static_cast<char>(damaged[secondIndex + 40] ^ 1);
    WriteFile(damaged);
    EXPECT_THROW(Archive::Open(GetPath(), "Test"), ArchiveError);
}

TEST_F(ArchiveTest, DamagedItemFailsTheSaveThatCopiesItUnlessToldToKeepIt) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(2));
    auto bytes = ReadFile();
    auto const item = Archive::Open(GetPath(), "Test")->GetInfo().items.front();
    auto & byte = bytes[item.offset + 200];
    byte = static_cast<char>(byte ^ 4);
    WriteFile(bytes);
    auto const archive = Archive::Open(GetPath(), "Test");
    auto const album = Load(archive);
    EXPECT_THAT(BytesOf(album.blobs[0]), IsEmpty());
    EXPECT_EQ(BytesOf(album.blobs[1]), MakeBytes(2));
    EXPECT_THROW(Save(archive, album, ArchiveSaveMode::Compact), ArchiveError);
    EXPECT_EQ(ReadFile(), bytes);
    auto session = archive->CreateSession(ArchiveSaveMode::Compact);
    session->SetKeepDamaged(true);
    session->StoreObject("Album.dat", album);
    archive->CloseSession(std::move(session));
    auto const kept = Load(Archive::Open(GetPath(), "Test"));
    ASSERT_THAT(kept.blobs, SizeIs(2));
    EXPECT_THAT(BytesOf(kept.blobs[0]), IsEmpty());
    EXPECT_EQ(BytesOf(kept.blobs[1]), MakeBytes(2));
}

// It loads as none, and would be stored as none.
TEST_F(ArchiveTest, DamagedItemStandsInForNoEqualOne) {
    auto const bytes = MakeBytes(1, 3000);
    auto const makeAlbum = [&] {
        Album album;
        album.blobs.push_back(DelayLoadHolder::Create(Blob::GetType(), MakeBlob(bytes)));
        return album;
    };
    Save(Archive::Create(GetPath(), "Test"), makeAlbum());
    auto const item = Archive::Open(GetPath(), "Test")->GetInfo().items[0];
    ASSERT_EQ(item.type, Blob::GetType().GetTag());
    auto file = ReadFile();
    auto & last = file[item.offset + item.storedSize]; // a byte of what is stored, since the header isn't empty
    last = static_cast<char>(last ^ 1);
    WriteFile(file);
    auto const archive = Archive::Open(GetPath(), "Test");
    ASSERT_TRUE(BytesOf(Load(archive).blobs[0]).empty());
    Save(archive, makeAlbum());
    EXPECT_EQ(BytesOf(Load(Archive::Open(GetPath(), "Test")).blobs[0]), bytes);
}

TEST_F(ArchiveTest, SharedObjectThatCannotBeReadIsNotLostUnlessDamageIsKept) {
    auto const store = [](Counted<Archive> const & archive, Album const & album, char const * name, bool keepsDamaged) {
        auto session = archive->CreateSession();
        session->SetKeepDamaged(keepsDamaged);
        session->StoreObject(name, album);
        if (name == std::string("Other.dat"))
            session->KeepStream("Album.dat");
        archive->CloseSession(std::move(session));
    };
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(2));
    auto const infos = Archive::Open(GetPath(), "Test")->GetInfo().items;
    auto const item =
        std::find_if(infos.begin(), infos.end(), [](auto const & info) { return info.type == IDTag("ShOb"); });
    ASSERT_NE(item, infos.end());
    auto bytes = ReadFile();
    auto & byte = bytes[item->offset + 110];
    byte = static_cast<char>(byte ^ 4);
    WriteFile(bytes);

    auto archive = Archive::Open(GetPath(), "Test");
    auto album = Load(archive);
    EXPECT_FALSE(album.label);
    EXPECT_THROW(Save(archive, album), ArchiveError);
    EXPECT_EQ(ReadFile(), bytes);
    store(archive, MakeAlbum(1, 50), "Other.dat", /*keepsDamaged=*/false); // the reference to it is still there
    EXPECT_THROW(store(archive, album, "Third.dat", /*keepsDamaged=*/false), ArchiveError);
    auto session = archive->CreateSession();
    EXPECT_THROW(session->StoreObject("Album.dat", album), ArchiveError) << "whoever else refers to it";
    session = {};
    store(archive, album, "Album.dat", /*keepsDamaged=*/true);
    EXPECT_EQ(archive->GetInfo().items.size(), infos.size()) << "it stays, as it was found";
    EXPECT_THAT(VerifyArchive(GetPath()).problems, testing::Contains(testing::Field(&ArchiveProblem::item, item->id)));
    EXPECT_THROW(Save(archive, album), ArchiveError) << "it would go now";

    // The same for one that is not even there: a reference to it is.
    WriteFile(bytes);
    SalvageArchive(GetPath(), GetPath("saved.doc"));
    archive = Archive::Open(GetPath("saved.doc"), "Test");
    album = Load(archive);
    EXPECT_FALSE(album.label);
    EXPECT_THROW(Save(archive, album), ArchiveError);
    store(archive, album, "Album.dat", /*keepsDamaged=*/true);
    EXPECT_THAT(VerifyArchive(GetPath("saved.doc")).problems, IsEmpty());
    Save(archive, album);
}

TEST_F(ArchiveTest, SharedObjectThatCouldNotBeReadIsTriedAgain) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    auto const whole = ReadFile();
    auto damaged = whole;
    auto const archive = Archive::Open(GetPath(), "Test");
    for (auto const & item : archive->GetInfo().items)
        if (item.type == IDTag("ShOb"))
            damaged[item.offset + 110] = static_cast<char>(damaged[item.offset + 110] ^ 1);
    WriteFile(damaged);
    EXPECT_FALSE(Load(archive).label);
    WriteFile(whole);
    EXPECT_TRUE(Load(archive).label);
}

TEST_F(ArchiveTest, KeepsModeAndLinkOfTheFileThatIsReplaced) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    ASSERT_EQ(chmod(GetPath().c_str(), 0640), 0);
    ASSERT_EQ(symlink("album.doc", GetPath("link.doc").c_str()), 0);
    auto const archive = Archive::Open(GetPath("link.doc"), "Test");
    Save(archive, MakeAlbum(1, 9), ArchiveSaveMode::Compact);
    struct stat status;
    ASSERT_EQ(lstat(GetPath("link.doc").c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    ASSERT_EQ(stat(GetPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(1, 9));
}

// Who can't give a file its owner can still give it its group, if it is one of theirs. No other group takes that place.
TEST_F(ArchiveTest, KeepsTheGroupOfTheFileThatIsReplacedOrWhatIsHiddenFromOthers) {
    if (geteuid() != 0)
        GTEST_SKIP() << "files can't be given away";
    constexpr uid_t user = 65534;
    constexpr gid_t ownGroup = 65534, sharedGroup = 2000, strangeGroup = 3000;
    struct Case {
        uid_t owner;
        gid_t group, groupAfter;
        mode_t mode, modeAfter;
    };
    Dispatch::SetThreadCount(1); // a child of a process has no threads but one
    ASSERT_EQ(chmod(directory.GetPath().c_str(), 0777), 0);
    for (auto const & [owner, group, groupAfter, mode, modeAfter] :
         {Case{0, sharedGroup, sharedGroup, 0660, 0660}, Case{user, strangeGroup, ownGroup, 0664, 0644},
          Case{user, strangeGroup, ownGroup, 0660, 0600}}) {
        Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
        ASSERT_EQ(chown(GetPath().c_str(), owner, group), 0);
        ASSERT_EQ(chmod(GetPath().c_str(), mode), 0);
        pid_t const child = fork();
        if (child == 0)
            try {
                if (setgroups(1, &sharedGroup) != 0 || setgid(ownGroup) != 0 || setuid(user) != 0)
                    _exit(2);
                Save(Archive::Open(GetPath(), "Test"), MakeAlbum(1, 9), ArchiveSaveMode::Compact);
                _exit(0);
            } catch (...) {
                _exit(1);
            }
        int how = 0;
        ASSERT_EQ(waitpid(child, &how, 0), child);
        ASSERT_EQ(how, 0);
        ExpectSame(Load(Archive::Open(GetPath(), "Test")), MakeAlbum(1, 9));
        struct stat status;
        ASSERT_EQ(stat(GetPath().c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, user);
        EXPECT_EQ(status.st_gid, groupAfter);
        EXPECT_EQ(status.st_mode & 07777, modeAfter);
        ASSERT_EQ(unlink(GetPath().c_str()), 0);
    }
    Dispatch::SetThreadCount(0);
}

TEST_F(ArchiveTest, GivesANewFileTheModeOfNewFilesAndHidesThatOfAPrivateOne) {
    auto const old = umask(027);
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    umask(old);
    struct stat status;
    ASSERT_EQ(stat(GetPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);

    std::string beside;
    ASSERT_TRUE(ArchiveDisk::GetSystem()->CreateBeside(GetPath(), beside));
    ASSERT_EQ(stat(beside.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    ArchiveDisk::GetSystem()->Remove(beside);
}

TEST_F(ArchiveTest, NewDocumentIsMadeWhereALinkLeadsThatLeadsNowhere) {
    std::filesystem::create_directory(directory.GetPath("there"));
    std::filesystem::create_symlink("there/target.doc", GetPath());
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    EXPECT_TRUE(std::filesystem::is_symlink(GetPath()));
    ExpectSame(Load(Archive::Open(directory.GetPath("there/target.doc"), "Test")), MakeAlbum(1));
}

namespace {
// Does something when a saver has found out what lies at the path.
class MeanwhileDisk final : public ArchiveDisk {
public:
    explicit MeanwhileDisk(std::function<void()> somebodyElse) : meanwhile(std::move(somebodyElse)) {}

    Counted<ArchiveFile> OpenToRead(std::string const & path) override { return disk->OpenToRead(path); }
    Counted<ArchiveFile> OpenToUpdate(std::string const & path) override {
        auto const file = disk->OpenToUpdate(path);
        int const reason = errno;
        meanwhile();
        errno = reason;
        return file;
    }
    Counted<ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override {
        return disk->CreateBeside(path, temporaryPath);
    }
    ArchiveReplaced Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path,
                            ArchiveTarget target) override {
        return disk->Replace(file, temporaryPath, path, target);
    }
    void Remove(std::string const & temporaryPath) override { disk->Remove(temporaryPath); }

private:
    Counted<ArchiveDisk> const disk = GetSystem();
    std::function<void()> const meanwhile;
};
}

namespace {
// Fails where it is told to.
class UnwillingDisk final : public ArchiveDisk {
public:
    int updateError = 0, createError = 0, replaceError = 0; // 0: works

    Counted<ArchiveFile> OpenToRead(std::string const & path) override { return disk->OpenToRead(path); }
    Counted<ArchiveFile> OpenToUpdate(std::string const & path) override {
        if (updateError == 0)
            return disk->OpenToUpdate(path);
        errno = updateError;
        return {};
    }
    Counted<ArchiveFile> CreateBeside(std::string const & path, std::string & temporaryPath) override {
        if (createError == 0)
            return disk->CreateBeside(path, temporaryPath);
        errno = createError;
        return {};
    }
    ArchiveReplaced Replace(ArchiveFile & file, std::string const & temporaryPath, std::string const & path,
                            ArchiveTarget target) override {
        if (replaceError == 0)
            return disk->Replace(file, temporaryPath, path, target);
        errno = replaceError;
        return ArchiveReplaced::Failed;
    }
    void Remove(std::string const & temporaryPath) override { disk->Remove(temporaryPath); }

private:
    Counted<ArchiveDisk> const disk = GetSystem();
};

ArchiveError::Kind KindOfFailure(std::function<void()> const & fail) {
    try {
        fail();
    } catch (ArchiveError const & error) {
        return error.GetKind();
    }
    ADD_FAILURE() << "nothing failed";
    return {};
}
}

// To be written anew is the document's own wish: whoever can't do that, and could append, must be able to save.
TEST_F(ArchiveTest, GrowsOnWhereItCannotBeWrittenAnew) {
    auto const disk = MakeCounted<UnwillingDisk>();
    auto const archive = Archive::Create(GetPath(), "Test", disk);
    auto album = MakeAlbum(2);
    Change(album.blobs[0], MakeBytes(50, 40 << 20));
    Save(archive, album);
    Change(album.blobs[0], MakeBytes(51));
    Save(archive, album); // by now most of it is dead
    disk->createError = EACCES;
    for (unsigned i = 60; i < 62; ++i) {
        Change(album.blobs[1], MakeBytes(i));
        Save(archive, album);
        ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    }
    EXPECT_EQ(KindOfFailure([&] { Save(archive, album, ArchiveSaveMode::Compact); }), ArchiveError::Kind::WriteFailed);
    disk->createError = 0;
    disk->replaceError = EDQUOT; // which comes after everything was stored: the save fails, and the next one appends
    EXPECT_EQ(KindOfFailure([&] { Save(archive, album); }), ArchiveError::Kind::WriteFailed);
    Change(album.blobs[1], MakeBytes(70));
    Save(archive, album);
    ExpectSame(Load(Archive::Open(GetPath(), "Test")), album);
    EXPECT_EQ(List(), std::vector<std::string>{"album.doc"});
    disk->replaceError = 0;
    Save(archive, album, ArchiveSaveMode::Compact);
    EXPECT_LT(archive->GetInfo().deadBytes, 100000u);
}

TEST_F(ArchiveTest, GrowsOnWhereThereIsNoRoomBesideIt) {
    auto const disk = MakeCounted<MemoryDisk>();
    auto const archive = Archive::Create("album.doc", "Test", disk);
    auto album = MakeAlbum(1);
    Change(album.blobs[0], MakeBytes(50, 40 << 20));
    Save(archive, album);
    Change(album.blobs[0], MakeBytes(51, 1 << 20));
    Save(archive, album);
    auto const countRenames = [&] {
        return std::count_if(disk->steps.begin(), disk->steps.end(),
                             [](auto const & step) { return step.kind == MemoryDisk::Step::Kind::Rename; });
    };
    disk->freeBytes = 500000; // less than the blob takes
    Save(archive, album);
    EXPECT_EQ(countRenames(), 1) << "that of the first save";
    EXPECT_THAT(disk->GetFiles(), SizeIs(1));
    disk->freeBytes = 500 << 20;
    Save(archive, album);
    EXPECT_EQ(countRenames(), 2);
    ExpectSame(Load(Archive::Open("album.doc", "Test", disk)), album);
}

// What can't be opened for writing is nothing that a new document replaces.
TEST_F(ArchiveTest, NewDocumentReplacesNothingThatItMayNotWrite) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    auto const before = ReadFile();
    auto const disk = MakeCounted<UnwillingDisk>();
    disk->updateError = EACCES;
    auto const archive = Archive::Create(GetPath(), "Test", disk);
    EXPECT_EQ(KindOfFailure([&] { Save(archive, MakeAlbum(1, 50)); }), ArchiveError::Kind::WriteFailed);
    EXPECT_EQ(ReadFile(), before);

    ASSERT_EQ(mkfifo(GetPath("pipe").c_str(), 0600), 0);
    EXPECT_EQ(KindOfFailure([&] { Save(Archive::Create(GetPath("pipe"), "Test"), MakeAlbum(1)); }),
              ArchiveError::Kind::WriteFailed);
    EXPECT_TRUE(std::filesystem::is_fifo(GetPath("pipe")));
    if (mknod(GetPath("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0) {
        EXPECT_EQ(KindOfFailure([&] { Save(Archive::Create(GetPath("null"), "Test"), MakeAlbum(1)); }),
                  ArchiveError::Kind::WriteFailed);
        EXPECT_TRUE(std::filesystem::is_character_file(GetPath("null")));
    }
}

// A save removes what savers that died have left, and nothing of the user's.
TEST_F(ArchiveTest, LeavesFilesAloneThatOnlyBeginLikeItsOwn) {
    PutFile(GetPath(".album.doc.saving-notes"), "of the user");
    PutFile(GetPath(".album.doc.saving-0123abcd.txt"), "of the user");
    PutFile(GetPath(".album.doc.saving-0123abcd"), "of a saver that died");
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    EXPECT_THAT(List(), testing::UnorderedElementsAre("album.doc", ".album.doc.saving-notes",
                                                      ".album.doc.saving-0123abcd.txt"));
}

// The document that a holder comes from may be open by that holder alone, and has objects that take locks to go.
TEST_F(ArchiveTest, LastHolderOfADocumentMovesToAnotherOne) {
    Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1));
    auto archive = Archive::Open(GetPath(), "Test");
    auto album = Load(archive);
    ASSERT_TRUE(album.label);
    album.label.Reset();
    archive.Reset();
    Change(album.blobs[0], MakeBytes(5));
    auto const other = Archive::Create(GetPath("other.doc"), "Test");
    Save(other, album);
    EXPECT_EQ(BytesOf(album.blobs[0]), MakeBytes(5));
}

namespace {
// An item that refers to another one, which may be itself.
class Ring final : public FileStoreItem {
public:
    Counted<DelayLoadHolder> next;

    static FileStoreItemType const & GetType() {
        static FileStoreItemType const type("Ring", ItemNesting::Nestable, ItemRecovery::NotRecoverable,
                                            [] { return Counted<FileStoreItem>(new Ring); });
        return type;
    }
    FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
    void Save(OutStream & stream, FileStoreOut & store) const override {
        OutSerialiserFile serialiser(stream, store, "Ring", 1);
        serialiser.SaveDelayLoadObject("Next", next.Get(), FileStoreOutIndexedPathGenerator("", "r/"), nullptr);
        serialiser.Close();
    }
    bool Load(InStream &, FileStore &) override { return true; }
};
}

TEST_F(ArchiveTest, ItemsThatReferToThemselvesFailTheSave) {
    auto const ring = MakeCounted<Ring>();
    ring->next = DelayLoadHolder::Create(Ring::GetType(), ring);
    auto const archive = Archive::Create(GetPath(), "Test");
    auto session = archive->CreateSession();
    EXPECT_EQ(KindOfFailure([&] {
                  session->StoreProperties("Ring", "Root", 1, [&](OutSerialiser & out) {
                      out.SaveDelayLoadObject("Ring", ring->next.Get(), FileStoreOutIndexedPathGenerator("", "r/"),
                                              nullptr);
                  });
              }),
              ArchiveError::Kind::WriteFailed);
    ring->next.Reset();
}

// Of two programs that make a document at one path, the later one doesn't replace what it has never seen.
TEST_F(ArchiveTest, NewDocumentDoesNotReplaceOneThatCameMeanwhile) {
    auto const first = MakeAlbum(2, 1), second = MakeAlbum(3, 50);
    for (bool const isReplacing : {false, true}) {
        if (isReplacing)
            Save(Archive::Create(GetPath(), "Test"), MakeAlbum(1, 80));
        auto const disk = MakeCounted<MeanwhileDisk>([&] { Save(Archive::Create(GetPath(), "Test"), first); });
        try {
            Save(Archive::Create(GetPath(), "Test", disk), second);
            ADD_FAILURE() << "the first document is lost, replacing " << isReplacing;
        } catch (ArchiveError const & error) {
            EXPECT_EQ(error.GetKind(), ArchiveError::Kind::Changed) << error.what();
        }
        ExpectSame(Load(Archive::Open(GetPath(), "Test")), first);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.GetPath()), {}), 1)
            << "something is left behind";
    }
}

TEST_F(ArchiveTest, WritesTheSameItemsForAnyNumberOfThreads) {
    std::vector<std::vector<std::uint64_t>> sizes;
    for (unsigned const threads : {1u, 2u, 8u}) {
        Dispatch::SetThreadCount(threads);
        auto const archive = Archive::Create(GetPath(std::to_string(threads).c_str()), "Test");
        Save(archive, MakeAlbum(40));
        sizes.emplace_back();
        for (auto const & item : archive->GetInfo().items)
            if (item.type == IDTag("Blob")) // a stream holds random ids, which compress now better, now worse
                sizes.back().insert(sizes.back().end(), {item.offset, item.storedSize, item.id.number});
    }
    Dispatch::SetThreadCount(0);
    EXPECT_EQ(sizes[0], sizes[1]);
    EXPECT_EQ(sizes[0], sizes[2]);
}
