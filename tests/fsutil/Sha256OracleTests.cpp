// The digests compared with openssl's, which implements the standard.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fsutil/Sha256.h"
#include "fsutil/Sha256Transform.h"
#include "tests/support/ByteStream.h"
#include "tests/support/Digests.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Settings.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::hex;
using testsupport::messageBytes;

void expectEveryLengthMatchesOpenssl(const std::string& algorithm, std::string (*ours)(const std::string&))
{
    const testsupport::TempDir dir;
    std::vector<std::string> files;
    std::vector<std::string> expected;
    for (size_t length = 0; length <= 1000; ++length) {
        const std::string message = messageBytes(length);
        files.push_back(dir.at(std::to_string(length)));
        testsupport::writeFile(files.back(), message);
        expected.push_back(ours(message));
    }
    const std::vector<std::string> theirs = testsupport::opensslDigestsOfFiles(algorithm, files);
    for (size_t length = 0; length <= 1000; ++length) {
        EXPECT_EQ(expected[length], theirs[length]) << "length " << length;
    }
}

void expectLengthMatchesOpenssl(size_t length)
{
    const testsupport::TempDir dir;
    const std::string message = messageBytes(length);
    testsupport::writeFile(dir.at("message"), message);
    EXPECT_EQ(testsupport::sha256Hex(message), testsupport::opensslDigestsOfFiles("sha256", {dir.at("message")})[0]);
    EXPECT_EQ(testsupport::sha224Hex(message), testsupport::opensslDigestsOfFiles("sha224", {dir.at("message")})[0]);
}

TEST(Sha256Oracle, EveryLengthUpToAThousandMatchesOpenssl)
{
    expectEveryLengthMatchesOpenssl("sha256", &testsupport::sha256Hex);
}

TEST(Sha224Oracle, EveryLengthUpToAThousandMatchesOpenssl)
{
    expectEveryLengthMatchesOpenssl("sha224", &testsupport::sha224Hex);
}

TEST(Sha256Oracle, OneMebibyteMatchesOpenssl)
{
    expectLengthMatchesOpenssl(1U << 20);
}

TEST(Sha256Oracle, SixtyFourMebibytesAndThreeBytesMatchOpenssl)
{
    expectLengthMatchesOpenssl((64U << 20) + 3);
}

// The bit length is kept in 32 bits. One byte short of 2^29 bytes the bit
// length still fits and the digest is the standard one; at 2^29 bytes it
// wraps to 0, and the digest is what padding with a zero length field gives.
TEST(Sha256Oracle, BitLengthIsCountedInThirtyTwoBitsFromFiveHundredTwelveMebibytesOn)
{
    constexpr size_t kLength = size_t{1} << 29;
    constexpr size_t kPiece = size_t{1} << 20;
    testsupport::OpensslDigestPipe standardShort("sha256");
    testsupport::OpensslDigestPipe standardFull("sha256");
    testsupport::OpensslDigestPipe standard224("sha224");
    sha256_ctx ctx{};
    std::memcpy(ctx.h, sha256_h0, sizeof ctx.h);
    sha256_ctx ctx224{};
    std::memcpy(ctx224.h, sha224_h0, sizeof ctx224.h);
    sha256_ctx shortCtx{};

    testsupport::ByteStream stream(29);
    const std::unique_ptr<unsigned char[]> piece(new unsigned char[kPiece]);
    for (size_t done = 0; done < kLength; done += kPiece) {
        stream.fill(piece.get(), kPiece);
        const bool last = done + kPiece == kLength;
        const size_t shortCount = last ? kPiece - 1 : kPiece;
        standardShort.write(piece.get(), shortCount);
        standardFull.write(piece.get(), kPiece);
        standard224.write(piece.get(), kPiece);
        sha224_update(&ctx224, piece.get(), static_cast<uint32_t>(kPiece));
        if (last) {
            sha256_update(&ctx, piece.get(), static_cast<uint32_t>(shortCount));
            shortCtx = ctx;
            sha256_update(&ctx, piece.get() + shortCount, 1);
        } else {
            sha256_update(&ctx, piece.get(), static_cast<uint32_t>(kPiece));
        }
    }
    ASSERT_EQ(ctx.tot_len, kLength);
    ASSERT_EQ(ctx.len, 0U);

    unsigned char digest[SHA256_DIGEST_SIZE];
    sha256_final(&shortCtx, digest);
    EXPECT_EQ(hex(digest, SHA256_DIGEST_SIZE), standardShort.finish());

    // Both paddings of the full message are one block: 0x80, zeros and the
    // 64-bit bit length 2^32, of which only the lower (zero) half is kept.
    unsigned char padding[SHA256_BLOCK_SIZE] = {0x80};
    uint32_t zeroLengthState[8];
    std::memcpy(zeroLengthState, ctx.h, sizeof zeroLengthState);
    sha256_transf_portable(zeroLengthState, padding, 1);
    padding[SHA256_BLOCK_SIZE - 5] = 1;
    uint32_t standardState[8];
    std::memcpy(standardState, ctx.h, sizeof standardState);
    sha256_transf_portable(standardState, padding, 1);

    sha256_final(&ctx, digest);
    const std::string ours = hex(digest, SHA256_DIGEST_SIZE);
    const std::string theirs = standardFull.finish();
    EXPECT_NE(ours, theirs);
    EXPECT_EQ(ours, testsupport::hexOfState(zeroLengthState));
    EXPECT_EQ(theirs, testsupport::hexOfState(standardState));

    unsigned char digest224[SHA224_DIGEST_SIZE];
    sha224_final(&ctx224, digest224);
    EXPECT_NE(hex(digest224, SHA224_DIGEST_SIZE), standard224.finish());
}

}  // namespace
