// The settings of the test process itself, and what the error model raises
// in it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// The application type the in-process tests give on their command line, so
// that no stored setting of the machine decides it.
inline constexpr char kTestAppType[] = "Lumidoc Test";

// Replaces the argument domain of the user defaults, as if the process had
// been started with these "-Key value" arguments.
void useCommandLineSettings(const std::vector<std::string>& arguments);

// The fatal exception of the error model that fn raises; fails the test and
// gives 0 when it raises nothing or something else. Otherwise the code of the
// error carried under "QELErrorKey" (0 without one).
int32_t fatalErrorCodeRaisedBy(const std::function<void()>& fn);

}  // namespace testsupport
