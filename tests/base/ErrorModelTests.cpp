// The error model in-process: prior error, raising, forced errors, logging
// of error codes, errors made from statuses and exceptions.
#include <any>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/QELBVerify.h"
#include "base/QELBase.h"
#include "tests/support/ConsoleCapture.h"
#include "tests/support/LogFile.h"
#include "tests/support/Lines.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::ConsoleCapture;
using testsupport::kTestAppType;

std::string encountered(int code)
{
    return std::string(kTestAppType) + " Updater encountered errorCode " + std::to_string(code);
}

// The code of the error a fatal exception carries, or -1 without one.
int carriedCode(const platform::Exception& exception)
{
    const std::optional<platform::Error> error = QELBase::errorOfException(exception);
    return error ? error->code() : -1;
}

platform::Exception caughtFatalRaise(int code)
{
    try {
        QELBase::raiseWithErrorCode(code);
    } catch (const platform::Exception& exception) {
        return exception;
    }
}

class ErrorModel : public ::testing::Test {
protected:
    void SetUp() override { testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-LogLevel", "0"}); }
};

TEST_F(ErrorModel, FatalRaiseCarriesThePriorErrorUnderTheErrorKey)
{
    const ConsoleCapture console;
    const platform::Exception exception = caughtFatalRaise(1844);
    EXPECT_EQ(exception.name(), "QELFatalException");
    EXPECT_EQ(exception.reason(), "Stopping due to error");
    ASSERT_EQ(exception.userInfo().size(), 1U);
    const auto* error = std::any_cast<platform::Error>(&exception.userInfo().at("QELErrorKey"));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "com.corvane.QEL");
    EXPECT_EQ(error->code(), 1844);
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->code(), 1844);
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1844)});
}

TEST_F(ErrorModel, FirstErrorWinsAndLaterFatalRaisesCarryIt)
{
    const ConsoleCapture console;
    EXPECT_EQ(carriedCode(caughtFatalRaise(1876)), 1876);
    EXPECT_EQ(carriedCode(caughtFatalRaise(1877)), 1876);
    EXPECT_EQ(QELBase::error()->code(), 1876);
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(1876), encountered(1877)}));
}

TEST_F(ErrorModel, RaiseWithLoggingErrorLogsThatErrorFirst)
{
    const ConsoleCapture console;
    try {
        QELBase::raiseWithErrorCode(1852, platform::Error("com.corvane.QEL.OSStatus", -43));
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(carriedCode(exception), 1852);
    }
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(-43), encountered(1852)}));
}

TEST_F(ErrorModel, NonFatalRaiseLogsTheCodeAndLeavesThePriorErrorEmpty)
{
    const ConsoleCapture console;
    try {
        QELBase::raiseAndLogErrorCode(1866);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELNonFatalException");
        EXPECT_EQ(exception.reason(), "Continuing after error");
        EXPECT_TRUE(exception.userInfo().empty());
    }
    EXPECT_FALSE(QELBase::error().has_value());
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1866)});
}

TEST_F(ErrorModel, SecondSetErrorKeepsTheFirstAndBothCodesAreLogged)
{
    const ConsoleCapture console;
    QELBase::setError(platform::Error("com.corvane.QEL", 1950));
    QELBase::setError(platform::Error("other.domain", 1951));
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->code(), 1950);
    EXPECT_EQ(QELBase::error()->domain(), "com.corvane.QEL");
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(1950), encountered(1951)}));
}

TEST_F(ErrorModel, SetErrorCodeMakesAnErrorOfTheModelsDomain)
{
    const ConsoleCapture console;
    QELBase::setErrorCode(1953);
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->domain(), "com.corvane.QEL");
    EXPECT_EQ(QELBase::error()->code(), 1953);
    EXPECT_TRUE(QELBase::error()->userInfo().empty());
}

TEST_F(ErrorModel, TerminateClearsThePriorError)
{
    const ConsoleCapture console;
    QELBase::init();
    QELBase::setErrorCode(1953);
    QELBase::terminate();
    EXPECT_FALSE(QELBase::error().has_value());
}

TEST_F(ErrorModel, RaiseOnPriorErrorWithoutPriorErrorDoesNothing)
{
    const ConsoleCapture console;
    EXPECT_NO_THROW(QELBase::raiseOnPriorError());
    EXPECT_FALSE(QELBase::error().has_value());
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(ErrorModel, RaiseOnPriorErrorRaisesTheFatalExceptionWithThePriorCode)
{
    const ConsoleCapture console;
    QELBase::setErrorCode(1880);
    try {
        QELBase::raiseOnPriorError();
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELFatalException");
        EXPECT_EQ(carriedCode(exception), 1880);
    }
}

TEST_F(ErrorModel, ConsecutiveRepeatsOfOneCodeAreLoggedOnce)
{
    const ConsoleCapture console;
    QELBase::logErrorCode(1950);
    QELBase::logErrorCode(1950);
    QELBase::logErrorCode(1951);
    QELBase::logErrorCode(1950);
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(1950), encountered(1951), encountered(1950)}));
}

