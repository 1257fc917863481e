// What saving asks of the system's disk: in which order it has things synced, and what becomes of a document where the
// disk fails or is full.
#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

using namespace Kernel;
using namespace AlbumForTests;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {
/// Stands in for the system's calls that sync, and lets those fail that give names: the functions below lead here.
struct SyncRecorder {
    struct Sync {
        bool isDirectory = false;
        bool isNamed = false;      // what is synced has the document's name
        std::string content;       // of the file
        std::string namedDocument; // what the document's name leads to now
    };
    static inline std::string path;    // of the document
    static inline std::size_t failing; // which of the calls fails, counted from 1; 0 is none
    static inline int error = EIO;
    static inline std::vector<Sync> syncs;
    static inline bool canRename = true;

    static bool AllowRename() {
        if (!canRename)
            errno = EIO;
        return canRename;
    }

    static int Record(int descriptor) {
        Sync sync;
        struct stat here, named;
        EXPECT_EQ(fstat(descriptor, &here), 0);
        sync.isDirectory = S_ISDIR(here.st_mode);
        sync.isNamed = stat(path.c_str(), &named) == 0 && here.st_ino == named.st_ino;
        if (!sync.isDirectory) {
            sync.content.resize(static_cast<std::size_t>(here.st_size));
            EXPECT_EQ(pread(descriptor, sync.content.data(), sync.content.size(), 0), here.st_size);
        }
        sync.namedDocument = GetFile(path);
        syncs.push_back(std::move(sync));
        if (syncs.size() != failing)
            return 0;
        errno = error;
        return -1;
    }
};
}

extern "C" int fsync(int descriptor) { return SyncRecorder::Record(descriptor); }
extern "C" int fdatasync(int descriptor) { return SyncRecorder::Record(descriptor); }
extern "C" int rename(char const * from, char const * to) noexcept {
    return SyncRecorder::AllowRename() ? static_cast<int>(syscall(SYS_rename, from, to)) : -1;
}
extern "C" int renameat2(int fromFolder, char const * from, int toFolder, char const * to, unsigned flags) noexcept {
    return SyncRecorder::AllowRename() ? static_cast<int>(syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags))
                                       : -1;
}

namespace {
constexpr std::size_t footerBytes = 64;

/// How the next save is made: into the file as it is, into a file that takes its place, or into one where none was.
enum class Way { Update, Compact, New };

class ArchiveDiskTest : public testing::TestWithParam<Way> {
protected:
    ArchiveDiskTest() {
        SyncRecorder::path = directory.GetPath("album.doc");
        SyncRecorder::failing = 0;
        SyncRecorder::error = EIO;
        SyncRecorder::canRename = true;
        PrepareSave();
    }

    // A document of two saves, if there is to be one, and an album that is not saved yet.
    void PrepareSave() {
        std::filesystem::remove(SyncRecorder::path);
        archive = Archive::Create(SyncRecorder::path, "Test");
        album = MakeAlbum(3);
        if (GetParam() != Way::New) {
            Save(archive, album);
            Change(album.blobs[0], MakeBytes(50, 3000));
            Save(archive, album);
        }
        Change(album.blobs[1], MakeBytes(60, 3000));
        before = GetFile(SyncRecorder::path);
        SyncRecorder::syncs.clear();
    }
    void SaveAlbum() {
        Save(archive, album, GetParam() == Way::Compact ? ArchiveSaveMode::Compact : ArchiveSaveMode::Update);
    }
    /// @return what went wrong, if anything did.
    std::optional<ArchiveError::Kind> TryToSave() {
        try {
            SaveAlbum();
        } catch (ArchiveError const & error) {
            return error.GetKind();
        }
        return {};
    }
    void ExpectSaved() const {
        ExpectSame(AlbumForTests::Load(Archive::Open(SyncRecorder::path, "Test")), album);
        EXPECT_THAT(VerifyArchive(SyncRecorder::path).problems, IsEmpty());
    }
    std::vector<std::string> List() const {
        std::vector<std::string> names;
        for (auto const & entry : std::filesystem::directory_iterator(directory.GetPath()))
            names.push_back(entry.path().filename());
        return names;
    }
    void ExpectAsBefore() const {
        EXPECT_TRUE(GetFile(SyncRecorder::path) == before) << "the document is another one";
        EXPECT_THAT(List(), SizeIs(GetParam() == Way::New ? 0 : 1));
    }

    TemporaryDirectory directory;
    Counted<Archive> archive;
    Album album;
    std::string before; // the bytes of the document
};

/// Of saves that give a file the name of the document.
class ArchiveNameTest : public ArchiveDiskTest {};

std::string GetName(testing::TestParamInfo<Way> const & way) {
    return way.param == Way::Update ? "Update" : way.param == Way::Compact ? "Compact" : "New";
}
}

