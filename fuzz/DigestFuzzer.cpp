// SHA-224 and SHA-256 fed in pieces, split where the input's first bytes say,
// must give the one-shot digest of the whole message.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fsutil/Sha256.h"
#include "fuzz/FuzzInput.h"

namespace {

template <typename Update, typename Final, typename OneShot>
void checkSplit(const uint32_t* initial, const uint8_t* message, std::size_t length,
                const std::vector<std::size_t>& cuts, Update update, Final final, OneShot oneShot, uint32_t digestSize)
{
    sha256_ctx context{};
    std::memcpy(context.h, initial, sizeof(context.h));
    std::size_t done = 0;
    for (const std::size_t cut : cuts) {
        update(&context, message + done, static_cast<uint32_t>(cut - done));
        done = cut;
    }
    update(&context, message + done, static_cast<uint32_t>(length - done));
    std::array<unsigned char, SHA256_DIGEST_SIZE> streamed{};
    std::array<unsigned char, SHA256_DIGEST_SIZE> whole{};
    final(&context, streamed.data());
    oneShot(message, static_cast<uint32_t>(length), whole.data());
    fuzzsupport::check(std::memcmp(streamed.data(), whole.data(), digestSize) == 0,
                       "the streamed digest differs from the one-shot digest");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    // The first byte: how many of the following bytes (up to 16) are cut
    // points; each cut byte scaled over the message gives a split position.
    const std::size_t cutCount = std::min<std::size_t>(data[0] % 17, size - 1);
    const uint8_t* message = data + 1 + cutCount;
    const std::size_t length = size - 1 - cutCount;
    std::vector<std::size_t> cuts;
    for (std::size_t i = 0; i < cutCount; ++i) {
        cuts.push_back(length == 0 ? 0 : (data[1 + i] * 257U + i * 31U) % (length + 1));
    }
    std::sort(cuts.begin(), cuts.end());
    checkSplit(sha224_h0, message, length, cuts, sha224_update, sha224_final, sha224, SHA224_DIGEST_SIZE);
    checkSplit(sha256_h0, message, length, cuts, sha256_update, sha256_final, sha256, SHA256_DIGEST_SIZE);
    return 0;
}
