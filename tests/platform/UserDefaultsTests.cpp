#include "platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/ProcessInfo.h"
#include "platform/PropertyList.h"
#include "platform/User.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/TempDir.h"

namespace {

using platform::PropertyList;
using platform::UserDefaults;

constexpr const char* kChildVariable = "PLATFORM_TESTS_USER_DEFAULTS_CHILD";
constexpr const char* kPreferencesVariable = "PLATFORM_TESTS_PREFERENCES";

PropertyList::Dictionary probeInfo(const std::string& identifier)
{
    PropertyList::Dictionary info;
    info.emplace("CFBundleIdentifier", PropertyList::string(identifier));
    info.emplace("CFBundleExecutable", PropertyList::string("probe"));
    return info;
}

PropertyList::Dictionary strings(const std::vector<std::pair<std::string, std::string>>& pairs)
{
    PropertyList::Dictionary entries;
    for (const auto& [key, value] : pairs) {
        entries.insert_or_assign(key, PropertyList::string(value));
    }
    return entries;
}

void writeDomain(const std::string& path, PropertyList::Dictionary entries)
{
    ASSERT_TRUE(PropertyList::dictionary(std::move(entries)).writeToFile(path, true));
}

// Probe.app in `dir`, identified as com.example.probe, whose program is a
// copy of this test executable: its main bundle when run from there. Its
// path.
std::string makeProbeApp(const testsupport::TempDir& dir)
{
    const std::string app = dir.at("Probe.app");
    testsupport::makeDirectories(app + "/Contents");
    writeDomain(app + "/Contents/Info.plist", probeInfo("com.example.probe"));
    testsupport::copyRunningExecutable(app + "/Contents/MacOS/probe");
    return app;
}

// Runs the running test again in a fresh process of this executable, with
// kChildVariable set.
int runInAProcessOfItsOwn()
{
    return testsupport::runRunningTestIn(testsupport::runningExecutable(), {std::string(kChildVariable) + "=1"});
}

// Every test reads its stored domains from a temporary folder of its own.
class UserDefaultsTest : public testing::Test {
protected:
    void SetUp() override
    {
        defaults().setPreferencesDirectoryForTesting(thePreferences.path());
        defaults().setArgumentDomainFromArguments({});
    }
    void TearDown() override { defaults().setPreferencesDirectoryForTesting(std::nullopt); }

    static UserDefaults& defaults() { return UserDefaults::standardUserDefaults(); }
    std::string globalDomainPath() const { return thePreferences.at(".GlobalPreferences.plist"); }

    testsupport::TempDir thePreferences;
};

TEST(UserDefaultsArguments, ParsesKeyValuePairs)
{
    const auto domain = UserDefaults::parseArgumentDomain({"-Key", "value", "-Other", "2"});
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"Key", "value"}, {"Other", "2"}})));
}

TEST(UserDefaultsArguments, ValueMayBeginWithAHyphen)
{
    const auto domain = UserDefaults::parseArgumentDomain({"-Key", "-Other", "x"});
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"Key", "-Other"}})));
}

TEST(UserDefaultsArguments, KeyWithoutAValueIsIgnored)
{
    const auto domain = UserDefaults::parseArgumentDomain({"-A", "1", "-B"});
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"A", "1"}})));
}

TEST(UserDefaultsArguments, SkipsArgumentsThatAreNotKeys)
{
    const auto domain = UserDefaults::parseArgumentDomain(
        {"positional", "-1", "5", "--long", "x", "-", "y", "-\xC3\xA9", "z", "-K", "v"});
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"K", "v"}})));
}

TEST(UserDefaultsArguments, KeyGivenTwiceKeepsTheLaterValue)
{
    const auto domain = UserDefaults::parseArgumentDomain({"-A", "1", "-A", "2"});
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"A", "2"}})));
}

TEST(UserDefaultsArguments, AKeyIsAHyphenAndAnAsciiLetter)
{
    EXPECT_TRUE(UserDefaults::isKeyArgument("-LogLevel"));
    EXPECT_TRUE(UserDefaults::isKeyArgument("-a"));
    EXPECT_TRUE(UserDefaults::isKeyArgument("-Z9"));
    EXPECT_FALSE(UserDefaults::isKeyArgument("-1"));
    EXPECT_FALSE(UserDefaults::isKeyArgument("--x"));
    EXPECT_FALSE(UserDefaults::isKeyArgument("-"));
    EXPECT_FALSE(UserDefaults::isKeyArgument(""));
    EXPECT_FALSE(UserDefaults::isKeyArgument("Key"));
    EXPECT_FALSE(UserDefaults::isKeyArgument("-\xC3\xA9"));
    EXPECT_FALSE(UserDefaults::isKeyArgument("-_x"));
}

