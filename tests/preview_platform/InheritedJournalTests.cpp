#include "platform/preview/InheritedJournal.h"

#include "platform/Task.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/ScopedVariable.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

using testsupport::ScopedVariable;

using platform::InheritedJournal;
using Record = InheritedJournal::Record;

// Set when the running test runs again in a process of its own, started
// through the journal's descriptor and variable: it then appends instead of
// checking.
constexpr char kAppendingChildVariable[] = "REMOVER_TEST_JOURNAL_CHILD";

bool isCloseOnExec(int fd)
{
    const int flags = ::fcntl(fd, F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

// Runs the running test again in a process of this executable started by
// Task the way the preview starts the remover: with the journal's
// descriptor and variable, and kAppendingChildVariable set to `which`. Its
// exit status; what it printed is shown when it failed.
int runAppendingChild(const InheritedJournal& journal, const std::string& which)
{
    platform::TaskOptions options;
    options.captureStandardOutput = true;
    options.inheritedDescriptors = {journal.descriptor()};
    options.environment = {{InheritedJournal::kEnvironmentVariable, journal.environmentValue()},
                           {kAppendingChildVariable, which}};
    platform::Task task = platform::Task::launchedTaskWithLaunchPath(
        testsupport::runningExecutable(), {"--gtest_filter=" + testsupport::runningTestName()}, options);
    task.waitUntilExit();
    if (task.terminationStatus() != 0) {
        std::printf("%s", task.standardOutputData().c_str());
    }
    return task.terminationStatus();
}

// A field of `size` bytes that shows where it was cut, should it be.
std::string longField(char mark, std::size_t size)
{
    std::string field(size, mark);
    field.front() = '<';
    field.back() = '>';
    return field;
}

TEST(InheritedJournalEncode, FieldsAreJoinedByATabAndEndedByALineFeed)
{
    EXPECT_EQ(InheritedJournal::encode({"/usr/sbin/tool", "--forget", "com.example.x"}),
              "/usr/sbin/tool\t--forget\tcom.example.x\n");
    EXPECT_EQ(InheritedJournal::encode({"one"}), "one\n");
}

TEST(InheritedJournalEncode, TabLineFeedCarriageReturnAndBackslashAreEscaped)
{
    EXPECT_EQ(InheritedJournal::encode({"a\tb", "c\nd", "e\rf", "g\\h"}), "a\\tb\tc\\nd\te\\rf\tg\\\\h\n");
}

TEST(InheritedJournalEncode, EmptyFieldsLeaveTheirTabs)
{
    EXPECT_EQ(InheritedJournal::encode({"", "x", ""}), "\tx\t\n");
    EXPECT_EQ(InheritedJournal::encode({"", ""}), "\t\n");
}

TEST(InheritedJournalDecode, ReadsEachFinishedLineAsARecord)
{
    EXPECT_EQ(InheritedJournal::decode("a\tb\nc\n"), (std::vector<Record>{{"a", "b"}, {"c"}}));
}

TEST(InheritedJournalDecode, PassesOverAnUnfinishedLastLine)
{
    EXPECT_EQ(InheritedJournal::decode("a\tb\nhalf\twrit"), (std::vector<Record>{{"a", "b"}}));
    EXPECT_TRUE(InheritedJournal::decode("no line feed").empty());
    EXPECT_TRUE(InheritedJournal::decode("").empty());
}

TEST(InheritedJournalDecode, AnEmptyLineIsOneEmptyField)
{
    EXPECT_EQ(InheritedJournal::decode("\n"), (std::vector<Record>{{""}}));
    EXPECT_EQ(InheritedJournal::decode("a\n\nb\n"), (std::vector<Record>{{"a"}, {""}, {"b"}}));
}

TEST(InheritedJournalDecode, AnUnknownEscapeStaysAsWritten)
{
    EXPECT_EQ(InheritedJournal::decode("a\\qb\t\\x\t\\0\n"), (std::vector<Record>{{"a\\qb", "\\x", "\\0"}}));
}

TEST(InheritedJournalDecode, ABackslashAtTheEndOfALineStays)
{
    EXPECT_EQ(InheritedJournal::decode("tail\\\nnext\n"), (std::vector<Record>{{"tail\\"}, {"next"}}));
}

TEST(InheritedJournalDecode, EscapesAreReadFromLeftToRight)
{
    // An escaped backslash followed by a plain "t": no tab.
    EXPECT_EQ(InheritedJournal::decode("\\\\t\n"), (std::vector<Record>{{"\\t"}}));
    EXPECT_EQ(InheritedJournal::decode("\\\\\\t\n"), (std::vector<Record>{{"\\\t"}}));
}

TEST(InheritedJournalDecode, ARawCarriageReturnIsKeptInItsField)
{
    EXPECT_EQ(InheritedJournal::decode("a\r\n"), (std::vector<Record>{{"a\r"}}));
}

// Records that must come back from their encoding as they went in.
class InheritedJournalRoundTrip : public ::testing::TestWithParam<Record> {};

TEST_P(InheritedJournalRoundTrip, DecodingTheEncodingGivesTheRecordBack)
{
    const std::string line = InheritedJournal::encode(GetParam());
    // Whatever the fields hold, a record is one line.
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_EQ(InheritedJournal::decode(line), std::vector<Record>{GetParam()});
    EXPECT_EQ(InheritedJournal::decode(line + line), (std::vector<Record>{GetParam(), GetParam()}));
}

INSTANTIATE_TEST_SUITE_P(InheritedJournal, InheritedJournalRoundTrip,
                         ::testing::Values(Record{"/usr/sbin/tool", "--forget", "com.example.x"},
                                           Record{"tab\there", "\t", "\t\t"}, Record{"line\nfeed", "\n", "ends\n"},
                                           Record{"carriage\rreturn", "\r\n"},
                                           Record{"back\\slash", "\\", "\\\\", "\\t", "\\n"}, Record{"", "middle", ""},
                                           Record{""}, Record{"", ""},
                                           Record{"\xff\xfe", "caf\xe9", "\xc3\x28", std::string("nul\0byte", 8)},
                                           Record{"all\t\n\r\\ of them\\"}));

TEST(InheritedJournal, ANewJournalIsEmptyAndItsDescriptorIsNotPassedOnUnasked)
{
    std::error_code error = std::make_error_code(std::errc::io_error);
    std::optional<InheritedJournal> journal = InheritedJournal::create(&error);
    ASSERT_TRUE(journal.has_value()) << error.message();
    EXPECT_GE(journal->descriptor(), 0);
    EXPECT_EQ(journal->environmentValue(), std::to_string(journal->descriptor()));
    // A child gets it only where a launch names it.
    EXPECT_TRUE(isCloseOnExec(journal->descriptor()));
    error = std::make_error_code(std::errc::io_error);
    EXPECT_TRUE(journal->records(&error).empty());
    EXPECT_FALSE(error) << error.message();
}

TEST(InheritedJournal, TwoJournalsAreSeparate)
{
    std::optional<InheritedJournal> first = InheritedJournal::create();
    std::optional<InheritedJournal> second = InheritedJournal::create();
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->descriptor(), second->descriptor());
    {
        const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, first->environmentValue().c_str());
        ASSERT_TRUE(InheritedJournal::appendToInherited({"first"}));
    }
    EXPECT_EQ(first->records(), (std::vector<Record>{{"first"}}));
    EXPECT_TRUE(second->records().empty());
}

