// The user defaults' argument domain: the input split at NUL bytes is the
// command line. Every key kept is a key argument without its hyphen, and
// every value is text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/UserDefaults.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    std::string_view rest = fuzzsupport::bytesOf(data, size);
    std::vector<std::string> arguments;
    while (!rest.empty()) {
        const auto end = rest.find('\0');
        arguments.emplace_back(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    const auto domain = platform::UserDefaults::parseArgumentDomain(arguments);
    fuzzsupport::check(domain.size() <= arguments.size() / 2, "more settings than key and value pairs");
    for (const auto& [key, value] : domain) {
        fuzzsupport::check(platform::UserDefaults::isKeyArgument("-" + key), "a key that is no key argument");
        fuzzsupport::check(value.asString() != nullptr, "a value that is not text");
    }
    return 0;
}
