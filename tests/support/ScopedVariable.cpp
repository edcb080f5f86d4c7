#include "tests/support/ScopedVariable.h"

#include <cstdlib>

namespace testsupport {

ScopedVariable::ScopedVariable(const char* name, const char* value) : theName(name)
{
    if (const char* old = std::getenv(name)) {
        theOld = old;
    }
    if (value != nullptr) {
        ::setenv(name, value, 1);
    } else {
        ::unsetenv(name);
    }
}

ScopedVariable::~ScopedVariable()
{
    if (theOld) {
        ::setenv(theName, theOld->c_str(), 1);
    } else {
        ::unsetenv(theName);
    }
}

}  // namespace testsupport
