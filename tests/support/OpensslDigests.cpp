#include "tests/support/OpensslDigests.h"

#include <stdexcept>
#include <string_view>

#include "tests/support/Lines.h"

namespace testsupport {

namespace {

// "<hex> *<name>" as `openssl dgst -r` prints it: the hex part.
std::string digestOfLine(const std::string& line)
{
    return line.substr(0, line.find(' '));
}

}  // namespace

std::string opensslDigestOf(const std::string& algorithm, const std::string& text)
{
    CommandOptions options;
    options.input = text;
    const RunResult result = runCommand({"openssl", "dgst", "-" + algorithm, "-r"}, options);
    if (result.exitStatus != 0) {
        throw std::runtime_error("openssl failed: " + result.standardError);
    }
    return digestOfLine(result.standardOutput);
}

std::vector<std::string> opensslDigestsOfFiles(const std::string& algorithm, const std::vector<std::string>& files)
{
    std::vector<std::string> command = {"openssl", "dgst", "-" + algorithm, "-r"};
    command.insert(command.end(), files.begin(), files.end());
    const RunResult result = runCommand(command);
    if (result.exitStatus != 0) {
        throw std::runtime_error("openssl failed: " + result.standardError);
    }
    std::vector<std::string> digests;
    for (const std::string& line : linesOf(result.standardOutput)) {
        digests.push_back(digestOfLine(line));
    }
    if (digests.size() != files.size()) {
        throw std::runtime_error("openssl printed an unexpected number of digests");
    }
    return digests;
}

OpensslDigestPipe::OpensslDigestPipe(const std::string& algorithm)
    : theOpenssl(std::make_unique<Subprocess>(std::vector<std::string>{"openssl", "dgst", "-" + algorithm, "-r"},
                                              Subprocess::Input::Pipe))
{
}

void OpensslDigestPipe::write(const unsigned char* bytes, size_t count)
{
    theOpenssl->write(std::string_view(reinterpret_cast<const char*>(bytes), count));
}

std::string OpensslDigestPipe::finish()
{
    const RunResult result = theOpenssl->finish();
    if (result.exitStatus != 0) {
        throw std::runtime_error("openssl failed: " + result.standardError);
    }
    return digestOfLine(result.standardOutput);
}

}  // namespace testsupport
