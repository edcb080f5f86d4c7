#include "platform/Bundle.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <string>

#include "platform/PropertyList.h"
#include "platform/ProtectedFolders.h"
#include "platform/RemovalRefusal.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/TempDir.h"

namespace {

using platform::Bundle;
using platform::PropertyList;

constexpr const char* kExpectedMainBundleVariable = "PLATFORM_TESTS_EXPECTED_MAIN_BUNDLE";

void writeInfo(const std::string& bundle, PropertyList::Dictionary entries)
{
    testsupport::makeDirectories(bundle + "/Contents");
    ASSERT_TRUE(PropertyList::dictionary(std::move(entries)).writeToFile(bundle + "/Contents/Info.plist", true));
}

PropertyList::Dictionary probeInfo()
{
    PropertyList::Dictionary entries;
    entries.emplace("CFBundleIdentifier", PropertyList::string("com.example.probe"));
    entries.emplace("CFBundleExecutable", PropertyList::string("probe"));
    entries.emplace("CFBundleVersion", PropertyList::string("1.2"));
    entries.emplace("Count", PropertyList::integer(3));
    return entries;
}

TEST(BundleTest, BundleWithPathNeedsAnExistingFolder)
{
    testsupport::TempDir dir;
    EXPECT_FALSE(Bundle::bundleWithPath(dir.at("Missing.app")).has_value());
    testsupport::writeFile(dir.at("File.app"), "not a folder");
    EXPECT_FALSE(Bundle::bundleWithPath(dir.at("File.app")).has_value());
    EXPECT_FALSE(Bundle::bundleWithPath("").has_value());
    testsupport::makeDirectories(dir.at("Empty.app"));
    const auto bundle = Bundle::bundleWithPath(dir.at("Empty.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->bundlePath(), dir.at("Empty.app"));
}

TEST(BundleTest, BundlePathDropsTrailingSlashes)
{
    testsupport::TempDir dir;
    testsupport::makeDirectories(dir.at("X.app"));
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app//"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->bundlePath(), dir.at("X.app"));
}

TEST(BundleTest, AnswersInfoDictionaryIdentifierAndInfoKeys)
{
    testsupport::TempDir dir;
    writeInfo(dir.at("X.app"), probeInfo());
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    const auto info = bundle->infoDictionary();
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(*info, PropertyList::dictionary(probeInfo()));
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.probe");
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("CFBundleVersion"), PropertyList::string("1.2"));
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("Count"), PropertyList::integer(3));
    EXPECT_FALSE(bundle->objectForInfoDictionaryKey("Missing").has_value());
}

TEST(BundleTest, InfoIsReadAfreshEachTime)
{
    testsupport::TempDir dir;
    writeInfo(dir.at("X.app"), probeInfo());
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.probe");
    PropertyList::Dictionary changed;
    changed.emplace("CFBundleIdentifier", PropertyList::string("com.example.changed"));
    writeInfo(dir.at("X.app"), changed);
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.changed");
}

TEST(BundleTest, NoInfoWithoutAReadableDictionary)
{
    testsupport::TempDir dir;
    testsupport::makeDirectories(dir.at("None.app"));
    const auto none = Bundle::bundleWithPath(dir.at("None.app"));
    ASSERT_TRUE(none.has_value());
    EXPECT_FALSE(none->infoDictionary().has_value());
    EXPECT_FALSE(none->bundleIdentifier().has_value());
    EXPECT_FALSE(none->objectForInfoDictionaryKey("CFBundleIdentifier").has_value());

    testsupport::writeFile(dir.at("Garbage.app/Contents/Info.plist"), "garbage");
    EXPECT_FALSE(Bundle::bundleWithPath(dir.at("Garbage.app"))->infoDictionary().has_value());

    testsupport::makeDirectories(dir.at("Array.app/Contents"));
    ASSERT_TRUE(PropertyList::array({}).writeToFile(dir.at("Array.app/Contents/Info.plist"), true));
    EXPECT_FALSE(Bundle::bundleWithPath(dir.at("Array.app"))->infoDictionary().has_value());
}

TEST(BundleTest, IdentifierMustBeAString)
{
    testsupport::TempDir dir;
    PropertyList::Dictionary entries;
    entries.emplace("CFBundleIdentifier", PropertyList::integer(7));
    writeInfo(dir.at("X.app"), entries);
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_FALSE(bundle->bundleIdentifier().has_value());
}

TEST(BundleTest, PathForResourceLooksInResourcesThenEnglishLproj)
{
    testsupport::TempDir dir;
    const std::string resources = dir.at("X.app/Contents/Resources");
    testsupport::writeFile(resources + "/FileList.txt", "top");
    testsupport::writeFile(resources + "/English.lproj/FileList.txt", "localized");
    testsupport::writeFile(resources + "/English.lproj/Only.txt", "localized only");
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->pathForResource("FileList", "txt"), resources + "/FileList.txt");
    EXPECT_EQ(bundle->pathForResource("Only", "txt"), resources + "/English.lproj/Only.txt");
    EXPECT_FALSE(bundle->pathForResource("Missing", "txt").has_value());
    EXPECT_FALSE(bundle->pathForResource("FileList", "doc").has_value());
    EXPECT_FALSE(bundle->pathForResource("", "txt").has_value());
}

