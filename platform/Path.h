// Path functions over UTF-8 byte strings, with the semantics of the string
// methods the remover was designed against ("/tmp/" -> last component "tmp",
// a trailing slash dropped before the last component is removed, ...).
//
// They reproduce the platform's string semantics for output and naming, and
// some of them collapse or expand what they are given ("//" made one, "~"
// expanded). The code that decides what may be removed, and every walk, uses
// the strict primitives of PathParts.h instead, which change nothing.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// The last component; trailing slashes do not count.
/// @code
///   lastPathComponent("/tmp/scratch.tiff")  == "scratch.tiff"
///   lastPathComponent("/tmp/")              == "tmp"
///   lastPathComponent("scratch///")         == "scratch"
///   lastPathComponent("/")                  == "/"
///   lastPathComponent("")                   == ""
/// @endcode
std::string lastPathComponent(std::string_view path);

/// The path less its last component and the slashes before it. Repeated
/// slashes inside what is left collapse into one.
/// @code
///   deletingLastPathComponent("/tmp/scratch.tiff")  == "/tmp"
///   deletingLastPathComponent("/tmp/lock/")         == "/tmp"
///   deletingLastPathComponent("/tmp/")              == "/"
///   deletingLastPathComponent("/tmp")               == "/"
///   deletingLastPathComponent("/")                  == "/"
///   deletingLastPathComponent("scratch.tiff")       == ""
///   deletingLastPathComponent("/tmp//scratch")      == "/tmp"
///   deletingLastPathComponent("/a//b/c")            == "/a/b"
///   deletingLastPathComponent("//tmp")              == "/"
/// @endcode
std::string deletingLastPathComponent(std::string_view path);

/// The path with one more component, joined by exactly one slash.
/// @code
///   appendingPathComponent("/tmp", "x")    == "/tmp/x"
///   appendingPathComponent("/tmp/", "x")   == "/tmp/x"
///   appendingPathComponent("/tmp", "/x")   == "/tmp/x"
///   appendingPathComponent("/tmp", "x/")   == "/tmp/x"
///   appendingPathComponent("/", "x")       == "/x"
///   appendingPathComponent("", "x")        == "x"
///   appendingPathComponent("/tmp", "")     == "/tmp"
/// @endcode
std::string appendingPathComponent(std::string_view path, std::string_view component);

/// Appends each component in turn, exactly as nested appendingPathComponent
/// calls would.
/// @code
///   appendingPathComponents("/Apps/X.app", {"Contents", "Resources", "English.lproj"})
///       == "/Apps/X.app/Contents/Resources/English.lproj"
///   appendingPathComponents("/Apps/X.app/", {"", "Contents/"})  == "/Apps/X.app/Contents"
/// @endcode
std::string appendingPathComponents(std::string_view path, std::initializer_list<std::string_view> components);

/// The path with "." and the extension after its last component.
/// @code
///   appendingPathExtension("/tmp/scratch.old", "tiff")  == "/tmp/scratch.old.tiff"
///   appendingPathExtension("/tmp/", "tiff")             == "/tmp.tiff"
///   appendingPathExtension("scratch", "tiff")           == "scratch.tiff"
///   appendingPathExtension("/", "tiff")                 == "/"
///   appendingPathExtension("", "tiff")                  == ""
/// @endcode
std::string appendingPathExtension(std::string_view path, std::string_view extension);

/// The components; a leading slash is a component "/", and so is a trailing one.
/// @code
///   pathComponents("tmp/scratch")     == {"tmp", "scratch"}
///   pathComponents("/tmp/scratch")    == {"/", "tmp", "scratch"}
///   pathComponents("/tmp/")           == {"/", "tmp", "/"}
///   pathComponents("//tmp//scratch")  == {"/", "tmp", "scratch"}
///   pathComponents("/")               == {"/"}
/// @endcode
std::vector<std::string> pathComponents(std::string_view path);

/// True when the path begins with "/" or "~".
/// @code
///   isAbsolutePath("/tmp")  == true
///   isAbsolutePath("~/x")   == true
///   isAbsolutePath("tmp")   == false
/// @endcode
bool isAbsolutePath(std::string_view path);

/// "~" and "~/x" use the effective user's home folder, "~user/x" that
/// user's; an unknown user leaves the path as written.
/// @code
///   expandingTildeInPath("~")                == home
///   expandingTildeInPath("~/x")              == home + "/x"
///   expandingTildeInPath("~root/x")          == root's home + "/x"
///   expandingTildeInPath("~no_such_user/x")  == "~no_such_user/x"
///   expandingTildeInPath("x/~")              == "x/~"
/// @endcode
std::string expandingTildeInPath(std::string_view path);

/// The path of a file URL made from the path: a path not starting with "/"
/// is taken from the current folder (from "/" when that cannot be read), and
/// trailing slashes are dropped. Nothing else is resolved.
/// @code
///   fileURLPath("/Applications/App.app//")  == "/Applications/App.app"
///   fileURLPath("/")                        == "/"
///   fileURLPath("a/../b")                   == current folder + "/a/../b"
///   fileURLPath("")                         == current folder
/// @endcode
std::string fileURLPath(std::string_view path);

}  // namespace platform
