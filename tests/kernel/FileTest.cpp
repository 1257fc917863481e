#include "TemporaryDirectory.h"

#include "kernel/File.h"
#include "kernel/FileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Kernel;

namespace {
int GetErrorOfOpen(std::string const & path, char const * mode) {
    errno = 0;
    auto const file = File::Open(path.c_str(), mode);
    return file.IsOpen() ? 0 : errno;
}
}

TEST(File, ReadsWhatItWrote) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    auto file = File::Open(path.c_str(), "w+b");
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(file.Write("0123456789", 10), 10u);
    EXPECT_EQ(file.Tell(), 10u);
    EXPECT_EQ(file.WriteAt(4, "AB", 2), 2u);
    EXPECT_EQ(file.GetSize(), 10u);
    char text[11] = {};
    file.SetPosition(2);
    EXPECT_EQ(file.Read(text, 10), 8u) << "ends at the end of the file";
    EXPECT_STREQ(text, "23AB6789");
    EXPECT_EQ(file.ReadAt(0, text, 3), 3u);
    EXPECT_EQ(file.Tell(), 10u) << "a positioned read leaves the position alone";
    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(GetFile(path), "0123AB6789");
}

TEST(File, KeepsToItsMode) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    EXPECT_EQ(GetErrorOfOpen(path, "rb"), ENOENT);
    EXPECT_EQ(GetErrorOfOpen(path, "r+b"), ENOENT);
    EXPECT_EQ(GetErrorOfOpen(path, "wbx"), 0);
    EXPECT_EQ(GetErrorOfOpen(path, "wbx"), EEXIST);
    PutFile(path, "content");
    EXPECT_EQ(File::Open(path.c_str(), "rb").Write("x", 1), 0u);
    EXPECT_EQ(File::Open(path.c_str(), "r+b").Write("C", 1), 1u);
    EXPECT_EQ(GetFile(path), "Content");
    char byte;
    EXPECT_EQ(File::Open(path.c_str(), "wb").Read(&byte, 1), 0u);
    EXPECT_EQ(GetFile(path), "");
    for (char const * const mode : {"", "a", "ab", "rx", "q", "rz", "br"})
        EXPECT_EQ(GetErrorOfOpen(path, mode), EINVAL) << mode;
    EXPECT_FALSE(File::Open(nullptr, "rb").IsOpen());
    EXPECT_FALSE(File::Open(path.c_str(), nullptr).IsOpen());
}

