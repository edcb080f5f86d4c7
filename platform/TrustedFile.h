// Reading a file that tells a root program what to do (a list of paths to
// delete) only when nobody but root or the running user could have written
// it, judged as sudo and OpenSSH judge their own files.
//
// Trusted means: the file and every folder it really lies in, up to the
// root, are owned by root or the running (effective) user and are writable
// neither by their group nor by others. Above the file's own folder, a
// root-owned folder with the sticky bit (such as /tmp, 1777) is accepted,
// since nobody else can replace what root put in it.
//
// Links: links in the middle of the path are followed; what is judged is
// where the folder really lies (found by climbing "..", see
// FolderAncestors.h), not the path text. A final link is followed too, but
// the folder that holds each link on the way must be trusted as well, since
// whoever can write there can point the link anywhere; the file is then
// opened relative to the folder the last link leads to, never by its path
// again, so what is judged is what is read.
//
// @code
//   std::error_code why;
//   auto bytes = TrustedFile::read("/Library/Application Support/X/uninstall.log", RegularFile::kSizeLimit, &why);
//   // none, and on the console "not read: PATH: writable by uid 1000"
// @endcode
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <system_error>

#include "platform/RegularFile.h"

namespace platform {

class TrustedFile {
public:
    TrustedFile() = delete;

    // The whole file at path when it is trusted (above), a regular file and
    // at most `limit` bytes; none otherwise, with the reason in `error`
    // (ReadRefusal::Untrusted, NotARegularFile, TooLarge, or what the system
    // answered). Every refusal is told on the console as
    // "not read: PATH: REASON", the reason one of
    //   "writable by uid N"                      owned by another user N
    //   "writable by group N"                    group N may write it
    //   "writable by others"
    //   "its folder is writable by ..."          the same of the folder it lies in
    //   "a folder above it is writable by ..."   the same of a folder higher up
    //   "the folder a link to it leads to is writable by ..."
    //   "not a regular file", "larger than a file read whole may be"
    // A file that is missing or cannot be opened is not told.
    static std::optional<std::string> read(const std::string& path, std::size_t limit = RegularFile::kSizeLimit,
                                           std::error_code* error = nullptr);
};

}  // namespace platform