TEST(InheritedJournal, AppendToInheritedWritesToTheJournalTheVariableNames)
{
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, journal->environmentValue().c_str());
    EXPECT_TRUE(InheritedJournal::appendToInherited({"/usr/sbin/tool", "a\tb"}));
    EXPECT_TRUE(InheritedJournal::appendToInherited({"second"}));
    // Reading does not move where the next record goes.
    EXPECT_EQ(journal->records(), (std::vector<Record>{{"/usr/sbin/tool", "a\tb"}, {"second"}}));
    EXPECT_TRUE(InheritedJournal::appendToInherited({"third"}));
    EXPECT_EQ(journal->records(), (std::vector<Record>{{"/usr/sbin/tool", "a\tb"}, {"second"}, {"third"}}));
}

TEST(InheritedJournal, AppendToInheritedIsFalseWithoutTheVariable)
{
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, nullptr);
    EXPECT_FALSE(InheritedJournal::appendToInherited({"x"}));
}

// Values of the variable that are no descriptor number, though they hold
// the number of an open journal ("N" stands for it): nothing is written.
class InheritedJournalNoDescriptor : public ::testing::TestWithParam<std::string_view> {};

TEST_P(InheritedJournalNoDescriptor, AppendToInheritedIsFalse)
{
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    std::string value(GetParam());
    if (const std::size_t at = value.find('N'); at != std::string::npos) {
        value.replace(at, 1, journal->environmentValue());
    }
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, value.c_str());
    EXPECT_FALSE(InheritedJournal::appendToInherited({"x"})) << value;
    EXPECT_TRUE(journal->records().empty()) << value;
}

