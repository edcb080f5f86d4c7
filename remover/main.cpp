// RemoverTool APP_PATH_IGNORED_ARGUMENT APP_PATH
//
// The application path is argument index 2; the first argument is ignored.
// With fewer arguments a warning names the default path, which is used. The
// exit status is 0 whenever the sequence ends normally.
//
// Once started, a run ends whole: a reader of its output that goes away
// (`| head -n 1`) or a terminal that hangs up does not stop it half-way
// (SIGPIPE and SIGHUP are ignored; a status line that cannot be written is
// lost and the run goes on). SIGINT and SIGTERM still stop it.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <system_error>

#include "platform/Exception.h"
#include "platform/ProcessInfo.h"
#include "platform/Signals.h"
#include "remover/TFRemoverTool.h"

namespace {

constexpr char kDefaultAppPath[] = "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app";

// An exception no step catches ends the process abnormally. The status
// lines printed so far are flushed first, so a script reading the output
// still sees everything that was done.
[[noreturn]] void terminateAfterFlushing()
{
    std::fflush(stdout);
    if (const std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const platform::Exception& exception) {
            std::fprintf(stderr, "RemoverTool: terminating on uncaught exception %s, reason: %s\n",
                         exception.name().c_str(), exception.reason().c_str());
        } catch (const std::exception& exception) {
            std::fprintf(stderr, "RemoverTool: terminating on uncaught exception: %s\n", exception.what());
        } catch (...) {
            std::fprintf(stderr, "RemoverTool: terminating on an uncaught exception of unknown type\n");
        }
    }
    std::abort();
}

}  // namespace

int main(int argc, char** argv)
{
    std::set_terminate(terminateAfterFlushing);
    if (const std::error_code error = platform::Signals::ignoreSignalsThatWouldCutARunShort()) {
        std::fprintf(stderr, "RemoverTool: SIGPIPE and SIGHUP could not be ignored: %s\n", error.message().c_str());
    }
    platform::ProcessInfo::setArguments(argc, argv);

    std::string appPath = kDefaultAppPath;
    if (argc <= 2) {
        std::printf("RemoverTool:WARNING: Application path parameter not passed. Using default value [%s].\n",
                    kDefaultAppPath);
    } else {
        appPath = argv[2];
    }

    {
        TFRemoverTool remover;
        remover.setAppPath(appPath);
        remover.run();
    }
    return 0;
}
