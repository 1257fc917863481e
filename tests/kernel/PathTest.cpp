#include "kernel/Path.h"

#include <gtest/gtest.h>

namespace {
using Kernel::Path;
using Kernel::PathTraitsDos;
using Kernel::StringUtf8;

StringUtf8 Append(char const * directory, char const * name) {
    return PathTraitsDos::Append(StringUtf8(directory), StringUtf8(name));
}

TEST(Path, AppendPutsOneSeparatorBetweenTheParts) {
    EXPECT_EQ(Append("a", "b"), "a/b");
    EXPECT_EQ(Append("a/", "b"), "a/b");
    EXPECT_EQ(Append("a", "/b"), "a/b");
    EXPECT_EQ(Append("a/", "//b/"), "a/b/");
    EXPECT_EQ(Append("/", "b"), "/b");
    EXPECT_EQ(Append("", "b"), "b");
    EXPECT_EQ(Append("a", ""), "a");
    EXPECT_EQ(Append("a", "/"), "a/");
    EXPECT_EQ(Append("a\\", "b"), "a\\/b");
    EXPECT_EQ(Append("\xC3\xA9", "\xFF"), "\xC3\xA9/\xFF"); // opened as they are, well-formed or not
}

TEST(Path, TakesFileNameDirectoryAndExtensionApart) {
    struct {
        char const *path, *directory, *name, *extension;
    } const cases[] = {{"/a/b.tar.gz", "/a", "b.tar.gz", "gz"},
                       {"b.png", "", "b.png", "png"},
                       {"/b", "/", "b", ""},
                       {"a.d/b", "a.d", "b", ""},
                       {"a/", "a", "", ""},
                       {".hidden", "", ".hidden", ""},
                       {"a.", "", "a.", ""},
                       {"/", "/", "", ""},
                       {"", "", "", ""}};
    for (auto const & expected : cases) {
        Path const path(expected.path);
        EXPECT_EQ(path.GetDirectory().GetString(), expected.directory) << expected.path;
        EXPECT_EQ(path.GetFileName(), expected.name) << expected.path;
        EXPECT_EQ(path.GetExtension(), expected.extension) << expected.path;
    }
}

TEST(Path, ComparesAsText) {
    EXPECT_EQ(Path("a").Append("b"), Path("a/b"));
    EXPECT_LT(Path("a"), Path("b"));
    EXPECT_TRUE(Path().IsEmpty());
}
}
