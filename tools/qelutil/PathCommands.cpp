// qelutil commands of the path utilities and the permission checks.
//
//   mkdirs PATH BASE [skip-check]  QELUCreateDirectoryAndIntermediates; prints
//                                  YES or NO
//   path-ok PATH [USER]            QELSecurity::makePathOK for USER (the
//                                  current user when absent); prints YES or NO
//   delete PATH CODE               QELUDeletePathIfExists with CODE, neither
//                                  record-only nor raising; prints YES or NO
//   file-size PATH                 QELUFileSize; prints the size and the status
//   permissions PATH               QELUPosixPermissionsAtPath; prints the mode
//                                  in octal (at least four digits) and the
//                                  status
// Each exits 0 once it has printed its answer.
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "fsutil/QELSecurity.h"
#include "fsutil/QELUPath.h"
#include "platform/User.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

int printAnswer(bool answer)
{
    std::printf("%s\n", answer ? "YES" : "NO");
    return 0;
}

int runMkdirs(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 2, 3);
    if (positional.size() == 3 && positional[2] != "skip-check") {
        throw qelutil::UsageError("the third argument can only be skip-check, not \"" + positional[2] + "\"");
    }
    const auto skipCheck = static_cast<signed char>(positional.size() == 3);
    return printAnswer(QELUCreateDirectoryAndIntermediates(positional[0], positional[1], skipCheck));
}

int runPathOK(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 2);
    const std::string user = positional.size() == 2 ? positional[1] : platform::userName();
    return printAnswer(QELSecurity::makePathOK(positional[0], user));
}

int runDelete(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 2, 2);
    const int32_t code = qelutil::parseInt32Argument(positional[1]);
    return printAnswer(QELUDeletePathIfExists(positional[0], code, 0, 0));
}

int runFileSize(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    int32_t status = 0;
    const uint64_t size = QELUFileSize(positional[0], &status);
    std::printf("%" PRIu64 " %" PRId32 "\n", size, status);
    return 0;
}

int runPermissions(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    int32_t status = 0;
    const unsigned long mode = QELUPosixPermissionsAtPath(positional[0], &status);
    std::printf("%04lo %" PRId32 "\n", mode, status);
    return 0;
}

const qelutil::CommandRegistrar mkdirsCommand({"mkdirs", "mkdirs PATH BASE [skip-check]", runMkdirs});
const qelutil::CommandRegistrar pathOKCommand({"path-ok", "path-ok PATH [USER]", runPathOK});
const qelutil::CommandRegistrar deleteCommand({"delete", "delete PATH CODE", runDelete});
const qelutil::CommandRegistrar fileSizeCommand({"file-size", "file-size PATH", runFileSize});
const qelutil::CommandRegistrar permissionsCommand({"permissions", "permissions PATH", runPermissions});

}  // namespace
