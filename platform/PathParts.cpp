#include "platform/PathParts.h"

namespace platform {

std::string_view trimmingTrailingSlashes(std::string_view path) noexcept
{
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

FolderAndName splitFolderAndName(std::string_view path)
{
    const std::string_view trimmed = trimmingTrailingSlashes(path);
    if (trimmed == "/") {
        return {"/", ""};
    }
    const std::string_view::size_type slash = trimmed.rfind('/');
    if (slash == std::string_view::npos) {
        return {"", std::string(trimmed)};
    }
    std::string_view folder = trimmed.substr(0, slash + 1);
    folder = trimmingTrailingSlashes(folder);
    return {std::string(folder), std::string(trimmed.substr(slash + 1))};
}

bool isInside(std::string_view path, std::string_view folder) noexcept
{
    if (folder.empty() || path.size() <= folder.size() || path.substr(0, folder.size()) != folder) {
        return false;
    }
    return folder.back() == '/' || path[folder.size()] == '/';
}

std::string joiningPath(std::string_view folder, std::string_view name)
{
    std::string joined(folder);
    if (!joined.empty() && joined.back() != '/') {
        joined.push_back('/');
    }
    joined.append(name);
    return joined;
}

}  // namespace platform
