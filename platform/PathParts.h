// The strict path primitives of every guard and walk: they take a path apart
// and put it together exactly as written, never collapsing "//", never
// touching "." or "..", never expanding "~". What a path leads to is left to
// the kernel, which resolves the text piece by piece from descriptors.
//
// Path.h reproduces the platform's string semantics for output and naming
// (it collapses repeated slashes, for instance); the code that decides what
// may be removed uses these instead.
//
// @code
//   trimmingTrailingSlashes("/a/b//")  == "/a/b"
//   splitFolderAndName("/a//b")        == {"/a", "b"}
//   splitFolderAndName("x")            == {"", "x"}     ("" is the current folder)
//   splitFolderAndName("/x")           == {"/", "x"}
//   isInside("/a/b/c", "/a/b")         == true
//   joiningPath("/a", "b")             == "/a/b"
// @endcode
#pragma once

#include <string>
#include <string_view>

namespace platform {

struct FolderAndName {
    std::string folder;  // "" for the current folder, "/" for the root
    std::string name;    // the last component, "" when there is none
    bool operator==(const FolderAndName&) const = default;
};

// The path without its trailing slashes; "/" (or "///") stays "/", "" stays "".
std::string_view trimmingTrailingSlashes(std::string_view path) noexcept;

// The folder and the last component of the path, trailing slashes dropped
// first; the slashes between them are dropped too, nothing else changes.
//   "a/b" -> {"a", "b"}     "x" -> {"", "x"}     "/x" -> {"/", "x"}
//   "//x" -> {"/", "x"}     "/" -> {"/", ""}     ""   -> {"", ""}
//   "a/.." -> {"a", ".."}   (the caller decides what a "." or ".." means)
FolderAndName splitFolderAndName(std::string_view path);

// Whether `path` lies strictly below `folder`, by text alone: `folder` and a
// slash begin it. "/" holds every other absolute path.
bool isInside(std::string_view path, std::string_view folder) noexcept;

// `name` added to `folder` with one slash between them, unless `folder`
// already ends in one or is "" (the current folder).
std::string joiningPath(std::string_view folder, std::string_view name);

}  // namespace platform
