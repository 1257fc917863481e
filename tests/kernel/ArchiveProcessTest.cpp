// Documents and other processes: savers that are killed, and savers that compete.
#include "kernel/Album.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/Dispatch.h"
#include "kernel/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using namespace Kernel;
using namespace AlbumForTests;

namespace {
#ifdef RASTER_SANITIZED
constexpr int kills = 100, savesOfEach = 50;
#else
constexpr int kills = 1000, savesOfEach = 500;
#endif

class ArchiveProcess : public testing::Test {
protected:
    // A child must not inherit threads.
    ArchiveProcess() { Dispatch::SetThreadCount(1); }
    ~ArchiveProcess() override { Dispatch::SetThreadCount(0); }

    std::string GetPath() const { return directory.GetPath("album.doc"); }

    // The state of number `n` has the same bytes everywhere, so that a mixture of two states shows.
    static std::vector<std::uint8_t> BytesOfState(unsigned n) { return MakeBytes(n, 3000); }

    static unsigned GetState(Counted<Archive> const & archive) {
        auto const stream = archive->OpenStream("State");
        std::uint32_t state = 0;
        if (!stream || !stream->Read(state))
            return 0;
        return state;
    }

    static void SaveState(Counted<Archive> const & archive, Album & album, unsigned n, ArchiveSaveMode mode) {
        for (auto const & blob : album.blobs)
            Change(blob, BytesOfState(n));
        auto session = archive->CreateSession(mode);
        session->StoreObject("Album.dat", album);
        session->StoreStream("State", &n, sizeof n);
        archive->CloseSession(std::move(session));
    }

    // Whether somebody has left a save half done: bytes behind the last footer, or a file beside the document.
    bool HasUnfinishedSave(Counted<Archive> const & archive) const {
        auto const files = std::distance(std::filesystem::directory_iterator(directory.GetPath()), {});
        return files != 1 || std::filesystem::file_size(GetPath()) != archive->GetInfo().fileBytes;
    }

    TemporaryDirectory directory;
};
}

TEST_F(ArchiveProcess, KilledSaverLeavesTheLastDocumentThatItConfirmedOrTheNext) {
    {
        auto album = MakeAlbum(3);
        SaveState(Archive::Create(GetPath(), "Test"), album, 1, ArchiveSaveMode::Update);
    }
    std::mt19937 random(11);
    unsigned confirmed = 1;
    int beforeItWasTold = 0, halfway = 0;
    for (int i = 0; i < kills; ++i) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        pid_t const child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            auto const archive = Archive::Open(GetPath(), "Test");
            auto album = Load(archive);
            for (unsigned n = GetState(archive) + 1;; ++n) {
                SaveState(archive, album, n, n % 16 == 0 ? ArchiveSaveMode::Compact : ArchiveSaveMode::Update);
                if (write(report[1], &n, sizeof n) != sizeof n)
                    _exit(1);
            }
        }
        usleep(static_cast<useconds_t>(1000 + random() % 6000));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself";
        close(report[1]);
        unsigned last = 0;
        while (read(report[0], &last, sizeof last) == sizeof last)
            confirmed = last;
        close(report[0]);

        auto const archive = Archive::Open(GetPath(), "Test");
        unsigned const state = GetState(archive);
        ASSERT_TRUE(state == confirmed || state == confirmed + 1) << state << " after " << confirmed;
        beforeItWasTold += state != confirmed;
        halfway += HasUnfinishedSave(archive);
        for (auto const & blob : Load(archive).blobs)
            ASSERT_EQ(BytesOf(blob), BytesOfState(state));
        confirmed = state;
        if (i % 50 == 0) {
            ASSERT_THAT(VerifyArchive(GetPath()).problems, testing::IsEmpty());
        }
    }
    EXPECT_GT(confirmed, 1u);
    RecordProperty("SavesUntilTheEnd", static_cast<int>(confirmed));
    RecordProperty("KilledAfterTheFooter", beforeItWasTold);
    RecordProperty("KilledBeforeTheFooter", halfway);
    EXPECT_GT(halfway, kills / 50) << "hardly any was killed in the midst of a save";
    // What killed savers left beside the document is removed by the next one.
    auto const archive = Archive::Open(GetPath(), "Test");
    auto album = Load(archive);
    SaveState(archive, album, confirmed + 1, ArchiveSaveMode::Compact);
    int files = 0;
    for ([[maybe_unused]] auto const & entry : std::filesystem::directory_iterator(directory.GetPath()))
        ++files;
    EXPECT_EQ(files, 1);
}

