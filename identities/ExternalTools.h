// What the programs run or load besides themselves, named once for the
// remover, the updater agent's set-up and the preview (which puts its
// stand-ins at exactly these places): the package tool and its verbs, the
// launch-agent tool and its verbs, and the maker's install-manager library,
// looked for in the bundle's private frameworks, with its one entry.
//
//   platform::Task::launchedTaskWithLaunchPath(kLaunchctl_ToolPath, {kLaunchctl_Arg_unload, plistPath});
#pragma once

inline constexpr char kPackageToolPath[] = "/usr/sbin/pkgutil";
// "--regexp --forget PATTERN [--volume VOLUME]": forgets every receipt the
// pattern matches as a regular expression, on the given or default volume.
inline constexpr char kPackageTool_Arg_regexp[] = "--regexp";
inline constexpr char kPackageTool_Arg_forget[] = "--forget";
inline constexpr char kPackageTool_Arg_volume[] = "--volume";

inline constexpr char kLaunchctl_ToolPath[] = "/bin/launchctl";
inline constexpr char kLaunchctl_Arg_unload[] = "unload";
inline constexpr char kLaunchctl_Arg_load[] = "load";

inline constexpr char kInstallManagerLibrary[] = "CorvaneHOV.dylib";
inline constexpr char kInstallManagerEntry[] = "hov_uninstallCorvaneApplicationManager";
