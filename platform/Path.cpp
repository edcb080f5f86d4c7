#include "platform/Path.h"

#include "platform/User.h"

#include <climits>
#include <unistd.h>

namespace platform {

namespace {

// Collapses runs of slashes into one and drops a trailing slash, except when
// the whole path is "/".
std::string standardizingSlashes(std::string_view path)
{
    std::string result;
    result.reserve(path.size());
    for (const char c : path) {
        if (c == '/' && !result.empty() && result.back() == '/') {
            continue;
        }
        result.push_back(c);
    }
    if (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

// The path without its trailing slashes; a path made only of slashes keeps one.
std::string_view trimmingTrailingSlashes(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

}  // namespace

std::string lastPathComponent(std::string_view path)
{
    const std::string_view trimmed = trimmingTrailingSlashes(path);
    if (trimmed == "/") {
        return "/";
    }
    const auto slash = trimmed.rfind('/');
    if (slash == std::string_view::npos) {
        return std::string(trimmed);
    }
    return std::string(trimmed.substr(slash + 1));
}

std::string deletingLastPathComponent(std::string_view path)
{
    // Repeated slashes collapse in what is left, as they do when a component
    // is appended: "/a//b/c" and "/a/b/c" have the same parent "/a/b".
    const std::string standardized = standardizingSlashes(path);
    if (standardized == "/") {
        return "/";
    }
    const auto slash = standardized.rfind('/');
    if (slash == std::string::npos) {
        return "";
    }
    if (slash == 0) {
        return "/";
    }
    return standardized.substr(0, slash);
}

std::string appendingPathComponent(std::string_view path, std::string_view component)
{
    std::string joined;
    joined.reserve(path.size() + component.size() + 1);
    joined.append(path);
    if (!path.empty() && !component.empty()) {
        joined.push_back('/');
    }
    joined.append(component);
    return standardizingSlashes(joined);
}

std::string appendingPathComponents(std::string_view path, std::initializer_list<std::string_view> components)
{
    std::string result(path);
    for (const std::string_view component : components) {
        result = appendingPathComponent(result, component);
    }
    return result;
}

std::string appendingPathExtension(std::string_view path, std::string_view extension)
{
    std::string result = standardizingSlashes(path);
    // Neither "" nor "/" has a last component to extend; both stay as they are.
    if (result.empty() || result == "/") {
        return result;
    }
    result.push_back('.');
    result.append(extension);
    return result;
}

std::vector<std::string> pathComponents(std::string_view path)
{
    std::vector<std::string> components;
    if (path.empty()) {
        return components;
    }
    std::size_t position = 0;
    if (path.front() == '/') {
        components.emplace_back("/");
    }
    while (position < path.size()) {
        while (position < path.size() && path[position] == '/') {
            ++position;
        }
        if (position == path.size()) {
            break;
        }
        auto end = path.find('/', position);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        components.emplace_back(path.substr(position, end - position));
        position = end;
    }
    // A trailing slash after at least one named component shows as a last "/".
    if (path.back() == '/' && components.back() != "/") {
        components.emplace_back("/");
    }
    return components;
}

bool isAbsolutePath(std::string_view path)
{
    return !path.empty() && (path.front() == '/' || path.front() == '~');
}

std::string expandingTildeInPath(std::string_view path)
{
    if (path.empty() || path.front() != '~') {
        return std::string(path);
    }
    const auto slash = path.find('/');
    const std::string_view user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    const std::string_view rest = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);

    std::string home;
    if (user.empty()) {
        home = homeDirectory();
    } else {
        const auto found = homeDirectoryForUser(std::string(user));
        if (found) {
            home = *found;
        }
    }
    if (home.empty()) {
        return std::string(path);
    }
    return appendingPathComponent(home, rest);
}

std::string fileURLPath(std::string_view path)
{
    std::string absolute(path);
    if (path.empty() || path.front() != '/') {
        char folder[PATH_MAX];
        const char* current = ::getcwd(folder, sizeof folder) != nullptr ? folder : "/";
        absolute = path.empty() ? std::string(current) : appendingPathComponent(current, path);
    }
    return std::string(trimmingTrailingSlashes(absolute));
}

}  // namespace platform