// What a footer refers to is on the disk before the footer is written, and the footer before the save is confirmed.
TEST_P(ArchiveDiskTest, FooterComesAfterASyncAndBeforeAnother) {
    SaveAlbum();
    auto const saved = GetFile(SyncRecorder::path);
    auto const & syncs = SyncRecorder::syncs;
    ASSERT_GE(syncs.size(), 2u);
    EXPECT_TRUE(syncs[0].content == saved.substr(0, saved.size() - footerBytes));
    EXPECT_TRUE(syncs[1].content == saved);
    if (GetParam() == Way::Update) {
        EXPECT_THAT(syncs, SizeIs(2));
    }
    ExpectSaved();
}

// A file takes the document's name when all of it is on the disk, and the name is synced after that.
TEST_P(ArchiveNameTest, NameIsGivenBetweenTheSyncOfTheFileAndThatOfItsFolder) {
    SaveAlbum();
    auto const saved = GetFile(SyncRecorder::path);
    auto const & syncs = SyncRecorder::syncs;
    ASSERT_GE(syncs.size(), 2u);
    auto const & name = syncs.back();
    EXPECT_TRUE(name.isDirectory);
    EXPECT_TRUE(name.namedDocument == saved) << "the name led elsewhere when the folder was synced";
    auto const & file = syncs[syncs.size() - 2];
    EXPECT_FALSE(file.isDirectory);
    EXPECT_FALSE(file.isNamed);
    EXPECT_TRUE(file.content == saved);
    for (std::size_t i = 0; i + 1 < syncs.size(); ++i)
        EXPECT_TRUE(syncs[i].namedDocument == before) << "until then the document is the old one";
}

TEST_P(ArchiveDiskTest, SyncThatFailsIsToldOf) {
    std::vector<ArchiveError::Kind> kinds;
    for (std::size_t failing = 1;; ++failing) {
        PrepareSave();
        SyncRecorder::failing = failing;
        auto const kind = TryToSave();
        if (!kind) {
            EXPECT_EQ(SyncRecorder::syncs.size(), failing - 1);
            break;
        }
        kinds.push_back(*kind);
        if (*kind == ArchiveError::Kind::WriteFailed)
            ExpectAsBefore();
        else
            ExpectSaved();
        SyncRecorder::failing = 0;
        SaveAlbum(); // nothing of it is taken for saved
        ExpectSaved();
        EXPECT_THAT(List(), SizeIs(1));
    }
    // Once the footer is written into the document, or the name is given, nobody can tell which of the two it is.
    using Kind = ArchiveError::Kind;
    if (GetParam() == Way::Update)
        EXPECT_THAT(kinds, ElementsAre(Kind::WriteFailed, Kind::Unknown));
    else
        EXPECT_THAT(kinds, ElementsAre(Kind::WriteFailed, Kind::WriteFailed, Kind::WriteFailed, Kind::Unknown));
}

TEST_P(ArchiveNameTest, NameThatCannotBeGivenIsToldOf) {
    SyncRecorder::canRename = false;
    EXPECT_EQ(TryToSave(), ArchiveError::Kind::WriteFailed);
    ExpectAsBefore();
    SyncRecorder::canRename = true;
    SaveAlbum();
    ExpectSaved();
}

// Some file systems have no sync of folders.
TEST_P(ArchiveNameTest, FolderThatCannotBeSyncedIsNoFailure) {
    SaveAlbum();
    auto const last = SyncRecorder::syncs.size();
    for (int const error : {EINVAL, ENOTSUP, ENOSYS}) {
        PrepareSave();
        SyncRecorder::failing = last;
        SyncRecorder::error = error;
        SaveAlbum();
        EXPECT_THAT(SyncRecorder::syncs, SizeIs(last));
        ExpectSaved();
    }
}

// Wherever in the file the disk becomes full, which takes the first part of what was to be written and no more.
TEST_P(ArchiveDiskTest, FullDiskLeavesTheDocumentAsItWas) {
    SaveAlbum();
    auto const first = GetParam() == Way::Update ? before.size() : 0, size = GetFile(SyncRecorder::path).size();
    ASSERT_LT(first, size);
    auto const handlerBefore = std::signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    std::vector<std::uint64_t> limits{first + 1, size - footerBytes, size - 1};
    for (auto limit = first; limit < size; limit += (size - first) / 40)
        limits.push_back(limit);
    for (auto const limit : limits) {
        PrepareSave();
        rlimit const full{limit, unlimited.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
        auto const kind = TryToSave();
        setrlimit(RLIMIT_FSIZE, &unlimited);
        ASSERT_EQ(kind, ArchiveError::Kind::WriteFailed) << limit << " of " << size;
        ExpectAsBefore();
    }
    std::signal(SIGXFSZ, handlerBefore);
    SaveAlbum();
    ExpectSaved();
}

INSTANTIATE_TEST_SUITE_P(, ArchiveDiskTest, testing::Values(Way::Update, Way::Compact, Way::New), GetName);
INSTANTIATE_TEST_SUITE_P(, ArchiveNameTest, testing::Values(Way::Compact, Way::New), GetName);
