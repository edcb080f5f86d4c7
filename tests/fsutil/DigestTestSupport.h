// Helpers for the digest tests: hex forms, reproducible message bytes, and
// running other programs (the openssl oracle, qelutil) as child processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace digesttest {

std::string hex(const unsigned char* bytes, size_t count);
std::string sha224Hex(const std::string& message);
std::string sha256Hex(const std::string& message);
// The eight state words written big-endian, as final writes a SHA-256 digest.
std::string hexOfState(const uint32_t* state);

// count bytes that depend only on count and seed.
std::string messageBytes(size_t count, uint64_t seed = 1);

// A stream of reproducible bytes, handed out in pieces.
class ByteStream {
public:
    explicit ByteStream(uint64_t seed);
    void fill(unsigned char* bytes, size_t count);

private:
    uint64_t theState;
};

struct CommandResult {
    int exitStatus = -1;  // the exit status, or -1 when the child did not exit normally
    std::string out;
    std::string err;
};

// Runs program (looked up in PATH unless it contains a slash) with the
// arguments, stdinText on its standard input; collects both outputs.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::string& stdinText = "");

// The digests that `openssl dgst -<algorithm>` gives for the files, in order.
std::vector<std::string> opensslDigestsOfFiles(const std::string& algorithm, const std::vector<std::string>& files);

// `openssl dgst -<algorithm>` fed through a pipe, for messages too large to
// keep in memory.
class OpensslDigestPipe {
public:
    explicit OpensslDigestPipe(const std::string& algorithm);
    ~OpensslDigestPipe();
    OpensslDigestPipe(const OpensslDigestPipe&) = delete;
    OpensslDigestPipe& operator=(const OpensslDigestPipe&) = delete;

    void write(const unsigned char* bytes, size_t count);
    // Ends the message and returns the digest.
    std::string finish();

private:
    testsupport::TempDir theDirectory;
    int theInput = -1;
    int thePid = -1;
};

// The qelutil executable of the built bundle.
std::string qelutilPath();

// Runs the built qelutil in a sandbox: the file system read-only, a fresh
// /tmp, and an empty home folder of its own bound over the running user's
// home, so that no stored setting of this machine takes part and nothing is
// written outside. Each path in visiblePaths is bound into the sandbox at the
// same place, read-only.
CommandResult runQelutil(const std::vector<std::string>& arguments, const std::vector<std::string>& visiblePaths = {},
                         const std::string& stdinText = "");

// The lines of text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

// The fatal exception of the error model that fn raises; fails the test and
// gives 0 when it raises nothing or something else. Otherwise the code of the
// error carried under "QELErrorKey" (0 without one).
int32_t fatalErrorCodeRaisedBy(const std::function<void()>& fn);

// Gives this process the command-line settings arguments ("-Key value"
// pairs), with an application type of its own unless they name one.
void useCommandLineSettings(std::vector<std::string> arguments);

}  // namespace digesttest