INSTANTIATE_TEST_SUITE_P(InheritedJournal, InheritedJournalNoDescriptor,
                         ::testing::Values("", "journal", "Nx", "xN", " N", "N ", "-N", "N.0", "+N", "0xN",
                                           "99999999999999999999N"));

TEST(InheritedJournal, AppendToInheritedIsFalseForAClosedDescriptor)
{
    const int fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::close(fd), 0);
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, std::to_string(fd).c_str());
    EXPECT_FALSE(InheritedJournal::appendToInherited({"x"}));
}

TEST(InheritedJournal, AppendToInheritedIsFalseForADescriptorOpenForReadingOnly)
{
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, std::to_string(fd).c_str());
    EXPECT_FALSE(InheritedJournal::appendToInherited({"x"}));
    ::close(fd);
}

TEST(InheritedJournal, AForkedChildAppendsWhatTheParentReads)
{
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    const std::string value = journal->environmentValue();
    const int status = testsupport::runInChild(
        [&value] { return ::setenv(InheritedJournal::kEnvironmentVariable, value.c_str(), 1) == 0; },
        [] {
            return InheritedJournal::appendToInherited({"/usr/sbin/tool", "--forget", "x"}) ? 0 : 1;
        });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(journal->records(), (std::vector<Record>{{"/usr/sbin/tool", "--forget", "x"}}));
}

TEST(InheritedJournal, AProgramStartedWithTheDescriptorAndTheVariableAppendsToIt)
{
    const std::string which = testsupport::environmentValue(kAppendingChildVariable);
    if (!which.empty()) {
        // The started program: what a stand-in would record.
        EXPECT_TRUE(InheritedJournal::appendToInherited({"/usr/sbin/tool", "--forget", "com.example.x"}));
        EXPECT_TRUE(InheritedJournal::appendToInherited({"tab\tline\nend", ""}));
        return;
    }
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    ASSERT_EQ(runAppendingChild(*journal, "one"), 0);
    EXPECT_EQ(journal->records(),
              (std::vector<Record>{{"/usr/sbin/tool", "--forget", "com.example.x"}, {"tab\tline\nend", ""}}));
}