TEST(File, RefusesDirectoriesAndPipesAtOnce) {
    TemporaryDirectory const directory;
    auto const pipe = directory.GetPath("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(GetErrorOfOpen(directory.GetPath(), "rb"), EISDIR);
    EXPECT_EQ(GetErrorOfOpen(directory.GetPath(), "wb"), EISDIR);
    EXPECT_EQ(GetErrorOfOpen(pipe, "rb"), ESPIPE) << "and does not wait for a writer";
    EXPECT_NE(GetErrorOfOpen(pipe, "wb"), 0);
    EXPECT_EQ(GetErrorOfOpen("/dev/zero", "rb"), ESPIPE);
}

TEST(File, IsNotInheritedAndBlocks) {
    TemporaryDirectory const directory;
    auto const file = File::Open(directory.GetPath("file").c_str(), "wb");
    EXPECT_EQ(fcntl(file.GetDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(file.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(File, ReachesBeyondFourGibibytes) {
    TemporaryDirectory const directory;
    auto file = File::Open(directory.GetPath("sparse").c_str(), "w+b");
    std::uint64_t const offset = (std::uint64_t(5) << 30) + 3;
    ASSERT_EQ(file.WriteAt(offset, "far", 3), 3u);
    EXPECT_EQ(file.GetSize(), offset + 3);
    char text[4] = {};
    EXPECT_EQ(file.ReadAt(offset, text, 3), 3u);
    EXPECT_STREQ(text, "far");
    EXPECT_EQ(file.ReadAt(std::uint64_t(1) << 63, text, 1), 0u);
    EXPECT_EQ(file.WriteAt(~std::uint64_t(0), text, 3), 0u);
}

TEST(File, MovesAndGivesItsDescriptorAway) {
    TemporaryDirectory const directory;
    auto first = File::Open(directory.GetPath("file").c_str(), "w+b");
    first.Write("abc", 3);
    int const descriptor = first.GetDescriptor();
    File second(std::move(first));
    EXPECT_FALSE(first.IsOpen());
    EXPECT_EQ(second.Tell(), 3u);
    File third;
    third = std::move(second);
    EXPECT_EQ(third.Detach(), descriptor);
    EXPECT_FALSE(third.IsOpen());
    EXPECT_EQ(close(descriptor), 0) << "nobody else has closed it";
}

TEST(File, OpensDescriptorsForLibraries) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    PutFile(path, "content");
    int const descriptor = File::OpenUnmanaged(path.c_str(), "rb");
    char text[8] = {};
    EXPECT_EQ(read(descriptor, text, 7), 7);
    EXPECT_STREQ(text, "content");
    close(descriptor);
    try {
        File::OpenUnmanaged(directory.GetPath("missing").c_str(), "rb");
        FAIL() << "should have thrown";
    } catch (File::OpenUnmanagedException const & exception) {
        EXPECT_EQ(exception.GetErrorNumber(), ENOENT);
        EXPECT_NE(std::string(exception.what()).find("missing: No such file"), std::string::npos) << exception.what();
    }
}

TEST(FileSystem, AnswersForFilesDirectoriesAndNothing) {
    TemporaryDirectory const directory;
    auto const path = directory.GetPath("file");
    PutFile(path, "12345");
    StringUtf8 const file(path.c_str()), folder(directory.GetPath().c_str()),
        missing(directory.GetPath("missing").c_str());
    EXPECT_TRUE(FileSystem::Exists(file) && FileSystem::IsFile(file) && !FileSystem::IsDirectory(file));
    EXPECT_TRUE(FileSystem::Exists(folder) && !FileSystem::IsFile(folder) && FileSystem::IsDirectory(folder));
    EXPECT_FALSE(FileSystem::Exists(missing) || FileSystem::IsFile(missing) || FileSystem::IsDirectory(missing));
    EXPECT_EQ(FileSystem::GetSize(file), 5u);
    EXPECT_EQ(FileSystem::GetSize(folder), std::nullopt);
    EXPECT_EQ(FileSystem::GetSize(missing), std::nullopt);
    EXPECT_FALSE(FileSystem::Exists("")) << "an empty path";
}

TEST(FileSystem, DeletesRenamesAndMakesDirectories) {
    TemporaryDirectory const directory;
    StringUtf8 const nested(directory.GetPath("a/b/c").c_str());
    EXPECT_TRUE(FileSystem::CreateDirectory(nested));
    EXPECT_TRUE(FileSystem::CreateDirectory(nested)) << "again: it is there";
    StringUtf8 const one(directory.GetPath("a/one").c_str()), two(directory.GetPath("a/two").c_str());
    PutFile(one.GetCharacters(), "one");
    PutFile(two.GetCharacters(), "two");
    EXPECT_FALSE(FileSystem::CreateDirectory(one)) << "a file is in the way";
    EXPECT_TRUE(FileSystem::Rename(one, two));
    EXPECT_EQ(GetFile(two.GetCharacters()), "one");
    EXPECT_FALSE(FileSystem::Rename(one, two));
    EXPECT_TRUE(FileSystem::Delete(two));
    EXPECT_FALSE(FileSystem::Delete(two));
    EXPECT_TRUE(FileSystem::Delete(nested));
    EXPECT_FALSE(FileSystem::Delete(directory.GetPath().c_str())) << "not empty";
}

TEST(FileSystem, MakesTemporaryFilesOfItsOwn) {
    std::set<std::string> names;
    for (int i = 0; i < 20; ++i) {
        auto const path = FileSystem::GetUniqueTemporaryFilename("raster-test-%1.tmp");
        ASSERT_FALSE(path.IsEmpty());
        struct stat status;
        ASSERT_EQ(stat(path.GetCharacters(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_EQ(status.st_size, 0);
        EXPECT_TRUE(path.GetView().ends_with(".tmp"));
        names.insert(path.GetCharacters());
    }
    EXPECT_EQ(names.size(), 20u);
    for (auto const & name : names)
        EXPECT_TRUE(FileSystem::Delete(name.c_str()));
}

TEST(FileSystem, GivesNoTemporaryNameWhereNoneCanBe) {
    EXPECT_TRUE(FileSystem::GetUniqueTemporaryFilename("no-such-directory/%1.tmp").IsEmpty());
    auto const first = FileSystem::GetUniqueTemporaryFilename("raster-test-fixed-name");
    ASSERT_FALSE(first.IsEmpty());
    EXPECT_TRUE(FileSystem::GetUniqueTemporaryFilename("raster-test-fixed-name").IsEmpty()) << "the name is taken";
    FileSystem::Delete(first);
}