TEST(UserDefaultsArguments, ArgumentDomainComesFromProcessArgumentsAfterTheProgramName)
{
    if (testsupport::environmentValue(kChildVariable).empty()) {
        // In a process of its own, where nothing has set the argument domain.
        EXPECT_EQ(runInAProcessOfItsOwn(), 0);
        return;
    }
    platform::ProcessInfo::setArguments({"-Zero", "-Key", "value", "positional"});
    const auto& domain = UserDefaults::standardUserDefaults().argumentDomain();
    EXPECT_EQ(PropertyList::dictionary(domain), PropertyList::dictionary(strings({{"Key", "value"}})));
    EXPECT_EQ(UserDefaults::standardUserDefaults().stringForKey("Key"), "value");
}

TEST(UserDefaultsArguments, SetArgumentDomainFromArgumentsReplacesTheProcessArguments)
{
    if (testsupport::environmentValue(kChildVariable).empty()) {
        EXPECT_EQ(runInAProcessOfItsOwn(), 0);
        return;
    }
    platform::ProcessInfo::setArguments({"program", "-FromProcess", "1"});
    auto& defaults = UserDefaults::standardUserDefaults();
    EXPECT_EQ(defaults.argumentDomain().size(), 1U);
    defaults.setArgumentDomainFromArguments({"-FromFrontEnd", "2"});
    EXPECT_EQ(PropertyList::dictionary(defaults.argumentDomain()),
              PropertyList::dictionary(strings({{"FromFrontEnd", "2"}})));
}

TEST_F(UserDefaultsTest, ArgumentDomainComesFirst)
{
    writeDomain(globalDomainPath(), strings({{"Mode", "global"}}));
    defaults().setArgumentDomainFromArguments({"-Mode", "argument"});
    EXPECT_EQ(defaults().stringForKey("Mode"), "argument");
    EXPECT_EQ(defaults().objectForKey("Mode"), PropertyList::string("argument"));
}

TEST_F(UserDefaultsTest, GlobalDomainAnswersWhatTheArgumentsLack)
{
    writeDomain(globalDomainPath(), strings({{"Mode", "global"}}));
    defaults().setArgumentDomainFromArguments({"-Other", "argument"});
    EXPECT_EQ(defaults().stringForKey("Mode"), "global");
    EXPECT_FALSE(defaults().objectForKey("Missing").has_value());
}

TEST_F(UserDefaultsTest, StoredDomainsAreReadAfreshAtEveryLookUp)
{
    EXPECT_FALSE(defaults().stringForKey("Mode").has_value());
    writeDomain(globalDomainPath(), strings({{"Mode", "first"}}));
    EXPECT_EQ(defaults().stringForKey("Mode"), "first");
    writeDomain(globalDomainPath(), strings({{"Mode", "second"}}));
    EXPECT_EQ(defaults().stringForKey("Mode"), "second");
    std::filesystem::remove(globalDomainPath());
    EXPECT_FALSE(defaults().stringForKey("Mode").has_value());
}

TEST_F(UserDefaultsTest, FifoInPlaceOfTheGlobalDomainIsSkippedAtOnce)
{
    ASSERT_EQ(::mkfifo(globalDomainPath().c_str(), 0600), 0);
    defaults().setArgumentDomainFromArguments({"-Other", "argument"});
    EXPECT_FALSE(defaults().stringForKey("Mode").has_value());
    EXPECT_EQ(defaults().stringForKey("Other"), "argument");
}

TEST_F(UserDefaultsTest, LinkToDevZeroInPlaceOfTheGlobalDomainIsSkipped)
{
    std::filesystem::create_symlink("/dev/zero", globalDomainPath());
    EXPECT_FALSE(defaults().stringForKey("Mode").has_value());
}

TEST_F(UserDefaultsTest, UnreadableDomainFileIsSkipped)
{
    testsupport::writeFile(globalDomainPath(), "not a property list");
    EXPECT_FALSE(defaults().objectForKey("Mode").has_value());
    EXPECT_EQ(defaults().integerForKey("Mode"), 0);
    ASSERT_TRUE(PropertyList::array({PropertyList::string("Mode")}).writeToFile(globalDomainPath(), true));
    EXPECT_FALSE(defaults().objectForKey("Mode").has_value());
}

TEST_F(UserDefaultsTest, StringForKeyAnswersTextAndTheTextOfNumbers)
{
    PropertyList::Dictionary entries;
    entries.emplace("Text", PropertyList::string("words"));
    entries.emplace("Number", PropertyList::integer(3));
    entries.emplace("Real", PropertyList::real(2.5));
    entries.emplace("Flag", PropertyList::boolean(true));
    entries.emplace("List", PropertyList::array({PropertyList::string("x")}));
    writeDomain(globalDomainPath(), entries);
    EXPECT_EQ(defaults().stringForKey("Text"), "words");
    EXPECT_EQ(defaults().stringForKey("Number"), "3");
    EXPECT_EQ(defaults().stringForKey("Real"), "2.5");
    EXPECT_EQ(defaults().stringForKey("Flag"), "1");
    EXPECT_FALSE(defaults().stringForKey("List").has_value());
    EXPECT_FALSE(defaults().stringForKey("Missing").has_value());
    EXPECT_EQ(defaults().objectForKey("Number"), PropertyList::integer(3));
}