TEST_F(ErrorModel, LogErrorCodeZeroAsTheFirstLoggedCodeLogsNothing)
{
    const ConsoleCapture console;
    QELBase::logErrorCode(0);
    EXPECT_TRUE(console.messages().empty());
    QELBase::logErrorCode(1950);
    QELBase::logErrorCode(0);
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(1950), encountered(0)}));
}

TEST_F(ErrorModel, CancellationCodeIsLoggedAsCancelled)
{
    const ConsoleCapture console;
    QELBase::logErrorCode(1901);
    EXPECT_EQ(console.messages(), std::vector<std::string>{std::string(kTestAppType) + " Updater cancelled"});
}

TEST_F(ErrorModel, LogErrorLogsOnlyTheCodeOfTheError)
{
    const ConsoleCapture console;
    QELBase::logError(platform::Error("some.domain", 1536, platform::UserInfo{{"key", std::string("value")}}));
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1536)});
}

TEST_F(ErrorModel, LogErrorStringQuotesTheText)
{
    const ConsoleCapture console;
    QELBase::logErrorString("pipe closed");
    EXPECT_EQ(console.messages(),
              std::vector<std::string>{std::string(kTestAppType) + " Updater encountered error \"pipe closed\""});
}

TEST_F(ErrorModel, ErrorFromOSStatusZeroIsNone)
{
    EXPECT_FALSE(QELBase::errorFromOSStatus(0).has_value());
}

TEST_F(ErrorModel, ErrorFromOSStatusKeepsTheStatusInTheOSStatusDomain)
{
    const auto error = QELBase::errorFromOSStatus(-36);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), "com.corvane.QEL.OSStatus");
    EXPECT_EQ(error->code(), -36);
    EXPECT_TRUE(error->userInfo().empty());
}

TEST_F(ErrorModel, ErrorFromExceptionReturnsTheErrorAFatalExceptionCarries)
{
    const platform::Exception fatal("QELFatalException", "Stopping due to error",
                                    platform::UserInfo{{"QELErrorKey", platform::Error("com.corvane.QEL", 1874)}});
    const platform::Error error = QELBase::errorFromException(fatal, 1881);
    EXPECT_EQ(error.code(), 1874);
}

TEST_F(ErrorModel, ErrorFromExceptionIgnoresAnErrorKeyThatHoldsNoError)
{
    const platform::Exception odd("Odd", "odd", platform::UserInfo{{"QELErrorKey", std::string("not an error")}});
    const platform::Error error = QELBase::errorFromException(odd, 1881);
    EXPECT_EQ(error.domain(), "com.corvane.QEL");
    EXPECT_EQ(error.code(), 1881);
    EXPECT_EQ(error.userInfo().count("QELOSExceptionKey"), 1U);
}

TEST_F(ErrorModel, ErrorOfExceptionIsTheErrorUnderTheErrorKey)
{
    const platform::Exception fatal("QELFatalException", "Stopping due to error",
                                    platform::UserInfo{{"QELErrorKey", platform::Error("com.corvane.QEL", 1874)}});
    const std::optional<platform::Error> error = QELBase::errorOfException(fatal);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), "com.corvane.QEL");
    EXPECT_EQ(error->code(), 1874);
}

TEST_F(ErrorModel, ErrorOfExceptionIsNoneWithoutAnErrorUnderTheErrorKey)
{
    EXPECT_FALSE(QELBase::errorOfException(platform::Exception("QELFatalException", "Stopping due to error")));
    EXPECT_FALSE(QELBase::errorOfException(
        platform::Exception("Odd", "odd", platform::UserInfo{{"QELErrorKey", std::string("not an error")}})));
    EXPECT_FALSE(QELBase::errorOfException(platform::Exception(
        "Odd", "odd", platform::UserInfo{{"QELOSExceptionKey", platform::Error("com.corvane.QEL", 1874)}})));
}

TEST_F(ErrorModel, HandleRaiseWithANonFatalExceptionLeavesThePriorErrorEmpty)
{
    const ConsoleCapture console;
    QELBase::handleRaise(platform::Exception("QELNonFatalException", "Continuing after error"), 1881);
    EXPECT_FALSE(QELBase::error().has_value());
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(ErrorModel, HandleRaiseWithAForeignExceptionRecordsTheHandlerIDCarryingTheException)
{
    const ConsoleCapture console;
    QELBase::handleRaise(platform::Exception("NSRangeException", "index 3 beyond bounds"), 1881);
    const auto error = QELBase::error();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->domain(), "com.corvane.QEL");
    EXPECT_EQ(error->code(), 1881);
    ASSERT_EQ(error->userInfo().count("QELOSExceptionKey"), 1U);
    const auto* carried = std::any_cast<platform::Exception>(&error->userInfo().at("QELOSExceptionKey"));
    ASSERT_NE(carried, nullptr);
    EXPECT_EQ(carried->name(), "NSRangeException");
    EXPECT_EQ(carried->reason(), "index 3 beyond bounds");
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1881)});
}

