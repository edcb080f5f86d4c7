#include "tests/support/Digests.h"

#include "fsutil/Sha256.h"

namespace testsupport {

std::string hex(const unsigned char* bytes, size_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0f];
    }
    return text;
}

std::string sha224Hex(const std::string& message)
{
    unsigned char digest[SHA224_DIGEST_SIZE] = {};
    sha224(reinterpret_cast<const unsigned char*>(message.data()), static_cast<uint32_t>(message.size()), digest);
    return hex(digest, sizeof digest);
}

std::string sha256Hex(const std::string& message)
{
    unsigned char digest[SHA256_DIGEST_SIZE] = {};
    sha256(reinterpret_cast<const unsigned char*>(message.data()), static_cast<uint32_t>(message.size()), digest);
    return hex(digest, sizeof digest);
}

std::string hexOfState(const uint32_t* state)
{
    unsigned char digest[SHA256_DIGEST_SIZE];
    for (size_t i = 0; i < 8; ++i) {
        for (size_t j = 0; j < 4; ++j) {
            digest[4 * i + j] = static_cast<unsigned char>(state[i] >> (24 - 8 * j));
        }
    }
    return hex(digest, sizeof digest);
}

}  // namespace testsupport
