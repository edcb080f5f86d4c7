#include "platform/PathParts.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using platform::FolderAndName;

struct SplitCase {
    const char* path;
    const char* folder;
    const char* name;
};

class SplitFolderAndName : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitFolderAndName, KeepsEverythingButTheSlashesBetweenFolderAndName)
{
    const SplitCase& c = GetParam();
    EXPECT_EQ(platform::splitFolderAndName(c.path), (FolderAndName{c.folder, c.name})) << c.path;
}

INSTANTIATE_TEST_SUITE_P(Table, SplitFolderAndName,
                         ::testing::Values(SplitCase{"a/b", "a", "b"}, SplitCase{"x", "", "x"},
                                           SplitCase{"/x", "/", "x"}, SplitCase{"//x", "/", "x"},
                                           SplitCase{"/", "/", ""}, SplitCase{"///", "/", ""}, SplitCase{"", "", ""},
                                           SplitCase{"/a//b", "/a", "b"}, SplitCase{"/a/b/", "/a", "b"},
                                           SplitCase{"a//b//c//", "a//b", "c"}, SplitCase{"a/..", "a", ".."},
                                           SplitCase{"./x", ".", "x"}, SplitCase{"/a/./b/../c", "/a/./b/..", "c"},
                                           SplitCase{"~/x", "~", "x"}, SplitCase{"/a/Icon\r", "/a", "Icon\r"}));

struct TrimCase {
    const char* path;
    const char* trimmed;
};

class TrimmingTrailingSlashes : public ::testing::TestWithParam<TrimCase> {};

TEST_P(TrimmingTrailingSlashes, DropsOnlyTheSlashesAtTheEnd)
{
    EXPECT_EQ(platform::trimmingTrailingSlashes(GetParam().path), GetParam().trimmed);
}

INSTANTIATE_TEST_SUITE_P(Table, TrimmingTrailingSlashes,
                         ::testing::Values(TrimCase{"/a/b//", "/a/b"}, TrimCase{"/", "/"}, TrimCase{"///", "/"},
                                           TrimCase{"", ""}, TrimCase{"a//b", "a//b"}, TrimCase{"a/./", "a/."}));

struct InsideCase {
    const char* path;
    const char* folder;
    bool inside;
};

class IsInside : public ::testing::TestWithParam<InsideCase> {};

TEST_P(IsInside, IsStrictlyBelowByTextAlone)
{
    const InsideCase& c = GetParam();
    EXPECT_EQ(platform::isInside(c.path, c.folder), c.inside) << c.path << " in " << c.folder;
}

INSTANTIATE_TEST_SUITE_P(Table, IsInside,
                         ::testing::Values(InsideCase{"/a/b/c", "/a/b", true}, InsideCase{"/a/b", "/a/b", false},
                                           InsideCase{"/a/bc", "/a/b", false}, InsideCase{"/a/b/", "/a/b", true},
                                           InsideCase{"/x", "/", true}, InsideCase{"/", "/", false},
                                           InsideCase{"/a/b", "/a/", true}, InsideCase{"a", "", false},
                                           InsideCase{"/a/../b", "/a", true}, InsideCase{"/a//b", "/a/", true}));

struct JoinCase {
    const char* folder;
    const char* name;
    const char* joined;
};

class JoiningPath : public ::testing::TestWithParam<JoinCase> {};

TEST_P(JoiningPath, PutsOneSlashBetweenUnlessOneIsThere)
{
    const JoinCase& c = GetParam();
    EXPECT_EQ(platform::joiningPath(c.folder, c.name), c.joined);
}

INSTANTIATE_TEST_SUITE_P(Table, JoiningPath,
                         ::testing::Values(JoinCase{"/a", "b", "/a/b"}, JoinCase{"/a/", "b", "/a/b"},
                                           JoinCase{"/", "b", "/b"}, JoinCase{"", "b", "b"},
                                           JoinCase{"a//", "b", "a//b"}, JoinCase{"/a", "..", "/a/.."},
                                           JoinCase{"/a", "b/", "/a/b/"}));

}  // namespace