TEST(UserDefaultsValues, StringFromValueGivesTheTextOfNumbersAndBooleans)
{
    EXPECT_EQ(UserDefaults::stringFromValue(PropertyList::string("words")), "words");
    EXPECT_EQ(UserDefaults::stringFromValue(PropertyList::integer(-3)), "-3");
    EXPECT_EQ(UserDefaults::stringFromValue(PropertyList::real(1234567.0)), "1234567");
    EXPECT_EQ(UserDefaults::stringFromValue(PropertyList::boolean(false)), "0");
    EXPECT_FALSE(UserDefaults::stringFromValue(PropertyList::dictionary({})).has_value());
}

TEST_F(UserDefaultsTest, IntegerForKeyConvertsNumbersBooleansAndStrings)
{
    PropertyList::Dictionary entries;
    entries.emplace("Integer", PropertyList::integer(-42));
    entries.emplace("Real", PropertyList::real(2.9));
    entries.emplace("NegativeReal", PropertyList::real(-2.9));
    entries.emplace("HugeReal", PropertyList::real(1e30));
    entries.emplace("True", PropertyList::boolean(true));
    entries.emplace("False", PropertyList::boolean(false));
    entries.emplace("Version", PropertyList::string("  10.0.3"));
    entries.emplace("Word", PropertyList::string("x"));
    entries.emplace("Data", PropertyList::data({1}));
    entries.emplace("Array", PropertyList::array({PropertyList::integer(5)}));
    writeDomain(globalDomainPath(), entries);
    EXPECT_EQ(defaults().integerForKey("Integer"), -42);
    EXPECT_EQ(defaults().integerForKey("Real"), 2);
    EXPECT_EQ(defaults().integerForKey("NegativeReal"), -2);
    EXPECT_EQ(defaults().integerForKey("HugeReal"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(defaults().integerForKey("True"), 1);
    EXPECT_EQ(defaults().integerForKey("False"), 0);
    EXPECT_EQ(defaults().integerForKey("Version"), 10);
    EXPECT_EQ(defaults().integerForKey("Word"), 0);
    EXPECT_EQ(defaults().integerForKey("Data"), 0);
    EXPECT_EQ(defaults().integerForKey("Array"), 0);
    EXPECT_EQ(defaults().integerForKey("Missing"), 0);
}

TEST_F(UserDefaultsTest, IntegerForKeyReadsArgumentStrings)
{
    defaults().setArgumentDomainFromArguments({"-Count", "12", "-Negative", "-3"});
    EXPECT_EQ(defaults().integerForKey("Count"), 12);
    EXPECT_EQ(defaults().integerForKey("Negative"), -3);
}

TEST_F(UserDefaultsTest, PreferencesDirectoryIsInTheHomeLibraryUnlessSetForTesting)
{
    EXPECT_EQ(defaults().preferencesDirectory(), thePreferences.path());
    defaults().setPreferencesDirectoryForTesting(std::nullopt);
    EXPECT_EQ(defaults().preferencesDirectory(), platform::homeDirectory() + "/Library/Preferences");
}

// The application domain is named after the main bundle's identifier, so this
// runs in a copy of the test executable inside an app with an identifier.
TEST(UserDefaultsApplicationDomain, ApplicationDomainComesBetweenArgumentsAndGlobalDomain)
{
    const std::string preferences = testsupport::environmentValue(kPreferencesVariable);
    if (!preferences.empty()) {
        auto& defaults = UserDefaults::standardUserDefaults();
        defaults.setPreferencesDirectoryForTesting(preferences);
        defaults.setArgumentDomainFromArguments({"-Everywhere", "argument"});
        EXPECT_EQ(defaults.stringForKey("Everywhere"), "argument");
        EXPECT_EQ(defaults.stringForKey("AppAndGlobal"), "application");
        EXPECT_EQ(defaults.stringForKey("AppOnly"), "application");
        EXPECT_EQ(defaults.stringForKey("GlobalOnly"), "global");
        EXPECT_EQ(defaults.integerForKey("Number"), 7);
        return;
    }
    testsupport::TempDir dir;
    const std::string app = makeProbeApp(dir);
    const std::string folder = dir.at("Preferences");
    testsupport::makeDirectories(folder);
    auto application =
        strings({{"Everywhere", "application"}, {"AppAndGlobal", "application"}, {"AppOnly", "application"}});
    application.emplace("Number", PropertyList::integer(7));
    writeDomain(folder + "/com.example.probe.plist", application);
    writeDomain(folder + "/.GlobalPreferences.plist",
                strings({{"Everywhere", "global"}, {"AppAndGlobal", "global"}, {"GlobalOnly", "global"}}));

    EXPECT_EQ(testsupport::runRunningTestIn(app + "/Contents/MacOS/probe",
                                            {std::string(kPreferencesVariable) + "=" + folder}),
              0);
}

}  // namespace

namespace {

// Stored domains are read again only when their file has changed ------------

TEST_F(UserDefaultsTest, AnUnchangedStoredDomainIsReadOnceForManyLookUps)
{
    writeDomain(globalDomainPath(), strings({{"LogLevel", "1"}}));
    const uint64_t before = defaults().storedDomainReadCount();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(defaults().integerForKey("LogLevel"), 1);
    }
    EXPECT_EQ(defaults().storedDomainReadCount() - before, 1U);
}

TEST_F(UserDefaultsTest, AChangedStoredDomainIsReadAgain)
{
    writeDomain(globalDomainPath(), strings({{"LogLevel", "1"}}));
    ASSERT_EQ(defaults().integerForKey("LogLevel"), 1);
    const uint64_t before = defaults().storedDomainReadCount();
    // The same size, written in place: only the times tell the change.
    writeDomain(globalDomainPath(), strings({{"LogLevel", "0"}}));
    EXPECT_EQ(defaults().integerForKey("LogLevel"), 0);
    EXPECT_EQ(defaults().storedDomainReadCount() - before, 1U);
}

TEST_F(UserDefaultsTest, AStoredDomainReplacedByAnotherFileIsReadAgain)
{
    writeDomain(globalDomainPath(), strings({{"LogLevel", "1"}}));
    ASSERT_EQ(defaults().integerForKey("LogLevel"), 1);
    const std::string other = thePreferences.at("other.plist");
    writeDomain(other, strings({{"LogLevel", "0"}}));
    std::filesystem::rename(other, globalDomainPath());
    EXPECT_EQ(defaults().integerForKey("LogLevel"), 0);
}

TEST_F(UserDefaultsTest, ARemovedStoredDomainIsNoLongerSeen)
{
    writeDomain(globalDomainPath(), strings({{"LogLevel", "1"}}));
    ASSERT_EQ(defaults().integerForKey("LogLevel"), 1);
    std::filesystem::remove(globalDomainPath());
    EXPECT_EQ(defaults().integerForKey("LogLevel"), 0);
    writeDomain(globalDomainPath(), strings({{"LogLevel", "1"}}));
    EXPECT_EQ(defaults().integerForKey("LogLevel"), 1);
}

}  // namespace

