// Digests worked out by openssl, independently of this build's own code.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Subprocess.h"

namespace testsupport {

// What `openssl dgst -<algorithm>` gives for text, in hex.
std::string opensslDigestOf(const std::string& algorithm, const std::string& text);
// The digests that `openssl dgst -<algorithm>` gives for the files, in order.
std::vector<std::string> opensslDigestsOfFiles(const std::string& algorithm, const std::vector<std::string>& files);

// `openssl dgst -<algorithm>` fed through a pipe, for messages too large to
// keep in memory.
class OpensslDigestPipe {
public:
    explicit OpensslDigestPipe(const std::string& algorithm);

    void write(const unsigned char* bytes, size_t count);
    // Ends the message and returns the digest.
    std::string finish();

private:
    std::unique_ptr<Subprocess> theOpenssl;
};

}  // namespace testsupport
