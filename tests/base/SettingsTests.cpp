// Settings and process identity: the application type from the command
// line, the stored settings or the bundle; the path of the process.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/QELBase.h"
#include "platform/ProcessInfo.h"
#include "tests/base/BaseTestSupport.h"
#include "tests/support/TempDir.h"

namespace {

using basetest::linesOf;
using basetest::RunResult;

std::string infoPlist(const std::string& extraEntries)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n"
           "\t<key>CFBundleIdentifier</key>\n\t<string>com.corvane.lumidoc.RemoverTool</string>\n"
           "\t<key>CFBundleExecutable</key>\n\t<string>RemoverTool</string>\n" +
           extraEntries + "</dict>\n</plist>\n";
}

// A copy of the built bundle's qelutil in a bundle of the test's own whose
// information dictionary has the given extra entries.
std::string makeBundleCopy(const testsupport::TempDir& dir, const std::string& extraEntries)
{
    std::string bundle = dir.at("Copy.app");
    testsupport::writeFile(bundle + "/Contents/Info.plist", infoPlist(extraEntries));
    testsupport::makeDirectories(bundle + "/Contents/MacOS");
    std::filesystem::copy_file(basetest::qelutilPathIn(basetest::bundlePath()), basetest::qelutilPathIn(bundle));
    return bundle;
}

void writeStoredSettings(const std::string& home, const std::string& entries)
{
    testsupport::writeFile(home + "/Library/Preferences/com.corvane.lumidoc.RemoverTool.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + entries +
                               "</dict>\n</plist>\n");
}

TEST(Settings, PathToUsReturnsTheFirstProcessArgumentUnchanged)
{
    platform::ProcessInfo::setArguments(std::vector<std::string>{"tools/../qelutil", "app-type"});
    EXPECT_EQ(QELBase::pathToUs(), "tools/../qelutil");
}

TEST(Settings, PathToUsWithoutArgumentsRaisesTheRangeException)
{
    platform::ProcessInfo::setArguments(std::vector<std::string>{});
    try {
        QELBase::pathToUs();
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
    }
}

TEST(Settings, AppTypeOnTheCommandLineIsUsed)
{
    basetest::useCommandLineSettings({"-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(QELBase::appType(), "Lumidoc Command Line");
}

TEST(Settings, AppTypeComesFromTheBundleWithoutASetting)
{
    const testsupport::TempDir home;
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(basetest::bundlePath()), {"app-type"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Remover\n");
}

TEST(Settings, AppTypeOnTheCommandLineWinsOverTheBundles)
{
    const testsupport::TempDir home;
    const RunResult result = basetest::runSandboxed(home.path(), basetest::qelutilPathIn(basetest::bundlePath()),
                                                    {"app-type", "-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Command Line\n");
}

TEST(Settings, AppTypeInTheStoredSettingsWinsOverTheBundles)
{
    const testsupport::TempDir home;
    writeStoredSettings(home.path(), "\t<key>AppType</key>\n\t<string>Lumidoc Stored</string>\n");
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(basetest::bundlePath()), {"app-type"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Stored\n");
}

TEST(Settings, AppTypeOnTheCommandLineWinsOverTheStoredSettings)
{
    const testsupport::TempDir home;
    writeStoredSettings(home.path(), "\t<key>AppType</key>\n\t<string>Lumidoc Stored</string>\n");
    const RunResult result = basetest::runSandboxed(home.path(), basetest::qelutilPathIn(basetest::bundlePath()),
                                                    {"app-type", "-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Command Line\n");
}

TEST(Settings, MissingAppTypeRaises1859WithoutRecursion)
{
    const testsupport::TempDir home;
    const testsupport::TempDir bundles;
    const std::string bundle = makeBundleCopy(bundles, "");
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(bundle), {"app-type"}, {bundle});
    EXPECT_EQ(result.status, 70) << result.err;
    EXPECT_EQ(result.out, "");
    // The line for 1859 needs the application type itself: it is never written.
    EXPECT_EQ(linesOf(result.err), std::vector<std::string>{"QELFatalException 1859"});
}

TEST(Settings, MissingAppTypeMakes1859ThePriorErrorOfAnyRaise)
{
    const testsupport::TempDir home;
    const testsupport::TempDir bundles;
    const std::string bundle = makeBundleCopy(bundles, "");
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(bundle), {"raise", "1844"}, {bundle});
    EXPECT_EQ(result.status, 70) << result.err;
    // Logging 1844 asks for the application type, which records 1859 first.
    EXPECT_EQ(linesOf(result.err), std::vector<std::string>{"QELFatalException 1859"});
}

TEST(Settings, BundlesAppTypeIsUsedInACopiedBundle)
{
    const testsupport::TempDir home;
    const testsupport::TempDir bundles;
    const std::string bundle = makeBundleCopy(bundles, "\t<key>AppType</key>\n\t<string>Lumidoc Copy</string>\n");
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(bundle), {"app-type"}, {bundle});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Copy\n");
}

TEST(Settings, BundlesAppTypeThatIsANumberIsUsedAsItsText)
{
    const testsupport::TempDir home;
    const testsupport::TempDir bundles;
    const std::string bundle = makeBundleCopy(bundles, "\t<key>AppType</key>\n\t<real>1234567.0</real>\n");
    const RunResult result =
        basetest::runSandboxed(home.path(), basetest::qelutilPathIn(bundle), {"app-type"}, {bundle});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "1234567\n");
}

}  // namespace
