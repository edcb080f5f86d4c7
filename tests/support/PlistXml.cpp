#include "tests/support/PlistXml.h"

namespace testsupport {

std::string xmlEscaped(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string plistDocument(const std::string& entries)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           entries + "</dict>\n</plist>\n";
}

std::string plistStringEntry(const std::string& key, const std::string& value)
{
    return "\t<key>" + xmlEscaped(key) + "</key>\n\t<string>" + xmlEscaped(value) + "</string>\n";
}

std::string plistStringArrayEntry(const std::string& key, const std::vector<std::string>& values)
{
    std::string entry = "\t<key>" + xmlEscaped(key) + "</key>\n\t<array>\n";
    for (const std::string& value : values) {
        entry += "\t\t<string>" + xmlEscaped(value) + "</string>\n";
    }
    return entry + "\t</array>\n";
}

std::string plistTrueEntry(const std::string& key)
{
    return "\t<key>" + xmlEscaped(key) + "</key>\n\t<true/>\n";
}

}  // namespace testsupport
