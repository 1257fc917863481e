#include "storage/BackstoreFile.h"

#include "kernel/TraceCapture.h"
#include "pixel/PixelMemory.h"
#include "storage/BlockEnvironment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>

namespace Raster {
namespace {
class BackstoreFileTest : public BlockTest {
protected:
    static struct stat StatusOf(std::string const & path) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        return status;
    }
    std::string Place(char const * name) const { return folder.GetPath() + "/" + name; }
};

TEST_F(BackstoreFileTest, IsAPrivateEmptyFileOfTheGivenName) {
    EXPECT_EQ(backstore.GetPath(), Place("CorvidBackstore.dat"));
    auto const status = StatusOf(backstore.GetPath());
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600);
    EXPECT_EQ(status.st_size, 0);
    int const other = open(backstore.GetPath().c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0) << "it is locked";
    close(other);
}

TEST_F(BackstoreFileTest, IsNotInheritedByOtherPrograms) {
    bool isFound = false;
    for (auto const & entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry, ignored) != backstore.GetPath())
            continue;
        isFound = true;
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename().string()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_TRUE(isFound);
}

TEST_F(BackstoreFileTest, TakesOverAndEmptiesWhatACrashLeftBehind) {
    TestFolder const other;
    auto const path = other.GetPath() + "/CorvidBackstore.dat";
    close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ASSERT_EQ(truncate(path.c_str(), 12345), 0);
    EXPECT_TRUE(backstore.Open(other.GetPath()));
    EXPECT_EQ(backstore.GetPath(), path);
    EXPECT_EQ(StatusOf(path).st_size, 0);
    EXPECT_EQ(StatusOf(path).st_mode & 07777, 0600);
    backstore.Open(folder.GetPath());
}

TEST_F(BackstoreFileTest, NeverFollowsALinkAndNeverWritesASharedFile) {
    TestFolder const other;
    auto const path = other.GetPath() + "/CorvidBackstore.dat", victim = other.GetPath() + "/victim";
    close(open(victim.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ASSERT_EQ(truncate(victim.c_str(), 77), 0);
    ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
    EXPECT_TRUE(backstore.Open(other.GetPath()));
    EXPECT_EQ(backstore.GetPath(), other.GetPath() + "/CorvidBackstore.1/CorvidBackstore.dat");
    EXPECT_EQ(StatusOf(victim).st_size, 77);
    EXPECT_EQ(StatusOf(other.GetPath() + "/CorvidBackstore.1").st_mode & 07777, 0700);

    std::filesystem::remove(path);
    ASSERT_EQ(link(victim.c_str(), path.c_str()), 0);
    EXPECT_TRUE(backstore.Open(other.GetPath()));
    EXPECT_EQ(backstore.GetPath(), other.GetPath() + "/CorvidBackstore.1/CorvidBackstore.dat");
    EXPECT_EQ(StatusOf(victim).st_size, 77);

    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(backstore.Open(other.GetPath()));
    EXPECT_EQ(backstore.GetPath(), other.GetPath() + "/CorvidBackstore.1/CorvidBackstore.dat");
    backstore.Open(folder.GetPath());
    EXPECT_FALSE(std::filesystem::exists(other.GetPath() + "/CorvidBackstore.1")) << "it goes with its file";
}

TEST_F(BackstoreFileTest, DoesNotTrustAPrivateFolderThatOthersCanEnter) {
    TestFolder const other;
    auto const path = other.GetPath();
    std::filesystem::create_directory(path + "/CorvidBackstore.dat");
    std::filesystem::create_directory(path + "/CorvidBackstore.1");
    std::filesystem::permissions(path + "/CorvidBackstore.1", std::filesystem::perms::all);
    ASSERT_EQ(symlink("/", (path + "/CorvidBackstore.2").c_str()), 0);
    EXPECT_TRUE(backstore.Open(path));
    EXPECT_EQ(backstore.GetPath(), path + "/CorvidBackstore.3/CorvidBackstore.dat");
    backstore.Open(folder.GetPath());
}

TEST_F(BackstoreFileTest, WithoutAPlaceNothingIsEvictedAndItIsSaid) {
    TraceCapture trace;
    EXPECT_FALSE(backstore.Open(folder.GetPath() + "/missing"));
    EXPECT_EQ(trace.Take().size(), 1);
    EXPECT_EQ(backstore.GetPath(), "");
    {
        auto const block = MakeNoiseBlock(1);
        EXPECT_FALSE(block->DisposeIfPossible());
        EXPECT_EQ(trace.Take().size(), 1);
        EXPECT_EQ(Read(*block), MakeNoise(1));
    }
    backstore.Open(folder.GetPath());
}

TEST_F(BackstoreFileTest, MemoryThatIsExhaustedIsNotTakenForAMissingFile) {
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 1024; ++i) { // room for so many slots is had from the start
        blocks.push_back(MakeNoiseBlock(i));
        ASSERT_TRUE(blocks.back()->DisposeIfPossible());
    }
    auto const block = MakeNoiseBlock(1024);
    TraceCapture trace;
    PixelMemory::FailAllocation(1);
    EXPECT_FALSE(block->DisposeIfPossible());
    auto const messages = trace.Take();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_NE(messages[0].find(std::generic_category().message(ENOMEM)), std::string::npos) << messages[0];
    EXPECT_TRUE(block->DisposeIfPossible());
    EXPECT_EQ(Read(*block), MakeNoise(1024));
}

TEST_F(BackstoreFileTest, ANewPlaceKeepsTheOldFileWhileSlotsInItAreInUse) {
    TestFolder const other;
    auto const oldPath = backstore.GetPath();
    auto first = MakeNoiseBlock(1), second = MakeNoiseBlock(2);
    ASSERT_TRUE(first->DisposeIfPossible());
    EXPECT_TRUE(backstore.Open(other.GetPath()));
    EXPECT_EQ(backstore.GetSlotCount(), 0);
    EXPECT_TRUE(std::filesystem::exists(oldPath));
    ASSERT_TRUE(second->DisposeIfPossible());
    EXPECT_EQ(backstore.GetSlotCount(), 1);
    EXPECT_EQ(Read(*first), MakeNoise(1));
    EXPECT_FALSE(std::filesystem::exists(oldPath)) << "its last slot was given up";
    EXPECT_EQ(Read(*second), MakeNoise(2));
    ASSERT_TRUE(first->DisposeIfPossible());
    EXPECT_EQ(backstore.GetSlotCount(), 1);
    first.Reset();
    backstore.Open(folder.GetPath());
}

TEST_F(BackstoreFileTest, OpeningTheSamePlaceAgainWithSlotsInUseHarmsNothing) {
    auto const block = MakeNoiseBlock(1), other = MakeNoiseBlock(2);
    ASSERT_TRUE(block->DisposeIfPossible());
    EXPECT_TRUE(backstore.Open(folder.GetPath()));
    ASSERT_TRUE(other->DisposeIfPossible());
    EXPECT_EQ(Read(*block), MakeNoise(1));
    EXPECT_EQ(Read(*other), MakeNoise(2));
}

TEST_F(BackstoreFileTest, DirectoriesMayEndInASlash) {
    EXPECT_TRUE(backstore.Open(folder.GetPath() + "/"));
    EXPECT_EQ(backstore.GetPath(), Place("CorvidBackstore.dat"));
}

// A child process that works in the same directory, below its limit, and checks its own pixels.
int WorkAsAnotherProcess(std::string const & directory, int answer, int question) {
    auto & backstore = BackstoreFile::Instance();
    if (!backstore.Open(directory))
        return 1;
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 20; ++i) {
        blocks.push_back(Kernel::MakeCounted<Block>());
        blocks.back()->IncrementRefCountMutable();
        std::fill_n(blocks.back()->GetMutableBuffer(), 16384, 1000 + i);
        blocks.back()->DecrementRefCountMutable();
        if (!blocks.back()->DisposeIfPossible())
            return 2;
    }
    char byte = 0;
    if (write(answer, &byte, 1) != 1 || read(question, &byte, 1) != 1) // the parent evicts now
        return 3;
    for (unsigned i = 0; i < 20; ++i) {
        blocks[i]->IncrementRefCountConst();
        if (blocks[i]->GetConstBuffer()[i] != 1000 + i)
            return 4;
        blocks[i]->DecrementRefCountConst();
    }
    return 0;
}

