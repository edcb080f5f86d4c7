#include "platform/Scanner.h"

#include "platform/UTF8.h"

#include <utility>

namespace platform {

namespace {

// White space and line ends as the Unicode character set defines them.
bool isWhitespaceOrNewline(char32_t c)
{
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

// The first position at or after start that is not skippable. Bytes that do
// not decode as UTF-8 are never skipped.
std::size_t skippingWhitespace(std::string_view text, std::size_t start)
{
    std::size_t position = start;
    while (position < text.size()) {
        const auto character = decodeUTF8At(text, position);
        if (!character || !isWhitespaceOrNewline(character->codePoint)) {
            break;
        }
        position += character->length;
    }
    return position;
}

}  // namespace

Scanner::Scanner(std::string text) : theText(std::move(text)) {}

bool Scanner::isAtEnd()
{
    return skippingWhitespace(theText, theLocation) >= theText.size();
}

bool Scanner::scanUpToString(std::string_view stop, std::string* into)
{
    const std::size_t start = skippingWhitespace(theText, theLocation);
    if (start >= theText.size()) {
        return false;
    }
    std::size_t end = stop.empty() ? std::string::npos : theText.find(stop, start);
    if (end == std::string::npos) {
        end = theText.size();
    }
    if (end == start) {
        return false;
    }
    if (into != nullptr) {
        into->assign(theText, start, end - start);
    }
    theLocation = end;
    return true;
}

}  // namespace platform
