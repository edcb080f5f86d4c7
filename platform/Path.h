// Path functions over UTF-8 byte strings, with the semantics of the string
// methods the remover was designed against ("/tmp/" -> last component "tmp",
// a trailing slash dropped before the last component is removed, ...).
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

std::string lastPathComponent(std::string_view path);
std::string deletingLastPathComponent(std::string_view path);
std::string appendingPathComponent(std::string_view path, std::string_view component);
// Appends each component in turn, exactly as nested appendingPathComponent
// calls would:
// @code
//   appendingPathComponents("/Apps/X.app", {"Contents", "Resources", "English.lproj"})
//       // "/Apps/X.app/Contents/Resources/English.lproj"
//   appendingPathComponents("/Apps/X.app/", {"", "Contents/"})  // "/Apps/X.app/Contents"
// @endcode
std::string appendingPathComponents(std::string_view path, std::initializer_list<std::string_view> components);
std::string appendingPathExtension(std::string_view path, std::string_view extension);
std::vector<std::string> pathComponents(std::string_view path);
// True when the path begins with "/" or "~".
bool isAbsolutePath(std::string_view path);
// "~" and "~/x" use the effective user's home folder, "~user/x" that user's;
// an unknown user leaves the path as written.
std::string expandingTildeInPath(std::string_view path);
// The path of a file URL made from the path: a path not starting with "/" is
// taken from the current folder (from "/" when that cannot be read), and
// trailing slashes are dropped. Nothing else is resolved.
std::string fileURLPath(std::string_view path);

}  // namespace platform
