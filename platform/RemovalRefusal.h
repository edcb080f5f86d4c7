// Why removing a folder with its contents refused an item, as a
// std::error_code of its own category, so that a failure handler's
// (path, error_code) carries the text of the reason ("a protected system
// folder", "a home folder", ...) as message().
//
// Each refusal also compares equal to a generic condition, so code that asks
// `error == std::errc::...` keeps working:
//   - the protected folders compare equal to std::errc::operation_not_permitted;
//   - a mount point and a mount that cannot be told apart compare equal to
//     std::errc::device_or_resource_busy.
#pragma once

#include <system_error>
#include <type_traits>

namespace platform {

enum class RemovalRefusal {
    SystemFolder = 1,    // "a protected system folder"
    HomeFolder,          // "a home folder"
    HomeStandardFolder,  // "a standard folder of the home folder"
    RunningBundle,       // "the running program's bundle"
    MountPoint,          // "a mount point"
    UnknownMount,        // "a mount the system cannot identify"
};

const std::error_category& removalRefusalCategory() noexcept;

std::error_code make_error_code(RemovalRefusal refusal) noexcept;

}  // namespace platform

template <>
struct std::is_error_code_enum<platform::RemovalRefusal> : std::true_type {
};
