// XML property lists written by hand, the way fixtures lay them down: entries
// of a top-level dictionary, every text XML-escaped.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// text with &, < and > written as entities.
std::string xmlEscaped(const std::string& text);

// A whole XML property list document whose top-level dictionary holds the
// entries (tab-indented "<key>...</key>" lines as the functions below make).
std::string plistDocument(const std::string& entries);
// "\t<key>KEY</key>\n\t<string>VALUE</string>\n"
std::string plistStringEntry(const std::string& key, const std::string& value);
// An array of strings under the key.
std::string plistStringArrayEntry(const std::string& key, const std::vector<std::string>& values);
// "\t<key>KEY</key>\n\t<true/>\n"
std::string plistTrueEntry(const std::string& key);

}  // namespace testsupport
