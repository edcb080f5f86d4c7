#include "platform/StringsTable.h"

#include <utility>

#include "platform/FileManager.h"
#include "platform/PropertyList.h"
#include "platform/Text.h"
#include "platform/TextEncoding.h"
#include "platform/UTF8.h"

namespace platform {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isUnquotedCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
           c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

// The classic text form: a sequence of  "key" = "value";  or  "key";
// entries, optionally enclosed in braces, with comments anywhere white
// space may stand.
class ClassicParser {
public:
    explicit ClassicParser(std::string_view text) : theText(text) {}

    std::optional<StringsTable::Table> parse()
    {
        StringsTable::Table table;
        if (!skipBlanksAndComments()) {
            return std::nullopt;
        }
        const bool braced = peek() == '{';
        if (braced) {
            ++thePosition;
        }
        for (;;) {
            if (!skipBlanksAndComments()) {
                return std::nullopt;
            }
            if (atEnd()) {
                if (braced) {
                    return std::nullopt;
                }
                return table;
            }
            if (braced && peek() == '}') {
                ++thePosition;
                if (!skipBlanksAndComments() || !atEnd()) {
                    return std::nullopt;
                }
                return table;
            }
            auto key = readString();
            if (!key || !skipBlanksAndComments()) {
                return std::nullopt;
            }
            std::optional<std::string> value;
            if (peek() == '=') {
                ++thePosition;
                if (!skipBlanksAndComments()) {
                    return std::nullopt;
                }
                value = readString();
                if (!value || !skipBlanksAndComments()) {
                    return std::nullopt;
                }
            } else {
                value = *key;
            }
            if (peek() != ';') {
                return std::nullopt;
            }
            ++thePosition;
            table.insert_or_assign(std::move(*key), std::move(*value));
        }
    }

private:
    bool atEnd() const { return thePosition >= theText.size(); }
    char peek() const { return atEnd() ? '\0' : theText[thePosition]; }
    char peekAt(size_t offset) const
    {
        return thePosition + offset < theText.size() ? theText[thePosition + offset] : '\0';
    }

    // False when a block comment is not closed.
    bool skipBlanksAndComments()
    {
        while (!atEnd()) {
            const char c = peek();
            if (isBlank(c)) {
                ++thePosition;
            } else if (c == '/' && peekAt(1) == '*') {
                const size_t close = theText.find("*/", thePosition + 2);
                if (close == std::string_view::npos) {
                    return false;
                }
                thePosition = close + 2;
            } else if (c == '/' && peekAt(1) == '/') {
                const size_t lineEnd = theText.find_first_of("\n\r", thePosition + 2);
                thePosition = lineEnd == std::string_view::npos ? theText.size() : lineEnd;
            } else {
                break;
            }
        }
        return true;
    }

    std::optional<std::string> readString()
    {
        const char c = peek();
        if (c == '"' || c == '\'') {
            ++thePosition;
            return readQuoted(c);
        }
        const size_t start = thePosition;
        while (!atEnd() && isUnquotedCharacter(peek())) {
            ++thePosition;
        }
        if (thePosition == start) {
            return std::nullopt;
        }
        return std::string(theText.substr(start, thePosition - start));
    }

    std::optional<std::string> readQuoted(char quote)
    {
        std::string out;
        while (!atEnd()) {
            const char c = theText[thePosition++];
            if (c == quote) {
                return out;
            }
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (atEnd()) {
                return std::nullopt;
            }
            readEscape(out);
        }
        return std::nullopt;
    }

    // After a backslash: appends what the escape stands for.
    void readEscape(std::string& out)
    {
        const char c = theText[thePosition++];
        switch (c) {
        case 'a': out.push_back('\a'); return;
        case 'b': out.push_back('\b'); return;
        case 'f': out.push_back('\f'); return;
        case 'n': out.push_back('\n'); return;
        case 'r': out.push_back('\r'); return;
        case 't': out.push_back('\t'); return;
        case 'v': out.push_back('\v'); return;
        case 'U':
        case 'u': {
            char32_t unit = readHexUnit();
            if (isHighSurrogate(unit) && peek() == '\\' && (peekAt(1) == 'U' || peekAt(1) == 'u')) {
                const size_t resume = thePosition;
                thePosition += 2;
                const char32_t low = readHexUnit();
                if (isLowSurrogate(low)) {
                    unit = combineSurrogates(unit, low);
                } else {
                    thePosition = resume;
                }
            }
            appendUTF8(out, unit);
            return;
        }
        default: break;
        }
        if (c >= '0' && c <= '7') {
            char32_t value = static_cast<char32_t>(c - '0');
            for (int digits = 1; digits < 3 && peek() >= '0' && peek() <= '7'; ++digits) {
                value = value * 8 + static_cast<char32_t>(peek() - '0');
                ++thePosition;
            }
            appendUTF8(out, value);
            return;
        }
        // \" \' \\ and any other character stand for themselves.
        out.push_back(c);
    }

    // Up to four hexadecimal digits.
    char32_t readHexUnit()
    {
        char32_t value = 0;
        for (int digits = 0; digits < 4 && hexDigitValue(peek()) >= 0; ++digits) {
            value = value * 16 + static_cast<char32_t>(hexDigitValue(peek()));
            ++thePosition;
        }
        return value;
    }

    std::string_view theText;
    size_t thePosition = 0;
};

std::optional<StringsTable::Table> tableFromPropertyList(std::string_view bytes)
{
    const auto value = PropertyList::fromBytes(bytes);
    if (!value) {
        return std::nullopt;
    }
    const PropertyList::Dictionary* entries = value->asDictionary();
    if (entries == nullptr) {
        return std::nullopt;
    }
    StringsTable::Table table;
    for (const auto& [key, entry] : *entries) {
        const std::string* text = entry.asString();
        if (text == nullptr) {
            return std::nullopt;
        }
        table.emplace(key, *text);
    }
    return table;
}

bool looksLikePropertyList(std::string_view text)
{
    if (text.substr(0, 6) == "bplist") {
        return true;
    }
    size_t start = 0;
    while (start < text.size() && isBlank(text[start])) {
        ++start;
    }
    return start < text.size() && text[start] == '<';
}

}  // namespace

std::optional<StringsTable::Table> StringsTable::parse(std::string_view bytes)
{
    const std::optional<std::string> text = textFromBytes(bytes);
    if (!text) {
        return std::nullopt;
    }
    if (looksLikePropertyList(*text)) {
        return tableFromPropertyList(*text);
    }
    return ClassicParser(*text).parse();
}

std::optional<StringsTable::Table> StringsTable::readFromFile(const std::string& path)
{
    const std::optional<std::string> bytes = FileManager::defaultManager().contentsAtPath(path);
    if (!bytes) {
        return std::nullopt;
    }
    return parse(*bytes);
}

}  // namespace platform