TEST_F(BackstoreFileTest, TwoProcessesWithOneDirectoryKeepOutOfEachOthersWay) {
    TestDisk::Remove();
    int toChild[2], toParent[2];
    ASSERT_TRUE(pipe(toChild) == 0 && pipe(toParent) == 0);
    auto const child = fork();
    if (child == 0) {
        int const result = WorkAsAnotherProcess(folder.GetPath(), toParent[1], toChild[0]);
        std::exit(result); // with the handlers that delete files
    }
    char byte = 0;
    ASSERT_EQ(read(toParent[0], &byte, 1), 1);
    EXPECT_TRUE(std::filesystem::exists(Place("CorvidBackstore.1/CorvidBackstore.dat")));
    std::vector<Kernel::Counted<Block>> blocks;
    for (unsigned i = 0; i < 20; ++i) {
        blocks.push_back(MakeNoiseBlock(i));
        EXPECT_TRUE(blocks.back()->DisposeIfPossible());
    }
    ASSERT_EQ(write(toChild[1], &byte, 1), 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    for (unsigned i = 0; i < 20; ++i)
        EXPECT_EQ(Read(*blocks[i]), MakeNoise(i));
    EXPECT_TRUE(std::filesystem::exists(backstore.GetPath())) << "the other one deletes only what is its own";
    EXPECT_FALSE(std::filesystem::exists(Place("CorvidBackstore.1")));
    for (int const end : {toChild[0], toChild[1], toParent[0], toParent[1]})
        close(end);
    TestDisk::Install();
}

TEST_F(BackstoreFileTest, TheFileIsDeletedWhenTheProcessExits) {
    TestFolder const other;
    auto const child = fork();
    if (child == 0) {
        bool const isOpen = backstore.Open(other.GetPath()) && std::filesystem::exists(backstore.GetPath());
        std::exit(isOpen ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(std::filesystem::exists(other.GetPath() + "/CorvidBackstore.dat"));
}

TEST_F(BackstoreFileTest, SlotsAreWrittenAndReadByManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (unsigned t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < 30; ++i) {
                auto const block = MakeNoiseBlock(100 * t + i);
                if (!block->DisposeIfPossible())
                    ++mismatches;
                mismatches += Read(*block) != MakeNoise(100 * t + i);
            }
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, 0);
    EXPECT_LE(backstore.GetSlotCount(), 4);
}
}
}
