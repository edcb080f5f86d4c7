// Output split into lines, and the questions tests ask of them.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// The lines of text, without their line ends ("a\n\nb" gives "a", "", "b").
std::vector<std::string> linesOf(const std::string& text);
// True when some line ends with suffix.
bool anyLineEndsWith(const std::vector<std::string>& lines, const std::string& suffix);
// The lines that end with suffix.
std::vector<std::string> linesEndingWith(const std::vector<std::string>& lines, const std::string& suffix);
// True when some line of text contains part.
bool anyLineContains(const std::string& text, const std::string& part);

}  // namespace testsupport
