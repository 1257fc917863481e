#include "kernel/MoveToFreeName.h"

#include "kernel/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace Kernel;

namespace {
class MoveToFreeNameBy : public testing::TestWithParam<FreeNameMeans> {
protected:
    bool Move() const { return MoveToFreeName(from.c_str(), to.c_str(), GetParam()); }

    TemporaryDirectory const directory;
    std::string const from = directory.GetPath("from"), to = directory.GetPath("to");
};
}

TEST_P(MoveToFreeNameBy, GivesTheFileTheOtherName) {
    PutFile(from, "content");
    ASSERT_TRUE(Move());
    EXPECT_EQ(GetFile(to), "content");
    EXPECT_FALSE(std::filesystem::exists(from));
}

TEST_P(MoveToFreeNameBy, LeavesBothWhereTheNameIsTaken) {
    PutFile(from, "content");
    PutFile(to, "other");
    EXPECT_FALSE(Move());
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(GetFile(from), "content");
    EXPECT_EQ(GetFile(to), "other");
}

TEST_P(MoveToFreeNameBy, LeavesALinkThatLeadsNowhere) {
    PutFile(from, "content");
    std::filesystem::create_symlink("nowhere", to);
    EXPECT_FALSE(Move());
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(std::filesystem::is_symlink(to));
}

TEST_P(MoveToFreeNameBy, SaysWhyItFailed) {
    EXPECT_FALSE(Move());
    EXPECT_EQ(errno, ENOENT);
}

INSTANTIATE_TEST_SUITE_P(All, MoveToFreeNameBy,
                         testing::Values(FreeNameMeans::Rename, FreeNameMeans::Link, FreeNameMeans::Look));
