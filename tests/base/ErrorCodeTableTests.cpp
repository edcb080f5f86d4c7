// Every error code the product's sources mention, and every status of the
// file hash, has a row in the README's error-code table naming a test that
// exists; for a code, one of those tests names the code in its body. Read
// from the source folder at test time, so a new code without a row or a
// test fails here.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int kLowestCode = 1536;
constexpr int kHighestCode = 1960;

std::string readText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

fs::path sourceDir()
{
    return REMOVER_SOURCE_DIR;
}

// The files of the folders (below the source folder) that end in .cpp or .h.
std::vector<fs::path> sourceFiles(const std::vector<std::string>& folders)
{
    std::vector<fs::path> files;
    for (const std::string& folder : folders) {
        for (const auto& entry : fs::recursive_directory_iterator(sourceDir() / folder)) {
            const std::string extension = entry.path().extension().string();
            if (entry.is_regular_file() && (extension == ".cpp" || extension == ".h")) {
                files.push_back(entry.path());
            }
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The error codes a text mentions: four-digit numbers from 1536 to 1960.
std::set<std::string> codesIn(const std::string& text)
{
    std::set<std::string> codes;
    static const std::regex number(R"(\b1[5-9][0-9]{2}\b)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), number); it != std::sregex_iterator(); ++it) {
        const int value = std::stoi(it->str());
        if (value >= kLowestCode && value <= kHighestCode) {
            codes.insert(it->str());
        }
    }
    return codes;
}

// "hash status N" for each kHash... constant of the hash's header text.
std::set<std::string> hashStatusesIn(const std::string& header)
{
    std::set<std::string> statuses;
    static const std::regex constant(R"(\bkHash\w+\s*=\s*([0-9]+)\s*;)");
    for (auto it = std::sregex_iterator(header.begin(), header.end(), constant); it != std::sregex_iterator(); ++it) {
        statuses.insert("hash status " + (*it)[1].str());
    }
    return statuses;
}

// The rows of the table: first cell -> the `Suite.Name` test names of the
// last cell.
std::map<std::string, std::vector<std::string>> tableRows(const std::string& readme)
{
    std::map<std::string, std::vector<std::string>> rows;
    static const std::regex row(R"(^\| ([0-9]{4}|hash status [0-9]+) \|.*\|([^|]*)\|[ \t]*$)");
    static const std::regex testName(R"(`(\w+\.\w+)`)");
    std::istringstream lines(readme);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (!std::regex_match(line, match, row)) {
            continue;
        }
        std::vector<std::string>& tests = rows[match[1].str()];
        const std::string last = match[2].str();
        for (auto it = std::sregex_iterator(last.begin(), last.end(), testName); it != std::sregex_iterator(); ++it) {
            tests.push_back((*it)[1].str());
        }
    }
    return rows;
}

// "Suite.Name" -> the text of that test's body, for every TEST, TEST_F and
// TEST_P of the test sources given. A body runs to the next test, so a
// parameterized test's body takes in the instantiation after it, whose
// values name the codes it drives.
std::map<std::string, std::string> testBodies(const std::vector<std::string>& sources)
{
    std::map<std::string, std::string> bodies;
    static const std::regex head(R"((^|\n)TEST(_F|_P)?\((\w+),\s*(\w+)\))");
    for (const std::string& text : sources) {
        std::vector<std::pair<std::string, std::size_t>> starts;
        for (auto it = std::sregex_iterator(text.begin(), text.end(), head, std::regex_constants::match_default);
             it != std::sregex_iterator(); ++it) {
            starts.emplace_back((*it)[3].str() + "." + (*it)[4].str(), static_cast<std::size_t>(it->position()));
        }
        for (std::size_t i = 0; i < starts.size(); ++i) {
            const std::size_t end = i + 1 < starts.size() ? starts[i + 1].second : text.size();
            bodies[starts[i].first] = text.substr(starts[i].second, end - starts[i].second);
        }
    }
    return bodies;
}

// What is wrong with the table for the required keys: one line per problem.
std::vector<std::string> problems(const std::set<std::string>& required,
                                  const std::map<std::string, std::vector<std::string>>& rows,
                                  const std::map<std::string, std::string>& bodies)
{
    std::vector<std::string> found;
    for (const std::string& key : required) {
        const auto row = rows.find(key);
        if (row == rows.end()) {
            found.push_back(key + ": no row in the table");
            continue;
        }
        if (row->second.empty()) {
            found.push_back(key + ": the row names no test");
            continue;
        }
        bool named = false;
        for (const std::string& test : row->second) {
            const auto body = bodies.find(test);
            if (body == bodies.end()) {
                std::string problem = key + ": no test ";
                problem += test;
                found.push_back(problem);
                continue;
            }
            named = named || key.starts_with("hash status") || codesIn(body->second).contains(key);
        }
        if (!named) {
            found.push_back(key + ": no named test names the code");
        }
    }
    return found;
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

std::vector<std::string> testSources()
{
    std::vector<std::string> texts;
    for (const fs::path& file : sourceFiles({"tests"})) {
        texts.push_back(readText(file));
    }
    return texts;
}

TEST(ErrorCodeTable, EveryCodeOfTheProductsSourcesHasARowAndATestNamingIt)
{
    std::set<std::string> required;
    // The platform layer has no error codes of the system: its numbers in the
    // range are calendar years.
    for (const fs::path& file : sourceFiles({"base", "fsutil", "remover", "tools"})) {
        const std::set<std::string> codes = codesIn(readText(file));
        required.insert(codes.begin(), codes.end());
    }
    ASSERT_TRUE(required.contains("1537")) << "the sources were not read";
    const auto rows = tableRows(readText(sourceDir() / "README.md"));
    EXPECT_EQ(joined(problems(required, rows, testBodies(testSources()))), "");
}

TEST(ErrorCodeTable, EveryStatusOfTheFileHashHasARowAndAnExistingTest)
{
    const std::set<std::string> required = hashStatusesIn(readText(sourceDir() / "fsutil" / "QELSecurity.h"));
    ASSERT_EQ(required.size(), 5U);
    const auto rows = tableRows(readText(sourceDir() / "README.md"));
    EXPECT_EQ(joined(problems(required, rows, testBodies(testSources()))), "");
}

TEST(ErrorCodeTable, EveryTestTheTableNamesExists)
{
    const auto rows = tableRows(readText(sourceDir() / "README.md"));
    const auto bodies = testBodies(testSources());
    ASSERT_GT(rows.size(), 20U);
    for (const auto& [key, tests] : rows) {
        for (const std::string& test : tests) {
            EXPECT_TRUE(bodies.contains(test)) << key << ": " << test;
        }
    }
}

TEST(ErrorCodeTable, ACodeWithoutARowIsReported)
{
    const auto rows = tableRows("| 1537 | x | y | `Suite.Name` |\n");
    const std::map<std::string, std::string> bodies{{"Suite.Name", "TEST(Suite, Name) { f(1537); }"}};
    EXPECT_EQ(problems({"1537"}, rows, bodies), std::vector<std::string>{});
    EXPECT_EQ(problems({"1537", "1538"}, rows, bodies), std::vector<std::string>{"1538: no row in the table"});
}

TEST(ErrorCodeTable, ARowWhoseTestsDoNotNameTheCodeIsReported)
{
    const auto rows = tableRows("| 1538 | x | y | `Suite.Name`, `Suite.Gone` |\n| 1950 | x | y | not yet |\n");
    const std::map<std::string, std::string> bodies{{"Suite.Name", "TEST(Suite, Name) { f(1537); }"}};
    EXPECT_EQ(problems({"1538", "1950"}, rows, bodies),
              (std::vector<std::string>{"1538: no test Suite.Gone", "1538: no named test names the code",
                                        "1950: the row names no test"}));
}

TEST(ErrorCodeTable, CodesOutsideTheRangeAreNotErrorCodes)
{
    EXPECT_EQ(codesIn("1535 1536 1970 1960 21537 1901"), (std::set<std::string>{"1536", "1901", "1960"}));
}

}  // namespace