TEST_F(ErrorModel, HandleRaiseWithAFatalExceptionRecordsTheErrorItCarries)
{
    const ConsoleCapture console;
    const platform::Exception fatal("QELFatalException", "Stopping due to error",
                                    platform::UserInfo{{"QELErrorKey", platform::Error("com.corvane.QEL", 1852)}});
    QELBase::handleRaise(fatal, 1881);
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->code(), 1852);
}

TEST_F(ErrorModel, HandleRaiseKeepsAnExistingPriorError)
{
    const ConsoleCapture console;
    QELBase::setErrorCode(1847);
    QELBase::handleRaise(platform::Exception("NSRangeException", "index 3 beyond bounds"), 1881);
    EXPECT_EQ(QELBase::error()->code(), 1847);
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1847)});
}

TEST_F(ErrorModel, AFailingConditionReportsItsErrorWhenForceErrorNamesAnotherCode)
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-ForceError", "1874"});
    const ConsoleCapture console;
    EXPECT_TRUE(QELBase::condShouldTriggerErrorCode(false, 1536));
    try {
        QELBase::verifyCondition(false, 1536);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(carriedCode(exception), 1536);
    }
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1536)});
}

TEST_F(ErrorModel, AHoldingConditionPassesWhenForceErrorNamesAnotherCode)
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-ForceError", "1874"});
    const ConsoleCapture console;
    EXPECT_FALSE(QELBase::condShouldTriggerErrorCode(true, 1536));
    EXPECT_NO_THROW(QELBase::verifyCondition(true, 1536));
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(ErrorModel, ForcedErrorCountIsSharedByAllCodesAndNeverReset)
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-ForceError", "1874", "-ForceErrorSkipCount", "2"});
    const ConsoleCapture console;
    EXPECT_FALSE(QELBase::condShouldTriggerErrorCode(true, 1874));
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-ForceError", "1536", "-ForceErrorSkipCount", "2"});
    EXPECT_FALSE(QELBase::condShouldTriggerErrorCode(true, 1536));
    EXPECT_TRUE(QELBase::condShouldTriggerErrorCode(true, 1536));
    EXPECT_EQ(console.messages(), (std::vector<std::string>{"Error 1874 forced for testing but count only 1 out of 3",
                                                            "Error 1536 forced for testing but count only 2 out of 3",
                                                            "Error 1536 forced for testing"}));
}

TEST_F(ErrorModel, ForcingSettingsAreReadFromTheCommandLineAsIntegers)
{
    testsupport::useCommandLineSettings({"-ForceError", " 1874xyz", "-ForceErrorSkipCount", "-3"});
    EXPECT_EQ(QELBase::forceErrorCode(), 1874);
    EXPECT_EQ(QELBase::forceErrorCodeSkipCount(), -3);
    testsupport::useCommandLineSettings({});
    EXPECT_EQ(QELBase::forceErrorCode(), 0);
    EXPECT_EQ(QELBase::forceErrorCodeSkipCount(), 0);
}

TEST_F(ErrorModel, VerifyLogAndMaybeRaiseOnlyLogsWhenNotRaising)
{
    const ConsoleCapture console;
    EXPECT_NO_THROW(QELBVerifyLogAndMaybeRaise(0, 1953, 0));
    EXPECT_FALSE(QELBase::error().has_value());
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1953)});
}

TEST_F(ErrorModel, VerifyLogAndMaybeRaiseRaisesTheNonFatalException)
{
    const ConsoleCapture console;
    try {
        QELBVerifyLogAndMaybeRaise(0, 1960, 1);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELNonFatalException");
    }
    EXPECT_FALSE(QELBase::error().has_value());
    EXPECT_EQ(console.messages(), std::vector<std::string>{encountered(1960)});
}

TEST_F(ErrorModel, VerifyLogAndMaybeRaiseDoesNothingWhenTheConditionHolds)
{
    const ConsoleCapture console;
    EXPECT_NO_THROW(QELBVerifyLogAndMaybeRaise(1, 1960, 1));
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(ErrorModel, VerifyWithErrorAndStringLogsTheMessageEvenWhenTheConditionHolds)
{
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    EXPECT_NO_THROW(QELBVerifyWithErrorAndString(1, 1537, std::nullopt, std::string("creating the folder")));
    // A level-0 message: into the log file only.
    EXPECT_EQ(testsupport::logMessagesOf(testsupport::logFileContents().substr(before.size())),
              std::vector<std::string>{"creating the folder"});
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(ErrorModel, VerifyWithErrorAndStringLogsMessageAndErrorThenRaisesFatal)
{
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    try {
        QELBVerifyWithErrorAndString(0, 1537, platform::Error("com.corvane.QEL.OSStatus", -48),
                                     std::string("creating the folder"));
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELFatalException");
        EXPECT_EQ(carriedCode(exception), 1537);
    }
    EXPECT_EQ(testsupport::logMessagesOf(testsupport::logFileContents().substr(before.size())),
              (std::vector<std::string>{"creating the folder", encountered(-48), encountered(1537)}));
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(-48), encountered(1537)}));
}

}  // namespace