TEST(BundleTest, PathForResourceWithoutTypeUsesTheNameAsIs)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("X.app/Contents/Resources/FileList.txt"), "top");
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->pathForResource("FileList.txt", ""), dir.at("X.app/Contents/Resources/FileList.txt"));
}

TEST(BundleTest, LocalizedStringComesFromTheEnglishTable)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("X.app/Contents/Resources/English.lproj/Localizable.strings"),
                           "/* words */\n\"FileMissing\" = \"Not found\";\n");
    // A table outside English.lproj is not the English table.
    testsupport::writeFile(dir.at("X.app/Contents/Resources/Localizable.strings"), "\"Removed\" = \"Wrong\";\n");
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->localizedStringForKey("FileMissing"), "Not found");
    EXPECT_EQ(bundle->localizedStringForKey("Removed"), "Removed");
}

TEST(BundleTest, LocalizedStringIsTheKeyWithoutAUsableTable)
{
    testsupport::TempDir dir;
    testsupport::makeDirectories(dir.at("None.app"));
    EXPECT_EQ(Bundle::bundleWithPath(dir.at("None.app"))->localizedStringForKey("FileMissing"), "FileMissing");
    testsupport::writeFile(dir.at("Bad.app/Contents/Resources/English.lproj/Localizable.strings"), "\"a\" = ");
    EXPECT_EQ(Bundle::bundleWithPath(dir.at("Bad.app"))->localizedStringForKey("a"), "a");
}

TEST(BundleTest, StringsTableReadOnceIsKeptForTheProcess)
{
    testsupport::TempDir dir;
    const std::string table = dir.at("X.app/Contents/Resources/English.lproj/Localizable.strings");
    testsupport::writeFile(table, "\"Removed\" = \"Gone\";\n");
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->localizedStringForKey("Removed"), "Gone");
    // Changing or removing the table during the run changes nothing.
    testsupport::writeFile(table, "\"Removed\" = \"Deleted\";\n");
    EXPECT_EQ(bundle->localizedStringForKey("Removed"), "Gone");
    std::filesystem::remove(table);
    EXPECT_EQ(Bundle::bundleWithPath(dir.at("X.app"))->localizedStringForKey("Removed"), "Gone");
}

