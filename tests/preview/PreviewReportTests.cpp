#include "preview/PreviewReport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/preview/InheritedJournal.h"
#include "platform/preview/OverlayChanges.h"
#include "platform/preview/OverlayRoot.h"
#include "tests/support/Subprocess.h"

namespace {

using Kind = platform::OverlayChange::Kind;
using Type = platform::OverlayChange::Type;

// Every section after the remover's output, each empty: the tail of the text
// of a report that only differs in its title and the remover's part.
const std::string kEmptySectionsAfterTheOutput =
    "\n"
    "Would remove:\n"
    "  nothing\n"
    "\n"
    "Would create or change:\n"
    "  nothing\n"
    "\n"
    "Would run, in this order:\n"
    "  nothing\n"
    "\n"
    "Not previewed (read-only during the preview, so what the remover would do there may differ):\n"
    "  nothing\n";

TEST(PreviewReportText, ListsEverySectionOfASmallReportInItsFixedForm)
{
    PreviewReport report;
    report.removerArguments = {"x", "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app"};
    // The remover's lines show their tab, backslash and carriage return
    // escaped; the last one has no line feed.
    report.removerOutput = "Removed /Library/Fonts/A.otf.\n"
                           "Removed /Library/Icon\r.\n"
                           "Could not remove /Library/Back\\slash\tTab.\n"
                           "Not found /Library/PDF Services/Save as Corvane PDF.app.";
    // Out of order on purpose: the report sorts them.
    report.changes = {
        {Kind::Removed, "/Library/Fonts/A.otf", Type::File, 0},
        {Kind::Created, "/Library/Preferences/com.corvane.new.plist", Type::File, 0},
        {Kind::Removed, "/Library/alpha", Type::Folder, 1},
        {Kind::Removed, "/Applications/Corvane Lumidoc X Pro", Type::Folder, 3},
        {Kind::Changed, "/etc/hosts", Type::File, 0},
        {Kind::Removed, "/Library/Zeta", Type::Folder, 0},
        {Kind::Removed, "/Library/Icon\r", Type::File, 0},
        {Kind::Removed, "/Library/Link", Type::Link, 0},
        {Kind::Created, "/Library/Caches/com.corvane", Type::Folder, 2},
        {Kind::Removed, "/Library/Fonts/pipe", Type::Other, 0},
        {Kind::Removed, "/Library/Fonts-Old", Type::Folder, 2},
    };
    report.calls = {
        {"run", "/bin/launchctl", "unload", "/Users/Ann Smith/Library/LaunchAgents/com.corvane.updater.plist"},
        {"call", "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app/Contents/Frameworks/CorvaneHOV.dylib",
         "hov_uninstallCorvaneApplicationManager"},
        {"run", "/usr/sbin/pkgutil", "--forget", "com.corvane.*"},
        {"mail", "root", "it's done"},
    };
    report.readOnlyMounts = {
        {"/proc", "proc", "a kernel interface"},
        {"/srv/share", "nfs4", "the overlay was refused: Invalid argument"},
    };

    EXPECT_EQ(report.text(),
              "Preview of RemoverTool x '/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app' "
              "(nothing was changed)\n"
              "\n"
              "RemoverTool would print:\n"
              "  Removed /Library/Fonts/A.otf.\n"
              "  Removed /Library/Icon\\r.\n"
              "  Could not remove /Library/Back\\\\slash\\tTab.\n"
              "  Not found /Library/PDF Services/Save as Corvane PDF.app.\n"
              "\n"
              "Would remove:\n"
              "  /Applications/Corvane Lumidoc X Pro (folder, 3 items inside)\n"
              "  /Library/Fonts-Old (folder, 2 items inside)\n"
              "  /Library/Fonts/A.otf\n"
              "  /Library/Fonts/pipe (special file)\n"
              "  /Library/Icon\\r\n"
              "  /Library/Link (link)\n"
              "  /Library/Zeta (empty folder)\n"
              "  /Library/alpha (folder, 1 item inside)\n"
              "\n"
              "Would create or change:\n"
              "  created /Library/Caches/com.corvane (folder, 2 items inside)\n"
              "  created /Library/Preferences/com.corvane.new.plist\n"
              "  changed /etc/hosts\n"
              "\n"
              "Would run, in this order:\n"
              "  /bin/launchctl unload '/Users/Ann Smith/Library/LaunchAgents/com.corvane.updater.plist'\n"
              "  call hov_uninstallCorvaneApplicationManager in the install-manager library "
              "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app/Contents/Frameworks/CorvaneHOV.dylib\n"
              "  /usr/sbin/pkgutil --forget 'com.corvane.*'\n"
              "  unreadable record: mail root 'it'\\''s done'\n"
              "\n"
              "Not previewed (read-only during the preview, so what the remover would do there may differ):\n"
              "  /proc (proc, a kernel interface)\n"
              "  /srv/share (nfs4, the overlay was refused: Invalid argument)\n");
}

TEST(PreviewReportText, SaysNothingInEverySectionOfAnEmptyReport)
{
    EXPECT_EQ(PreviewReport{}.text(), "Preview of RemoverTool (nothing was changed)\n"
                                      "\n"
                                      "RemoverTool would print:\n"
                                      "  nothing\n" +
                                          kEmptySectionsAfterTheOutput);
}

TEST(PreviewReportText, OutputEndingInALineFeedGetsNoEmptyLastLine)
{
    PreviewReport report;
    report.removerArguments = {"x"};
    report.removerOutput = "Removed /Library/Fonts/A.otf.\nNot found /Library/Fonts/B.otf.\n";

    EXPECT_EQ(report.text(), "Preview of RemoverTool x (nothing was changed)\n"
                             "\n"
                             "RemoverTool would print:\n"
                             "  Removed /Library/Fonts/A.otf.\n"
                             "  Not found /Library/Fonts/B.otf.\n" +
                                 kEmptySectionsAfterTheOutput);
}

TEST(PreviewReportText, ARemoverEndedBySignalSixIsSaidToEndAbnormallyAfterItsOutput)
{
    PreviewReport report;
    report.removerArguments = {"x"};
    report.removerOutput = "Removed /Library/Fonts/A.otf.\n";
    report.removerSignalled = true;
    report.removerStatus = 128 + 6;

    EXPECT_EQ(report.text(), "Preview of RemoverTool x (nothing was changed)\n"
                             "\n"
                             "RemoverTool would print:\n"
                             "  Removed /Library/Fonts/A.otf.\n"
                             "RemoverTool would end abnormally (signal 6).\n" +
                                 kEmptySectionsAfterTheOutput);
}

TEST(PreviewReportText, ARemoverThatWouldExitNonZeroHasItsStatusSaid)
{
    PreviewReport report;
    report.removerArguments = {"x"};
    report.removerStatus = 3;

    EXPECT_EQ(report.text(), "Preview of RemoverTool x (nothing was changed)\n"
                             "\n"
                             "RemoverTool would print:\n"
                             "  nothing\n"
                             "RemoverTool would exit with status 3.\n" +
                                 kEmptySectionsAfterTheOutput);
}

TEST(PreviewReportText, AControlCharacterInAPathOrCommandNeverStartsANewLine)
{
    PreviewReport report;
    report.changes = {{Kind::Created, "/tmp/two\nlines", Type::File, 0}};
    report.calls = {{"run", "/usr/sbin/pkgutil", "--forget", "a\nb"}};
    report.readOnlyMounts = {{"/mnt/odd\nname", "ext4", "a kernel interface"}};

    const std::string text = report.text();
    EXPECT_NE(text.find("\n  created /tmp/two\\nlines\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  /usr/sbin/pkgutil --forget $'a\\nb'\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  /mnt/odd\\nname (ext4, a kernel interface)\n"), std::string::npos) << text;
}

TEST(PreviewReportText, AnEscapeSequenceTheRemoverPrintsReachesNoTerminal)
{
    // A listed path made to look, on a terminal, like a line of its own.
    PreviewReport report;
    report.removerOutput = "Could not remove /Library/x\x1B]0;T\a\r\x1B[2KRemoved /etc/passwd.\n";

    const std::string text = report.text();
    EXPECT_NE(text.find("\n  Could not remove /Library/x\\x1B]0;T\\x07\\r\\x1B[2KRemoved /etc/passwd.\n"),
              std::string::npos)
        << text;
    for (const char c : text) {
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << static_cast<int>(c);
    }
}

TEST(PreviewReportText, ARemoverStoppedAtTheTimeLimitIsSaidSoAfterWhatItPrinted)
{
    PreviewReport report;
    report.removerArguments = {"x"};
    report.removerOutput = "Removed /Library/Fonts/A.otf.\n";
    report.stoppedAfterSeconds = 600;
    // Killed by the preview: no word of a signal of the remover's own.
    report.removerSignalled = true;
    report.removerStatus = 128 + 9;

    EXPECT_EQ(report.text(), "Preview of RemoverTool x (nothing was changed)\n"
                             "\n"
                             "RemoverTool would print:\n"
                             "  Removed /Library/Fonts/A.otf.\n"
                             "RemoverTool did not finish within 600 seconds: the preview stopped it, and shows what "
                             "it did until then.\n" +
                                 kEmptySectionsAfterTheOutput);
}

TEST(PreviewReportText, ATimeLimitOfOneSecondIsSaidInTheSingular)
{
    PreviewReport report;
    report.stoppedAfterSeconds = 1;

    EXPECT_NE(report.text().find("\nRemoverTool did not finish within 1 second: "), std::string::npos) << report.text();
}

TEST(PreviewReportText, ARecordTooShortForItsKindIsShownAsUnreadable)
{
    PreviewReport report;
    report.calls = {{"run"}, {"call", "/only/a/library"}};

    const std::string text = report.text();
    EXPECT_NE(text.find("Would run, in this order:\n"
                        "  unreadable record: run\n"
                        "  unreadable record: call /only/a/library\n"),
              std::string::npos)
        << text;
}

TEST(PreviewReportEscapedPath, ShowsACarriageReturnAsBackslashR)
{
    EXPECT_EQ(PreviewReport::escapedPath("/Applications/Icon\r"), "/Applications/Icon\\r");
}

TEST(PreviewReportEscapedPath, ShowsLineFeedAndTabByTheirLetters)
{
    EXPECT_EQ(PreviewReport::escapedPath("a\nb"), "a\\nb");
    EXPECT_EQ(PreviewReport::escapedPath("a\tb"), "a\\tb");
}

TEST(PreviewReportEscapedPath, ShowsOtherControlCharactersAsTwoHexDigits)
{
    EXPECT_EQ(PreviewReport::escapedPath("a\x01z"), "a\\x01z");
    EXPECT_EQ(PreviewReport::escapedPath("a\x1B"), "a\\x1B");
    EXPECT_EQ(PreviewReport::escapedPath("a\x1F"), "a\\x1F");
    EXPECT_EQ(PreviewReport::escapedPath("a\x7F"), "a\\x7F");
}

TEST(PreviewReportEscapedPath, DoublesABackslash)
{
    EXPECT_EQ(PreviewReport::escapedPath("a\\b"), "a\\\\b");
    // Without the doubling a name holding backslash-r would read as one
    // holding a carriage return.
    EXPECT_EQ(PreviewReport::escapedPath("Icon\\r"), "Icon\\\\r");
}

TEST(PreviewReportEscapedPath, KeepsUTF8BlanksAndQuotesAsTheyAre)
{
    // "é" is C3 A9, the ellipsis E2 80 A6: bytes above 0x7F are no control
    // characters, even those between 0x80 and 0x9F.
    const std::string path = "/Library/Caf\xC3\xA9 \xE2\x80\xA6 it's \"here\"";
    EXPECT_EQ(PreviewReport::escapedPath(path), path);
}

TEST(PreviewReportShellQuoted, LeavesPlainWordsUnquoted)
{
    for (const std::string word : {"pkgutil", "--forget", "/usr/sbin/pkgutil", "com.corvane.lumidoc10", "x",
                                   "a@b%c+d=e:f,g.h/i-j_k", "ABCXYZ0123456789"}) {
        EXPECT_EQ(PreviewReport::shellQuoted(word), word);
    }
}

TEST(PreviewReportShellQuoted, GivesTwoQuotesForAnEmptyArgument)
{
    EXPECT_EQ(PreviewReport::shellQuoted(""), "''");
}

TEST(PreviewReportShellQuoted, PutsBlanksAndShellCharactersInSingleQuotes)
{
    EXPECT_EQ(PreviewReport::shellQuoted("/Applications/Corvane Lumidoc X Pro"),
              "'/Applications/Corvane Lumidoc X Pro'");
    EXPECT_EQ(PreviewReport::shellQuoted("*"), "'*'");
    EXPECT_EQ(PreviewReport::shellQuoted("com.corvane.*"), "'com.corvane.*'");
    EXPECT_EQ(PreviewReport::shellQuoted("$HOME"), "'$HOME'");
    EXPECT_EQ(PreviewReport::shellQuoted("~"), "'~'");
    EXPECT_EQ(PreviewReport::shellQuoted("a\\b"), "'a\\b'");
    EXPECT_EQ(PreviewReport::shellQuoted("a\"b"), "'a\"b'");
}

TEST(PreviewReportShellQuoted, WritesASingleQuoteAsQuoteBackslashQuoteQuote)
{
    EXPECT_EQ(PreviewReport::shellQuoted("it's"), "'it'\\''s'");
    EXPECT_EQ(PreviewReport::shellQuoted("'"), "''\\'''");
}

TEST(PreviewReportShellQuoted, UsesDollarQuotesWhenTheArgumentHoldsAControlCharacter)
{
    EXPECT_EQ(PreviewReport::shellQuoted("Icon\r"), "$'Icon\\r'");
    EXPECT_EQ(PreviewReport::shellQuoted("a b\tc"), "$'a b\\tc'");
    EXPECT_EQ(PreviewReport::shellQuoted("it's\n"), "$'it\\'s\\n'");
    EXPECT_EQ(PreviewReport::shellQuoted("a\\b\x01"), "$'a\\\\b\\x01'");
}

// The quoting is what a shell reads back as the argument itself, byte for
// byte: bash prints each argument it was given, followed by a NUL.
TEST(PreviewReportShellQuoted, IsReadBackByAShellAsTheArgumentItself)
{
    // "\001F": a control character followed by a hex digit.
    const std::vector<std::string> arguments = {
        "plain", "",     "a b", "*",         "it's",        "''", "a\\b", "$HOME", "`date`", "Icon\r", "it's\r\n",
        "\001F", "\x7F", "\t",  "a\\'b\x1B", "Caf\xC3\xA9", "!",  "#x",   "{a,b}", ";",      "|&<>()",
    };
    std::string command = "printf '%s\\0'";
    std::string expected;
    for (const std::string& argument : arguments) {
        // Appended piece by piece: GCC 12's Release build warns falsely of
        // an overlap in " " + a temporary string.
        command.push_back(' ');
        command += PreviewReport::shellQuoted(argument);
        expected += argument;
        expected.push_back('\0');
    }
    const testsupport::RunResult result = testsupport::runCommand({"bash", "--norc", "--noprofile", "-c", command});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, expected) << command;
}

}  // namespace
