#include "tests/support/Settings.h"

#include <optional>
#include <gtest/gtest.h>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/UserDefaults.h"

namespace testsupport {

void useCommandLineSettings(const std::vector<std::string>& arguments)
{
    platform::UserDefaults::standardUserDefaults().setArgumentDomainFromArguments(arguments);
}

int32_t fatalErrorCodeRaisedBy(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), QEL_FATAL_EXCEPTION_NAME);
        const std::optional<platform::Error> error = QELBase::errorOfException(exception);
        return error ? error->code() : 0;
    }
    ADD_FAILURE() << "nothing was raised";
    return 0;
}

}  // namespace testsupport
