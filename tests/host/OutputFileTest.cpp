#include "host/OutputFile.h"

#include "host/Failure.h"
#include "kernel/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Host {
namespace {
std::size_t CountFiles(std::string const & folder) {
    auto const files = std::filesystem::directory_iterator(folder);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

void Write(OutputFile & output, std::string const & content) {
    ASSERT_EQ(content.size(), output.GetStream()->Write(content.data(), content.size()));
}

template<class Work>
std::string GetFailureOf(Work && work) {
    try {
        work();
    } catch (Failure const & failure) {
        return failure.what();
    }
    return "no failure";
}

class OutputFileTest : public testing::Test {
protected:
    TemporaryDirectory directory;
    std::string const path = directory.GetPath("out.png");
};

TEST_F(OutputFileTest, IsNotSeenBeforeItIsCommitted) {
    {
        OutputFile output(path, Existing::Replace);
        Write(output, "new");
        EXPECT_FALSE(std::filesystem::exists(path));
        output.Commit();
    }
    EXPECT_EQ("new", GetFile(path));
    EXPECT_EQ(1u, CountFiles(directory.GetPath()));
    mode_t const mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(0666 & ~mask, unsigned(std::filesystem::status(path).permissions()));
}

TEST_F(OutputFileTest, LeavesNothingIfItIsNotCommitted) {
    PutFile(path, "old");
    {
        OutputFile output(path, Existing::Replace);
        Write(output, std::string(3 << 20, 'x'));
    }
    EXPECT_EQ("old", GetFile(path));
    EXPECT_EQ(1u, CountFiles(directory.GetPath()));
}

TEST_F(OutputFileTest, KeepsTheModeOfTheFileThatItReplaces) {
    PutFile(path, "old");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
    OutputFile output(path, Existing::Replace);
    Write(output, "new");
    output.Commit();
    EXPECT_EQ("new", GetFile(path));
    EXPECT_EQ(0640u, unsigned(std::filesystem::status(path).permissions()));
}

TEST_F(OutputFileTest, FollowsLinksAndKeepsThem) {
    std::filesystem::create_directory(directory.GetPath("real"));
    auto const target = directory.GetPath("real/file.png");
    std::filesystem::create_symlink("real/file.png", directory.GetPath("relative"));
    std::filesystem::create_symlink(directory.GetPath("relative"), path);
    for (std::string const content : {"first", "second"}) { // a link that leads nowhere yet, then to a file
        OutputFile output(path, Existing::Replace);
        Write(output, content);
        output.Commit();
        EXPECT_EQ(content, GetFile(target));
        EXPECT_TRUE(std::filesystem::is_symlink(path));
        EXPECT_EQ(1u, CountFiles(directory.GetPath("real")));
    }
    std::filesystem::create_symlink("loop", directory.GetPath("loop"));
    EXPECT_NE("no failure", GetFailureOf([&] { OutputFile(directory.GetPath("loop"), Existing::Replace); }));
}

TEST_F(OutputFileTest, NeverReplacesWhatHasToStay) {
    {
        OutputFile output(path, Existing::Keep);
        Write(output, "mine");
        PutFile(path, "came in between");
        EXPECT_NE(std::string::npos, GetFailureOf([&] { output.Commit(); }).find("--no-clobber"));
    }
    EXPECT_EQ("came in between", GetFile(path));
    EXPECT_EQ(1u, CountFiles(directory.GetPath()));
    EXPECT_NE(std::string::npos, GetFailureOf([&] { OutputFile(path, Existing::Keep); }).find("--no-clobber"));
    EXPECT_NE(std::string::npos, GetFailureOf([&] { OutputFile::Check(path, Existing::Keep); }).find("--no-clobber"));
}

TEST_F(OutputFileTest, TellsWhyAPathCannotBeWritten) {
    auto const fail = [](std::string const & name) {
        auto const checked = GetFailureOf([&] { OutputFile::Check(name, Existing::Replace); });
        EXPECT_EQ(checked, GetFailureOf([&] { OutputFile(name, Existing::Replace); }));
        return checked;
    };
    EXPECT_EQ("is a folder; name a file in it", fail(directory.GetPath()));
    EXPECT_NE(std::string::npos, fail(directory.GetPath("none/out.png")).find("make it first"));
    EXPECT_NE(std::string::npos, fail(directory.GetPath("new/")).find("choose another name"));
    PutFile(path, "a file");
    EXPECT_NE(std::string::npos, fail(path + "/out.png").find("is no folder"));
    ASSERT_EQ(0, ::mkfifo(directory.GetPath("pipe").c_str(), 0600));
    EXPECT_EQ("is a pipe; use '-' to write to standard output", fail(directory.GetPath("pipe")));
    if (::geteuid() != 0) {
        std::filesystem::create_directory(directory.GetPath("closed"));
        ::chmod(directory.GetPath("closed").c_str(), 0500);
        EXPECT_NE(std::string::npos, fail(directory.GetPath("closed/out.png")).find("choose another one"));
    }
}

TEST_F(OutputFileTest, WritesDevicesAsTheyAre) {
    OutputFile output("/dev/null", Existing::Replace);
    Write(output, "gone");
    output.Commit();
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(OutputFileTest, TellsThatTheDiskIsFull) {
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    rlimit const small{100000, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
    std::string failure;
    {
        OutputFile output(path, Existing::Replace);
        std::string const content(200000, 'x');
        output.GetStream()->Write(content.data(), content.size());
        failure = GetFailureOf([&] { output.Commit(); });
    }
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_NE(std::string::npos, failure.find("ulimit -f")) << failure;
    EXPECT_EQ(0u, CountFiles(directory.GetPath()));
}

TEST_F(OutputFileTest, MayBeWrittenInAnyOrder) {
    OutputFile output(path, Existing::Replace);
    auto const & stream = output.GetStream();
    std::string const large(2 << 20, 'l');
    Write(output, "abc");
    EXPECT_TRUE(stream->Seek(Kernel::SeekOrigin::Start, 1));
    Write(output, "X");
    EXPECT_TRUE(stream->Seek(Kernel::SeekOrigin::End, 2));
    Write(output, large);
    EXPECT_EQ(5 + large.size(), stream->Tell());
    EXPECT_EQ(5 + large.size(), stream->GetSize());
    output.Commit();
    EXPECT_EQ("aXc" + std::string(2, '\0') + large, GetFile(path));
}
}
}