TEST(InheritedJournal, RecordsOfProgramsRunOneAfterAnotherStayInOrderAndWhole)
{
    // Each record is far larger than a pipe's buffer and a page, so one cut
    // into pieces or overwritten would show.
    constexpr std::size_t kFieldSize = 200 * 1024;
    const std::string which = testsupport::environmentValue(kAppendingChildVariable);
    if (!which.empty()) {
        EXPECT_TRUE(InheritedJournal::appendToInherited({which, "begins"}));
        EXPECT_TRUE(InheritedJournal::appendToInherited({which, longField(which[0], kFieldSize)}));
        EXPECT_TRUE(InheritedJournal::appendToInherited({which, "ends"}));
        return;
    }
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    const std::vector<std::string> programs = {"a", "b", "c", "d"};
    std::vector<Record> expected;
    for (const std::string& program : programs) {
        ASSERT_EQ(runAppendingChild(*journal, program), 0) << program;
        expected.push_back({program, "begins"});
        expected.push_back({program, longField(program[0], kFieldSize)});
        expected.push_back({program, "ends"});
        // What is read between runs does not disturb what comes next.
        EXPECT_EQ(journal->records().size(), expected.size());
    }
    EXPECT_EQ(journal->records(), expected);
}

TEST(InheritedJournal, RecordsOfProcessesAppendingAtTheSameTimeAreAllKeptWhole)
{
    // A process and the children it starts may append side by side, through
    // the one open file they share: no record may overwrite another or be
    // cut into one.
    constexpr int kProcesses = 8;
    constexpr int kRecords = 500;
    constexpr std::size_t kFieldSize = 512;
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, journal->environmentValue().c_str());
    std::fflush(stdout);
    std::vector<pid_t> children;
    for (int process = 0; process < kProcesses; ++process) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            const std::string name(1, static_cast<char>('a' + process));
            bool appended = true;
            for (int record = 0; record < kRecords; ++record) {
                appended = InheritedJournal::appendToInherited(
                               {name, std::to_string(record), longField(name[0], kFieldSize)}) &&
                           appended;
            }
            ::_exit(appended ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = -1;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const std::vector<Record> records = journal->records();
    ASSERT_EQ(records.size(), static_cast<std::size_t>(kProcesses * kRecords));
    std::vector<int> next(kProcesses, 0);
    for (const Record& record : records) {
        ASSERT_EQ(record.size(), 3U);
        ASSERT_EQ(record[0].size(), 1U);
        const int process = record[0][0] - 'a';
        ASSERT_TRUE(process >= 0 && process < kProcesses) << record[0];
        // Each process's records in the order it appended them.
        EXPECT_EQ(record[1], std::to_string(next[process]++));
        EXPECT_EQ(record[2], longField(record[0][0], kFieldSize));
    }
}

TEST(InheritedJournal, AShellStartedWithTheDescriptorWritesToTheSameJournal)
{
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    // The shell names descriptors 0 to 9 only.
    ASSERT_LE(journal->descriptor(), 9);
    const ScopedVariable variable(InheritedJournal::kEnvironmentVariable, journal->environmentValue().c_str());
    ASSERT_TRUE(InheritedJournal::appendToInherited({"parent"}));
    const std::string script = "printf 'shell\\tline\\n' >&" + journal->environmentValue();
    platform::TaskOptions options;
    options.inheritedDescriptors = {journal->descriptor()};
    platform::Task task = platform::Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", script}, options);
    task.waitUntilExit();
    EXPECT_EQ(task.terminationStatus(), 0);
    ASSERT_TRUE(InheritedJournal::appendToInherited({"parent", "again"}));
    // One offset for all: the shell's line lands after the parent's first
    // record, and the parent's next one after it.
    EXPECT_EQ(journal->records(), (std::vector<Record>{{"parent"}, {"shell", "line"}, {"parent", "again"}}));
}

TEST(InheritedJournal, AProgramStartedWithoutTheDescriptorCannotWriteToIt)
{
    std::optional<InheritedJournal> journal = InheritedJournal::create();
    ASSERT_TRUE(journal.has_value());
    ASSERT_LE(journal->descriptor(), 9);
    const std::string script = "printf 'shell\\n' >&" + journal->environmentValue();
    platform::Task task = platform::Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", script});
    task.waitUntilExit();
    EXPECT_NE(task.terminationStatus(), 0);
    EXPECT_TRUE(journal->records().empty());
}

}  // namespace
