// The tree remover's guard against a protected set built for a small system
// under a temporary folder: every account's standard home folders are
// refused, not only the running user's, and a protected folder met inside a
// folder being removed stays with everything in it and with the folders
// above it. Each case runs through removePath and removeRelative.
#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/ProtectedFolders.h"
#include "platform/RemovalRefusal.h"
#include "platform/TreeRemover.h"
#include "tests/support/TempDir.h"

namespace {

using platform::ProtectedFolders;
using platform::RemovalRefusal;
using platform::TreeRemover;
using testsupport::present;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

enum class Call { RemovePath, RemoveRelative };

void PrintTo(Call call, std::ostream* out)
{
    *out << (call == Call::RemovePath ? "RemovePath" : "RemoveRelative");
}

struct Failure {
    std::string path;
    std::error_code reason;
};

class DestroyGuardTest : public testing::TestWithParam<Call> {
protected:
    // Removes `relative` below the temporary root through the call under
    // test, with the set in place; the failures the handler was told of go
    // to `failures`.
    bool destroy(const ProtectedFolders& folders, const std::string& relative, std::error_code& error)
    {
        TreeRemover remover;
        remover.setProtectedFolders(folders);
        remover.setFailureHandler([this](const std::string& path, std::error_code reason) {
            failures.push_back({path, reason});
        });
        return GetParam() == Call::RemovePath ? remover.removePath(root.at(relative), &error)
                                              : remover.removeRelative(root.path(), relative, &error);
    }

    std::string at(const std::string& relative) const { return root.at(relative); }

