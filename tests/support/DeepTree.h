// Deep folder trees for tests of walks that must not be limited by depth:
// built through descriptors, so PATH_MAX does not limit them either.
#pragma once

#include <functional>
#include <string>

#include "tests/support/Descriptor.h"

namespace testsupport {

// Builds `depth` levels of folders "d" below the folder open at `top`,
// calling `atLevel(folder, level)` in each before going down (a null one
// does nothing); false when something could not be made.
bool buildChain(int top, int depth, const std::function<bool(int, int)>& atLevel = {});
// The same below the folder at `path`.
bool buildChain(const std::string& path, int depth, const std::function<bool(int, int)>& atLevel = {});
// Folders of 250-byte names one below the other under the folder at `top`
// until the path of the deepest is longer than `length` (PATH_MAX is 4096):
// that path in `path`, and the deepest folder open (not open when something
// could not be made).
Descriptor buildLongPath(const std::string& top, std::size_t length, std::string& path);
// A file `name` (holding its first letter) in the folder open at `folder`;
// false when it cannot be made.
bool makeFileAt(int folder, const char* name);

}  // namespace testsupport
