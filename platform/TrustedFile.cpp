#include "platform/TrustedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/FolderAncestors.h"
#include "platform/PosixIO.h"

namespace platform {

namespace {

// As many links as the kernel follows in one path.
constexpr int kMaximumLinks = 40;

// Who other than root and the running user could change the item; empty when
// nobody. A root-owned sticky folder is accepted where `stickyRootFolderOK`.
std::string otherWriter(const struct stat& info, bool stickyRootFolderOK)
{
    if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
        // Its owner can always give itself write permission.
        return "writable by uid " + std::to_string(info.st_uid);
    }
    if (stickyRootFolderOK && S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0 && info.st_uid == 0) {
        return {};
    }
    if ((info.st_mode & S_IWGRP) != 0) {
        return "writable by group " + std::to_string(info.st_gid);
    }
    if ((info.st_mode & S_IWOTH) != 0) {
        return "writable by others";
    }
    return {};
}

// Judges the folder open at folderFd and every folder above it; empty when
// all are trusted, else the reason, worded for `what` ("its folder" or "the
// folder a link to it leads to").
std::string untrustedFolder(int folderFd, const std::string& what)
{
    std::string reason;
    bool ownFolder = true;
    const std::error_code error = FolderAncestors::climb(folderFd, [&](int, const struct stat& folder) {
        const std::string writer = otherWriter(folder, !ownFolder);
        if (!writer.empty()) {
            reason = (ownFolder ? what : std::string("a folder above it")) + " is " + writer;
            return false;
        }
        ownFolder = false;
        return true;
    });
    if (error && reason.empty()) {
        // What cannot be judged is not trusted.
        reason = "a folder above it cannot be examined: " + error.message();
    }
    return reason;
}

// The folder part and the last name of a path: "/a/b" gives "/a" and "b",
// "/b" gives "/" and "b", "b" gives "" (the current folder) and "b".
std::pair<std::string, std::string> splitFolderAndName(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return {"", path};
    }
    return {slash == 0 ? std::string("/") : path.substr(0, slash), path.substr(slash + 1)};
}

// Opens a folder given relative to the folder open at baseFd (or AT_FDCWD),
// following links.
posix::UniqueFd openFolder(int baseFd, const std::string& folder, std::error_code* error)
{
    return posix::openAt(baseFd, folder.empty() ? std::string(".") : folder, O_RDONLY | O_DIRECTORY | O_NOCTTY, 0,
                         error);
}

// The target of the link `name` in the folder open at folderFd.
std::optional<std::string> linkTarget(int folderFd, const std::string& name, std::error_code& error)
{
    std::string target(4096, '\0');
    for (;;) {
        const ssize_t length = ::readlinkat(folderFd, name.c_str(), target.data(), target.size());
        if (length < 0) {
            error = posix::lastError();
            return std::nullopt;
        }
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        target.resize(2 * target.size());
    }
}

void setError(std::error_code* error, std::error_code reason)
{
    if (error != nullptr) {
        *error = reason;
    }
}

// Refuses with a console line.
std::nullopt_t refuse(const std::string& path, const std::string& reason, std::error_code why, std::error_code* error)
{
    RegularFile::logNotRead(path, reason);
    setError(error, why);
    return std::nullopt;
}

}  // namespace

std::optional<std::string> TrustedFile::read(const std::string& path, std::size_t limit, std::error_code* error)
{
    if (path.empty()) {
        setError(error, std::make_error_code(std::errc::no_such_file_or_directory));
        return std::nullopt;
    }
    auto [folderPath, name] = splitFolderAndName(path);
    std::error_code reason;
    posix::UniqueFd folder = openFolder(AT_FDCWD, folderPath, &reason);
    if (!folder.valid()) {
        setError(error, reason);
        return std::nullopt;
    }
    if (const std::string why = untrustedFolder(folder.get(), "its folder"); !why.empty()) {
        return refuse(path, why, ReadRefusal::Untrusted, error);
    }
    // Final links, each judged by the folder that holds it and the folder it
    // leads to.
    for (int links = 0;; ++links) {
        struct stat item {};
        if (::fstatat(folder.get(), name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
            setError(error, posix::lastError());
            return std::nullopt;
        }
        if (!S_ISLNK(item.st_mode)) {
            break;
        }
        if (links == kMaximumLinks) {
            setError(error, std::make_error_code(std::errc::too_many_symbolic_link_levels));
            return std::nullopt;
        }
        const std::optional<std::string> target = linkTarget(folder.get(), name, reason);
        if (!target) {
            setError(error, reason);
            return std::nullopt;
        }
        auto [targetFolder, targetName] = splitFolderAndName(*target);
        posix::UniqueFd next = openFolder(folder.get(), targetFolder, &reason);
        if (!next.valid()) {
            setError(error, reason);
            return std::nullopt;
        }
        if (const std::string why = untrustedFolder(next.get(), "the folder a link to it leads to"); !why.empty()) {
            return refuse(path, why, ReadRefusal::Untrusted, error);
        }
        folder = std::move(next);
        name = std::move(targetName);
    }

    struct stat info {};
    const posix::UniqueFd file = RegularFile::openInFolder(folder.get(), name, info, &reason);
    if (!file.valid()) {
        if (reason == ReadRefusal::NotARegularFile) {
            return refuse(path, reason.message(), reason, error);
        }
        // ELOOP here: the name became a link after it was looked at.
        setError(error, reason);
        return std::nullopt;
    }
    if (const std::string writer = otherWriter(info, false); !writer.empty()) {
        return refuse(path, writer, ReadRefusal::Untrusted, error);
    }
    std::optional<std::string> contents = RegularFile::readOpen(file.get(), info, limit, &reason);
    if (!contents && reason.category() == readRefusalCategory()) {
        return refuse(path, reason.message(), reason, error);
    }
    setError(error, reason);
    return contents;
}

}  // namespace platform