    TempDir root;
    std::vector<Failure> failures;
};

TEST_P(DestroyGuardTest, StandardFoldersOfEveryAccountsHomeAreRefused)
{
    const std::vector<std::string> homes{"home/alice", "Users/bob", "root"};
    // The deepest first: each is tried while the one above it is still there.
    const std::vector<std::string> standard{"Library/Keychains", "Documents", "Desktop", "Library"};
    for (const std::string& home : homes) {
        for (const std::string& folder : standard) {
            writeFile(at(home) + "/" + folder + "/kept", "k");
        }
    }
    const ProtectedFolders folders(
        ProtectedFolders::standardLists(root.path(), {at("home/alice"), at("Users/bob")}, at("root"), std::nullopt));

    for (const std::string& home : homes) {
        for (const std::string& folder : standard) {
            std::string relative = home;
            relative += "/";
            relative += folder;
            std::error_code error;
            EXPECT_FALSE(destroy(folders, relative, error)) << relative;
            EXPECT_EQ(error, RemovalRefusal::HomeStandardFolder) << relative << ": " << error.message();
            EXPECT_EQ(error.message(), "a standard folder of the home folder") << relative;
            EXPECT_TRUE(present(at(relative + "/kept"))) << relative;
        }
    }
}

TEST_P(DestroyGuardTest, WhatIsInsideAnotherAccountsStandardFolderStillGoes)
{
    writeFile(at("home/alice/Documents/draft/page"), "p");
    writeFile(at("home/alice/Library/Keychains/old.keychain"), "o");
    const ProtectedFolders folders(
        ProtectedFolders::standardLists(root.path(), {at("home/alice")}, at("root"), std::nullopt));
    std::error_code error;
    EXPECT_TRUE(destroy(folders, "home/alice/Documents/draft", error)) << error.message();
    EXPECT_TRUE(destroy(folders, "home/alice/Library/Keychains/old.keychain", error)) << error.message();
    EXPECT_TRUE(failures.empty());
    EXPECT_FALSE(present(at("home/alice/Documents/draft")));
    EXPECT_FALSE(present(at("home/alice/Library/Keychains/old.keychain")));
    EXPECT_TRUE(present(at("home/alice/Library/Keychains")));
}

// A protected folder inside the folder being removed: an account's home
// or the running program's bundle.
struct Nested {
    const char* name;
    const char* protectedFolder;  // below the temporary root
    RemovalRefusal reason;        // HomeFolder or RunningBundle
    const char* reasonText;
};

void PrintTo(const Nested& nested, std::ostream* out)
{
    *out << nested.name;
}

const Nested kNested[] = {
    {"ServiceAccountsHome", "Vendor/Accounts/svc", RemovalRefusal::HomeFolder, "a home folder"},
    {"RunningBundle", "Vendor/Support/Tool.app", RemovalRefusal::RunningBundle, "the running program's bundle"},
};

class NestedProtectedFolderTest : public testing::TestWithParam<std::tuple<Call, Nested>> {
protected:
    TempDir root;
};

TEST_P(NestedProtectedFolderTest, StaysWithWhatIsInItAndTheFoldersAboveItWhileTheRestGoes)
{
    const auto& [call, nested] = GetParam();
    const std::string kept = nested.protectedFolder;
    const std::string above = kept.substr(0, kept.rfind('/'));
    writeFile(root.at(kept + "/inside/file"), "i");
    writeFile(root.at(kept + "/top"), "t");
    writeFile(root.at(above + "/beside"), "b");
    writeFile(root.at("Vendor/file"), "f");
    writeFile(root.at("Vendor/Other/deep/file"), "o");
    const bool isHome = nested.reason == RemovalRefusal::HomeFolder;
    const ProtectedFolders folders(ProtectedFolders::standardLists(
        root.path(), isHome ? std::vector<std::string>{root.at(kept)} : std::vector<std::string>{},
        root.at("home/runner"), isHome ? std::nullopt : std::optional<std::string>(root.at(kept))));

    TreeRemover remover;
    remover.setProtectedFolders(folders);
    std::vector<Failure> failures;
    remover.setFailureHandler([&failures](const std::string& path, std::error_code reason) {
        failures.push_back({path, reason});
    });
    std::error_code error;
    const bool removed = call == Call::RemovePath ? remover.removePath(root.at("Vendor"), &error)
                                                  : remover.removeRelative(root.path(), "Vendor", &error);

    EXPECT_FALSE(removed);
    EXPECT_EQ(error, nested.reason) << error.message();
    ASSERT_EQ(failures.size(), 1U);
    EXPECT_EQ(failures[0].path, root.at(kept));
    EXPECT_EQ(failures[0].reason.message(), nested.reasonText);
    EXPECT_EQ(readFile(root.at(kept + "/inside/file")), "i");
    EXPECT_EQ(readFile(root.at(kept + "/top")), "t");
    // Every folder from the listed one down to the protected one stays.
    for (std::string folder = kept; folder.find('/') != std::string::npos;) {
        folder = folder.substr(0, folder.rfind('/'));
        EXPECT_TRUE(present(root.at(folder))) << folder;
    }
    EXPECT_FALSE(present(root.at(above + "/beside")));
    EXPECT_FALSE(present(root.at("Vendor/file")));
    EXPECT_FALSE(present(root.at("Vendor/Other")));
}

INSTANTIATE_TEST_SUITE_P(BothCalls, DestroyGuardTest, testing::Values(Call::RemovePath, Call::RemoveRelative),
                         [](const testing::TestParamInfo<Call>& info) {
                             return info.param == Call::RemovePath ? "RemovePath" : "RemoveRelative";
                         });

INSTANTIATE_TEST_SUITE_P(BothCalls, NestedProtectedFolderTest,
                         testing::Combine(testing::Values(Call::RemovePath, Call::RemoveRelative),
                                          testing::ValuesIn(kNested)),
                         [](const testing::TestParamInfo<std::tuple<Call, Nested>>& info) {
                             return std::string(std::get<0>(info.param) == Call::RemovePath ? "RemovePath_"
                                                                                            : "RemoveRelative_") +
                                    std::get<1>(info.param).name;
                         });

TEST(DestroyGuardEmptyFolders, AnEmptyProtectedFolderStaysWhenOnlyEmptyFoldersGo)
{
    TempDir root;
    testsupport::makeDirectories(root.at("home/alice/Documents"));
    testsupport::makeDirectories(root.at("home/alice/Projects/old"));
    const ProtectedFolders folders(
        ProtectedFolders::standardLists(root.path(), {root.at("home/alice")}, root.at("root"), std::nullopt));
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    remover.setEmptyFoldersOnly(true);
    std::error_code error;
    EXPECT_FALSE(remover.removePath(root.at("home/alice/Documents"), &error));
    EXPECT_EQ(error, std::errc::operation_not_permitted);
    EXPECT_TRUE(present(root.at("home/alice/Documents")));
    EXPECT_TRUE(remover.removePath(root.at("home/alice/Projects/old"), &error));
    EXPECT_FALSE(present(root.at("home/alice/Projects/old")));
}

}  // namespace