TEST(BundleTest, ExecutablePathIsTheNamedExecutableWhenItExists)
{
    testsupport::TempDir dir;
    writeInfo(dir.at("X.app"), probeInfo());
    const auto bundle = Bundle::bundleWithPath(dir.at("X.app"));
    ASSERT_TRUE(bundle.has_value());
    EXPECT_FALSE(bundle->executablePath().has_value());
    testsupport::writeFile(dir.at("X.app/Contents/MacOS/probe"), "#!/bin/sh\n");
    EXPECT_EQ(bundle->executablePath(), dir.at("X.app/Contents/MacOS/probe"));
}

TEST(BundleTest, NoExecutablePathWhenTheInfoNamesNone)
{
    testsupport::TempDir dir;
    PropertyList::Dictionary entries;
    entries.emplace("CFBundleIdentifier", PropertyList::string("com.example.probe"));
    writeInfo(dir.at("X.app"), entries);
    testsupport::writeFile(dir.at("X.app/Contents/MacOS/probe"), "#!/bin/sh\n");
    EXPECT_FALSE(Bundle::bundleWithPath(dir.at("X.app"))->executablePath().has_value());
}

TEST(BundleTest, PrivateFrameworksPathIsContentsFrameworks)
{
    testsupport::TempDir dir;
    testsupport::makeDirectories(dir.at("X.app"));
    EXPECT_EQ(Bundle::bundleWithPath(dir.at("X.app"))->privateFrameworksPath(), dir.at("X.app/Contents/Frameworks"));
}

TEST(BundleTest, MainBundleOfAnExecutableOutsideAnAppIsItsFolder)
{
    const auto bundle = Bundle::mainBundle();
    ASSERT_TRUE(bundle.has_value());
    EXPECT_EQ(bundle->bundlePath(), std::filesystem::path(testsupport::runningExecutable()).parent_path().string());
}

TEST(BundleTest, MainBundleOfAnExecutableInContentsMacOSIsTheApp)
{
    const std::string expected = testsupport::environmentValue(kExpectedMainBundleVariable);
    if (!expected.empty()) {
        // Running as the copy inside the app.
        const auto bundle = Bundle::mainBundle();
        ASSERT_TRUE(bundle.has_value());
        EXPECT_EQ(bundle->bundlePath(), expected);
        EXPECT_EQ(bundle->bundleIdentifier(), "com.example.probe");
        EXPECT_EQ(bundle->executablePath(), testsupport::runningExecutable());
        return;
    }
    testsupport::TempDir dir;
    const std::string app = std::filesystem::canonical(dir.path()).string() + "/Probe.app";
    writeInfo(app, probeInfo());
    testsupport::copyRunningExecutable(app + "/Contents/MacOS/probe");
    EXPECT_EQ(testsupport::runRunningTestIn(app + "/Contents/MacOS/probe",
                                            {std::string(kExpectedMainBundleVariable) + "=" + app}),
              0);
}

bool sameItem(const std::string& a, const std::string& b)
{
    struct stat first {};
    struct stat second {};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

TEST(BundleWithoutProc, TheMainBundleIsFoundAndProtectedWithoutProc)
{
    // Not in an X.app: the bundle is the executable's folder.
    const std::string expected = std::filesystem::path(testsupport::runningExecutable()).parent_path().string();
    const int status = testsupport::runInChild(
        [] { return testsupport::enterPrivateMountNamespace() && ::umount2("/proc", MNT_DETACH) == 0; },
        [&expected] {
            char buffer[16];
            if (::readlink("/proc/self/exe", buffer, sizeof buffer) >= 0) {
                return 1;  // /proc is still there
            }
            const std::optional<Bundle> main = Bundle::mainBundle();
            if (!main || !sameItem(main->bundlePath(), expected)) {
                return 2;
            }
            struct stat folder {};
            if (::lstat(expected.c_str(), &folder) != 0) {
                return 3;
            }
            const std::error_code refusal = platform::ProtectedFolders::shared().refusal(folder.st_dev, folder.st_ino);
            return refusal == platform::RemovalRefusal::RunningBundle ? 0 : 4;
        });
    EXPECT_EQ(status, 0);
}

}  // namespace
