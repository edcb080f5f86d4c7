#include "fsutil/QELUHash.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "base/QELBVerify.h"
#include "fsutil/Sha256.h"
#include "platform/Text.h"

namespace {

constexpr int32_t kHexFromBytesCountTooLarge = 1876;
constexpr int32_t kHexFromBytesAllocationFailed = 1877;
constexpr int32_t kHashOfAppPathNotUTF8 = 1844;

// The largest byte count accepted.
constexpr int32_t kMaxHexFromBytesCount = 0x3FFFFFFD;

constexpr char kHexDigits[] = "0123456789abcdef";

signed char asBOOL(bool condition)
{
    return condition ? 1 : 0;
}

struct FreeDeleter {
    void operator()(char* p) const noexcept { std::free(p); }
};

}  // namespace

std::string QELUHexFrombytes(const unsigned char* bytes, int32_t count)
{
    QELBVerifyWithErrorAndString(asBOOL(count <= kMaxHexFromBytesCount), kHexFromBytesCountTooLarge, std::nullopt,
                                 std::nullopt);
    // Computed wide: a negative count asks for more than can ever be had.
    const int64_t textSize = 2 * static_cast<int64_t>(count) + 1;
    const std::unique_ptr<char, FreeDeleter> text(static_cast<char*>(std::malloc(static_cast<size_t>(textSize))));
    QELBVerifyWithErrorAndString(asBOOL(text != nullptr), kHexFromBytesAllocationFailed, std::nullopt, std::nullopt);
    char* out = text.get();
    for (int32_t i = 0; i < count; ++i) {
        *out++ = kHexDigits[bytes[i] >> 4];
        *out++ = kHexDigits[bytes[i] & 0x0F];
    }
    *out = '\0';
    return std::string(text.get());
}

std::string QELUHashOfAppPath(const std::string& path)
{
    const std::optional<std::vector<uint8_t>> data = platform::dataUsingUTF8Encoding(path);
    QELBVerifyWithErrorAndString(asBOOL(data.has_value()), kHashOfAppPathNotUTF8, std::nullopt, std::nullopt);
    unsigned char digest[SHA224_DIGEST_SIZE] = {};
    sha224(data->data(), static_cast<uint32_t>(data->size()), digest);
    return QELUHexFrombytes(digest, static_cast<int32_t>(sizeof digest));
}
