#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fsutil/Sha256.h"
#include "fsutil/Sha256Transform.h"
#include "tests/support/ByteStream.h"
#include "tests/support/Digests.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Settings.h"

namespace {

// The message padded the way final pads it (32-bit bit length).
std::vector<unsigned char> padded(const std::string& message)
{
    const size_t blocks = message.size() / 64 + (message.size() % 64 < 56 ? 1 : 2);
    std::vector<unsigned char> bytes(blocks * 64, 0);
    std::memcpy(bytes.data(), message.data(), message.size());
    bytes[message.size()] = 0x80;
    const auto bits = static_cast<uint32_t>(message.size() * 8);
    for (int i = 0; i < 4; ++i) {
        bytes[bytes.size() - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
    }
    return bytes;
}

std::vector<uint32_t> stateAfter(void (*transform)(uint32_t*, const unsigned char*, uint32_t), const uint32_t* initial,
                                 const std::vector<unsigned char>& blocks)
{
    std::vector<uint32_t> state(initial, initial + 8);
    transform(state.data(), blocks.data(), static_cast<uint32_t>(blocks.size() / 64));
    return state;
}

class AcceleratedTransform : public testing::Test {
protected:
    void SetUp() override
    {
        if (!sha256_transf_accelerated_available()) {
            GTEST_SKIP() << "this processor has no SHA extensions";
        }
    }
};

TEST(PortableTransform, SingleBlockOfAbcGivesTheStandardState)
{
    const std::vector<unsigned char> block = padded("abc");
    const std::vector<uint32_t> state = stateAfter(&sha256_transf_portable, sha256_h0, block);
    EXPECT_EQ(state[0], 0xba7816bfU);
    EXPECT_EQ(state[7], 0xf20015adU);
}

TEST_F(AcceleratedTransform, SingleBlockOfAbcGivesTheStandardState)
{
    const std::vector<unsigned char> block = padded("abc");
    const std::vector<uint32_t> state = stateAfter(&sha256_transf_accelerated, sha256_h0, block);
    EXPECT_EQ(state[0], 0xba7816bfU);
    EXPECT_EQ(state[7], 0xf20015adU);
}

TEST_F(AcceleratedTransform, MatchesPortableOnEveryMessageLengthUpToAThousand)
{
    for (size_t length = 0; length <= 1000; ++length) {
        const std::vector<unsigned char> blocks = padded(testsupport::messageBytes(length));
        for (const uint32_t* initial : {sha256_h0, sha224_h0}) {
            EXPECT_EQ(stateAfter(&sha256_transf_accelerated, initial, blocks),
                      stateAfter(&sha256_transf_portable, initial, blocks))
                << "length " << length;
        }
    }
}

TEST_F(AcceleratedTransform, MatchesPortableFromArbitraryStatesOnUnalignedBlocks)
{
    testsupport::ByteStream random(7);
    for (int round = 0; round < 500; ++round) {
        uint32_t initial[8];
        random.fill(reinterpret_cast<unsigned char*>(initial), sizeof initial);
        unsigned char r[2];
        random.fill(r, sizeof r);
        const size_t blockCount = 1 + r[0] % 9;
        const size_t misalignment = r[1] % 16;
        std::vector<unsigned char> storage(blockCount * 64 + misalignment);
        random.fill(storage.data(), storage.size());
        std::vector<uint32_t> portable(initial, initial + 8);
        std::vector<uint32_t> accelerated(initial, initial + 8);
        sha256_transf_portable(portable.data(), storage.data() + misalignment, static_cast<uint32_t>(blockCount));
        sha256_transf_accelerated(accelerated.data(), storage.data() + misalignment, static_cast<uint32_t>(blockCount));
        EXPECT_EQ(accelerated, portable) << "round " << round;
    }
}

TEST_F(AcceleratedTransform, ZeroBlocksLeaveTheStateAlone)
{
    std::vector<uint32_t> state(sha256_h0, sha256_h0 + 8);
    const unsigned char unused[64] = {};
    sha256_transf_accelerated(state.data(), unused, 0);
    EXPECT_EQ(state, std::vector<uint32_t>(sha256_h0, sha256_h0 + 8));
}

TEST(Sha256Transform, ContextTransformMatchesPortableOnEveryMessageLengthUpToAThousand)
{
    for (size_t length = 0; length <= 1000; ++length) {
        const std::vector<unsigned char> blocks = padded(testsupport::messageBytes(length));
        sha256_ctx ctx{};
        std::memcpy(ctx.h, sha256_h0, sizeof ctx.h);
        sha256_transf(&ctx, blocks.data(), static_cast<uint32_t>(blocks.size() / 64));
        EXPECT_EQ(std::vector<uint32_t>(ctx.h, ctx.h + 8), stateAfter(&sha256_transf_portable, sha256_h0, blocks))
            << "length " << length;
    }
}

}  // namespace
