// The path and text functions on any bytes, with the properties they
// promise: a parent path has no repeated slash, joins use exactly one slash,
// numbers read whatever the text.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzInput.h"
#include "platform/Path.h"
#include "platform/Scanner.h"
#include "platform/Text.h"
#include "platform/TextEncoding.h"

namespace {

using fuzzsupport::check;

void fuzzPaths(std::string_view path, std::string_view component)
{
    const std::string parent = platform::deletingLastPathComponent(path);
    check(parent.find("//") == std::string::npos, "a parent path with a repeated slash");
    check(parent.size() <= path.size(), "a parent path longer than the path");
    const std::string last = platform::lastPathComponent(path);
    check(last.size() <= path.size(), "a last component longer than the path");
    const std::string joined = platform::appendingPathComponent(path, component);
    check(joined.find("//") == std::string::npos, "a joined path with a repeated slash");
    check(joined.size() <= path.size() + component.size() + 1, "a joined path too long");
    (void)platform::appendingPathExtension(path, component);
    for (const std::string& piece : platform::pathComponents(path)) {
        check(!piece.empty(), "an empty path component");
    }
    (void)platform::isAbsolutePath(path);
    (void)platform::expandingTildeInPath(path);
}

void fuzzText(std::string_view text, std::string_view separator)
{
    if (!separator.empty()) {
        const auto pieces = platform::componentsSeparatedByString(text, separator);
        check(!pieces.empty(), "no pieces from a split");
    }
    const int64_t number = platform::integerValue(text);
    const int32_t small = platform::intValue(text);
    check(static_cast<int64_t>(small) == number || number > INT32_MAX || number < INT32_MIN,
          "intValue and integerValue disagree inside the 32-bit range");
    (void)platform::stringFromNumber(number);
    const auto unescaped = platform::replacingPercentEscapes(text);
    if (unescaped) {
        check(platform::isValidUTF8(*unescaped), "percent unescape gave text that is not UTF-8");
        check(unescaped->size() <= text.size(), "percent unescape made the text longer");
    }
    (void)platform::dataUsingUTF8Encoding(text);
    (void)platform::textFromBytes(text);
    platform::Scanner scanner{std::string(text)};
    std::string line;
    while (!scanner.isAtEnd() && scanner.scanUpToString("\n", &line)) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string_view input = fuzzsupport::bytesOf(data, size);
    // The first byte chooses where the rest splits into two arguments.
    const std::size_t split = input.empty() ? 0 : static_cast<unsigned char>(input[0]);
    const std::string_view body = input.empty() ? input : input.substr(1);
    const std::string_view first = body.substr(0, split);
    const std::string_view second = body.substr(std::min(split, body.size()));
    fuzzPaths(first, second);
    fuzzText(first, second.substr(0, 4));
    return 0;
}
