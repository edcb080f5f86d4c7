// Settings and process identity: the application type from the command
// line, the stored settings or the bundle; the path of the process.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/QELBase.h"
#include "platform/ProcessInfo.h"
#include "tests/support/Lines.h"
#include "tests/support/PlistXml.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::linesOf;
using testsupport::plistStringEntry;
using testsupport::RunResult;
using testsupport::Sandbox;

// The built bundle's copy in the fixture, its information dictionary
// replaced by one with the given extra entries.
void useBundleCopyWith(Sandbox& sandbox, const std::string& extraEntries)
{
    sandbox.useBundleCopy();
    sandbox.writeFile(
        std::string(Sandbox::kBundlePath) + "/Contents/Info.plist",
        testsupport::plistDocument(plistStringEntry("CFBundleIdentifier", "com.corvane.lumidoc.RemoverTool") +
                                   plistStringEntry("CFBundleExecutable", "RemoverTool") + extraEntries));
}

void writeStoredSettings(const Sandbox& sandbox, const std::string& entries)
{
    sandbox.writeFile("~/Library/Preferences/com.corvane.lumidoc.RemoverTool.plist",
                      testsupport::plistDocument(entries));
}

RunResult runQelutil(const Sandbox& sandbox, const std::vector<std::string>& arguments)
{
    return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
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
    testsupport::useCommandLineSettings({"-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(QELBase::appType(), "Lumidoc Command Line");
}

TEST(Settings, AppTypeComesFromTheBundleWithoutASetting)
{
    const Sandbox sandbox;
    const RunResult result = runQelutil(sandbox, {"app-type"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Remover\n");
}

TEST(Settings, AppTypeOnTheCommandLineWinsOverTheBundles)
{
    const Sandbox sandbox;
    const RunResult result = runQelutil(sandbox, {"app-type", "-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Command Line\n");
}

TEST(Settings, AppTypeInTheStoredSettingsWinsOverTheBundles)
{
    const Sandbox sandbox;
    writeStoredSettings(sandbox, plistStringEntry("AppType", "Lumidoc Stored"));
    const RunResult result = runQelutil(sandbox, {"app-type"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Stored\n");
}

TEST(Settings, AppTypeOnTheCommandLineWinsOverTheStoredSettings)
{
    const Sandbox sandbox;
    writeStoredSettings(sandbox, plistStringEntry("AppType", "Lumidoc Stored"));
    const RunResult result = runQelutil(sandbox, {"app-type", "-AppType", "Lumidoc Command Line"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Command Line\n");
}

TEST(Settings, MissingAppTypeRaises1859WithoutRecursion)
{
    Sandbox sandbox;
    useBundleCopyWith(sandbox, "");
    const RunResult result = runQelutil(sandbox, {"app-type"});
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    // The line for 1859 needs the application type itself: it is never written.
    EXPECT_EQ(linesOf(result.standardError), std::vector<std::string>{"QELFatalException 1859"});
}

TEST(Settings, MissingAppTypeMakes1859ThePriorErrorOfAnyRaise)
{
    Sandbox sandbox;
    useBundleCopyWith(sandbox, "");
    const RunResult result = runQelutil(sandbox, {"raise", "1844"});
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    // Logging 1844 asks for the application type, which records 1859 first.
    EXPECT_EQ(linesOf(result.standardError), std::vector<std::string>{"QELFatalException 1859"});
}

TEST(Settings, BundlesAppTypeIsUsedInACopiedBundle)
{
    Sandbox sandbox;
    useBundleCopyWith(sandbox, plistStringEntry("AppType", "Lumidoc Copy"));
    const RunResult result = runQelutil(sandbox, {"app-type"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Copy\n");
}

TEST(Settings, BundlesAppTypeThatIsANumberIsUsedAsItsText)
{
    Sandbox sandbox;
    useBundleCopyWith(sandbox, "\t<key>AppType</key>\n\t<real>1234567.0</real>\n");
    const RunResult result = runQelutil(sandbox, {"app-type"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "1234567\n");
}

}  // namespace