TEST_F(ArchiveProcess, NoSaveOfTwoProcessesIsLostSilently) {
    {
        auto album = MakeAlbum(2);
        SaveState(Archive::Create(GetPath(), "Test"), album, 0, ArchiveSaveMode::Update);
    }
    std::vector<pid_t> children;
    for (int child = 0; child < 2; ++child) {
        pid_t const pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int saved = 0; saved < savesOfEach;) {
                try {
                    auto const archive = Archive::Open(GetPath(), "Test");
                    auto album = Load(archive);
                    SaveState(archive, album, GetState(archive) + 1,
                              saved % 32 == 0 ? ArchiveSaveMode::Compact : ArchiveSaveMode::Update);
                    ++saved;
                } catch (ArchiveError const & error) {
                    // The only thing that may happen: the other one was faster.
                    if (error.GetKind() != ArchiveError::Kind::Changed && error.GetKind() != ArchiveError::Kind::Busy)
                        _exit(2);
                }
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t const child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    auto const archive = Archive::Open(GetPath(), "Test");
    EXPECT_EQ(GetState(archive), 2u * savesOfEach) << "every save added one";
    EXPECT_THAT(VerifyArchive(GetPath()).problems, testing::IsEmpty());
}

// Each finds nothing at the path; all commit at once.
TEST_F(ArchiveProcess, OneOfManyThatMakeADocumentAtOnceSucceeds) {
    constexpr int savers = 6, rounds = 20;
    for (int round = 0; round < rounds; ++round) {
        int ready[2], start[2];
        ASSERT_EQ(pipe(ready), 0);
        ASSERT_EQ(pipe(start), 0);
        std::vector<pid_t> children;
        for (int child = 0; child < savers; ++child) {
            pid_t const pid = fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                char byte = 0;
                auto const number = static_cast<std::uint32_t>(child + 1);
                try {
                    auto const archive = Archive::Create(GetPath(), "Test");
                    auto session = archive->CreateSession();
                    session->StoreStream("State", &number, sizeof number);
                    close(start[1]);
                    if (write(ready[1], &byte, 1) != 1 || read(start[0], &byte, 1) != 0) // until it is closed
                        _exit(200);
                    archive->CloseSession(std::move(session));
                } catch (ArchiveError const & error) {
                    _exit(error.GetKind() == ArchiveError::Kind::Changed ? 100 : 201);
                }
                _exit(child + 1);
            }
            children.push_back(pid);
        }
        close(ready[1]);
        char byte = 0;
        for (int child = 0; child < savers; ++child)
            ASSERT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(start[0]);
        close(start[1]);
        std::vector<int> results;
        for (pid_t const child : children) {
            int status = 0;
            waitpid(child, &status, 0);
            results.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        }
        std::sort(results.begin(), results.end());
        auto const state = GetState(Archive::Open(GetPath(), "Test"));
        EXPECT_EQ(results.front(), static_cast<int>(state)) << "the one that was told so is there";
        EXPECT_EQ(results[1], 100);
        EXPECT_EQ(results.back(), 100) << "the others were told that there is another";
        std::filesystem::remove(GetPath());
        EXPECT_TRUE(std::filesystem::is_empty(directory.GetPath())) << "something is left behind";
    }
}
