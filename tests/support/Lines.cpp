#include "tests/support/Lines.h"

namespace testsupport {

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool anyLineEndsWith(const std::vector<std::string>& lines, const std::string& suffix)
{
    return !linesEndingWith(lines, suffix).empty();
}

std::vector<std::string> linesEndingWith(const std::vector<std::string>& lines, const std::string& suffix)
{
    std::vector<std::string> found;
    for (const auto& line : lines) {
        if (line.size() >= suffix.size() && line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

bool anyLineContains(const std::string& text, const std::string& part)
{
    for (const std::string& line : linesOf(text)) {
        if (line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace testsupport