namespace {

// The main bundle's Info.plist, which names the application domain, is read
// again only when it has changed -----------------------------------------

TEST(UserDefaultsApplicationDomain, AnUnchangedInfoIsReadOnceAndAChangedOneAgain)
{
    const std::string preferences = testsupport::environmentValue(kPreferencesVariable);
    if (!preferences.empty()) {
        auto& defaults = UserDefaults::standardUserDefaults();
        defaults.setPreferencesDirectoryForTesting(preferences);
        defaults.setArgumentDomainFromArguments({});
        const uint64_t before = defaults.applicationIdentifierReadCount();
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(defaults.stringForKey("AppOnly"), "probe");
        }
        EXPECT_LE(defaults.applicationIdentifierReadCount() - before, 1U);

        const auto mainBundle = platform::Bundle::mainBundle();
        ASSERT_TRUE(mainBundle.has_value());
        const uint64_t unchanged = defaults.applicationIdentifierReadCount();
        writeDomain(mainBundle->infoDictionaryPath(), probeInfo("com.example.renamed"));
        EXPECT_EQ(defaults.stringForKey("AppOnly"), "renamed");
        EXPECT_EQ(defaults.stringForKey("AppOnly"), "renamed");
        EXPECT_EQ(defaults.applicationIdentifierReadCount() - unchanged, 1U);
        return;
    }
    testsupport::TempDir dir;
    const std::string app = makeProbeApp(dir);
    const std::string folder = dir.at("Preferences");
    testsupport::makeDirectories(folder);
    writeDomain(folder + "/com.example.probe.plist", strings({{"AppOnly", "probe"}}));
    writeDomain(folder + "/com.example.renamed.plist", strings({{"AppOnly", "renamed"}}));

    EXPECT_EQ(testsupport::runRunningTestIn(app + "/Contents/MacOS/probe",
                                            {std::string(kPreferencesVariable) + "=" + folder}),
              0);
}

}  // namespace
