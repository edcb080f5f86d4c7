// An environment variable set (or, with a null value, unset) for one scope;
// what was there before is put back when it goes.
#pragma once

#include <optional>
#include <string>

namespace testsupport {

class ScopedVariable {
public:
    ScopedVariable(const char* name, const char* value);
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;
    ~ScopedVariable();

private:
    const char* theName;
    std::optional<std::string> theOld;
};

}  // namespace testsupport
