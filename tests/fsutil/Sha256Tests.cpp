#include "fsutil/Sha256.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/ByteStream.h"
#include "tests/support/Digests.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::hex;
using testsupport::messageBytes;
using testsupport::sha224Hex;
using testsupport::sha256Hex;

const std::string kTwoBlockMessage = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

const unsigned char* bytesOf(const std::string& s)
{
    return reinterpret_cast<const unsigned char*>(s.data());
}

sha256_ctx startedContext(const uint32_t* h0)
{
    sha256_ctx ctx{};
    std::memcpy(ctx.h, h0, sizeof ctx.h);
    return ctx;
}

// Updates with the message cut into pieces of the given sizes, cycling
// through them until the message is used up.
std::string sha256HexInPieces(const std::string& message, const std::vector<uint32_t>& pieceSizes)
{
    sha256_ctx ctx = startedContext(sha256_h0);
    size_t offset = 0;
    size_t next = 0;
    while (offset < message.size()) {
        const size_t size = std::min<size_t>(pieceSizes[next++ % pieceSizes.size()], message.size() - offset);
        sha256_update(&ctx, bytesOf(message) + offset, static_cast<uint32_t>(size));
        offset += size;
    }
    unsigned char digest[SHA256_DIGEST_SIZE];
    sha256_final(&ctx, digest);
    return hex(digest, sizeof digest);
}

std::string sha224HexInPieces(const std::string& message, const std::vector<uint32_t>& pieceSizes)
{
    sha256_ctx ctx = startedContext(sha224_h0);
    size_t offset = 0;
    size_t next = 0;
    while (offset < message.size()) {
        const size_t size = std::min<size_t>(pieceSizes[next++ % pieceSizes.size()], message.size() - offset);
        sha224_update(&ctx, bytesOf(message) + offset, static_cast<uint32_t>(size));
        offset += size;
    }
    unsigned char digest[SHA224_DIGEST_SIZE];
    sha224_final(&ctx, digest);
    return hex(digest, sizeof digest);
}

// The digest of a message of fewer than 56 bytes padded by hand into a
// single block: the message, 0x80, zeros, the bit length in the last bytes.
std::string sha256HexOfHandPaddedSingleBlock(const std::string& message)
{
    unsigned char block[SHA256_BLOCK_SIZE] = {};
    std::copy(message.begin(), message.end(), block);
    block[message.size()] = 0x80;
    const uint32_t bits = static_cast<uint32_t>(message.size()) * 8;
    block[62] = static_cast<unsigned char>(bits >> 8);
    block[63] = static_cast<unsigned char>(bits);
    sha256_ctx ctx = startedContext(sha256_h0);
    sha256_transf(&ctx, block, 1);
    return testsupport::hexOfState(ctx.h);
}

// How many bytes of the context's second buffer block final wrote: a
// sentinel fills the buffer before the message goes in.
size_t secondBlockBytesTouchedByFinal(size_t messageLength)
{
    const std::string message = messageBytes(messageLength);
    sha256_ctx ctx = startedContext(sha256_h0);
    std::memset(ctx.block, 0xEE, sizeof ctx.block);
    sha256_update(&ctx, bytesOf(message), static_cast<uint32_t>(message.size()));
    unsigned char digest[SHA256_DIGEST_SIZE];
    sha256_final(&ctx, digest);
    size_t touched = 0;
    for (size_t i = SHA256_BLOCK_SIZE; i < sizeof ctx.block; ++i) {
        touched += ctx.block[i] != 0xEE ? 1 : 0;
    }
    return touched;
}

TEST(Sha256, EmptyMessageGivesTheStandardDigest)
{
    EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256, AbcGivesTheStandardDigest)
{
    EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, TwoBlockMessageGivesTheStandardDigest)
{
    EXPECT_EQ(sha256Hex(kTwoBlockMessage), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(Sha224, EmptyMessageGivesTheStandardDigest)
{
    EXPECT_EQ(sha224Hex(""), "d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f");
}

TEST(Sha224, AbcGivesTheStandardDigest)
{
    EXPECT_EQ(sha224Hex("abc"), "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
}

TEST(Sha224, TwoBlockMessageGivesTheStandardDigest)
{
    EXPECT_EQ(sha224Hex(kTwoBlockMessage), "75388b16512776cc5dba5da1fd890150b0c6455cb4f58b1952522525");
}

TEST(Sha224, DigestIsTheFirstTwentyEightBytesOfTheSha224State)
{
    // SHA-224 is SHA-256 with other initial words, cut to seven words.
    const std::string message = messageBytes(300);
    sha256_ctx ctx = startedContext(sha224_h0);
    sha224_update(&ctx, bytesOf(message), static_cast<uint32_t>(message.size()));
    unsigned char digest[SHA224_DIGEST_SIZE + 4];
    std::memset(digest, 0xEE, sizeof digest);
    sha224_final(&ctx, digest);
    EXPECT_EQ(hex(digest, SHA224_DIGEST_SIZE), sha224Hex(message));
    EXPECT_EQ(hex(digest + SHA224_DIGEST_SIZE, 4), "eeeeeeee");
}

TEST(Sha256, FiftyFiveByteMessagePadsIntoOneBlock)
{
    EXPECT_EQ(secondBlockBytesTouchedByFinal(55), 0U);
    const std::string message = messageBytes(55);
    EXPECT_EQ(sha256Hex(message), sha256HexOfHandPaddedSingleBlock(message));
}

TEST(Sha256, FiftySixByteMessagePadsIntoTwoBlocks)
{
    EXPECT_EQ(secondBlockBytesTouchedByFinal(56), SHA256_BLOCK_SIZE);
}

TEST(Sha256, PaddingBlockCountFollowsTheBufferedLength)
{
    for (size_t length = 0; length < 200; ++length) {
        const size_t expected = length % 64 < 56 ? 0 : SHA256_BLOCK_SIZE;
        EXPECT_EQ(secondBlockBytesTouchedByFinal(length), expected) << "length " << length;
    }
}

TEST(Sha256, UpdateKeepsPartialBlocksInTheBufferAndCountsWholeBlocks)
{
    const std::string message = messageBytes(200);
    sha256_ctx ctx = startedContext(sha256_h0);
    sha256_update(&ctx, bytesOf(message), 10);
    EXPECT_EQ(ctx.tot_len, 0U);
    EXPECT_EQ(ctx.len, 10U);
    sha256_update(&ctx, bytesOf(message) + 10, 53);
    EXPECT_EQ(ctx.tot_len, 0U);
    EXPECT_EQ(ctx.len, 63U);
    sha256_update(&ctx, bytesOf(message) + 63, 137);
    EXPECT_EQ(ctx.tot_len, 192U);
    EXPECT_EQ(ctx.len, 8U);
    EXPECT_EQ(std::memcmp(ctx.block, message.data() + 192, 8), 0);
}

TEST(Sha256, UpdateInPiecesOfZeroOneSixtyThreeSixtyFourAndSixtyFiveBytesMatchesOneShot)
{
    const std::vector<std::vector<uint32_t>> patterns = {
        {1}, {63}, {64}, {65}, {0, 1, 63, 64, 65}, {65, 64, 63, 1, 0}, {1, 63}, {63, 1, 64}, {64, 0, 65},
    };
    for (size_t length : {0, 1, 55, 56, 63, 64, 65, 127, 128, 129, 500, 1000, 4099}) {
        const std::string message = messageBytes(length);
        const std::string expected = sha256Hex(message);
        for (const auto& pattern : patterns) {
            EXPECT_EQ(sha256HexInPieces(message, pattern), expected) << "length " << length;
        }
    }
}

TEST(Sha256, ZeroByteUpdatesChangeNothing)
{
    const std::string message = messageBytes(130);
    sha256_ctx ctx = startedContext(sha256_h0);
    sha256_update(&ctx, nullptr, 0);
    sha256_update(&ctx, bytesOf(message), 70);
    sha256_update(&ctx, nullptr, 0);
    sha256_update(&ctx, bytesOf(message) + 70, 60);
    sha256_update(&ctx, bytesOf(message) + 130, 0);
    unsigned char digest[SHA256_DIGEST_SIZE];
    sha256_final(&ctx, digest);
    EXPECT_EQ(hex(digest, sizeof digest), sha256Hex(message));
}

TEST(Sha256, UpdateSplitAtEveryPointMatchesOneShot)
{
    const std::string message = messageBytes(300);
    const std::string expected = sha256Hex(message);
    for (uint32_t cut = 0; cut <= message.size(); ++cut) {
        sha256_ctx ctx = startedContext(sha256_h0);
        sha256_update(&ctx, bytesOf(message), cut);
        sha256_update(&ctx, bytesOf(message) + cut, static_cast<uint32_t>(message.size()) - cut);
        unsigned char digest[SHA256_DIGEST_SIZE];
        sha256_final(&ctx, digest);
        EXPECT_EQ(hex(digest, sizeof digest), expected) << "cut at " << cut;
    }
}

TEST(Sha256, UpdateInArbitraryPiecesMatchesOneShot)
{
    testsupport::ByteStream random(42);
    for (int round = 0; round < 200; ++round) {
        unsigned char r[8];
        random.fill(r, sizeof r);
        const size_t length = (static_cast<size_t>(r[0]) << 4 | r[1]) % 3000;
        std::vector<uint32_t> pieces;
        for (int i = 2; i < 8; ++i) {
            pieces.push_back(r[i] % 150);
        }
        pieces.push_back(1);  // always advances
        const std::string message = messageBytes(length, static_cast<uint64_t>(round));
        EXPECT_EQ(sha256HexInPieces(message, pieces), sha256Hex(message)) << "round " << round;
    }
}

TEST(Sha224, UpdateInPiecesMatchesOneShot)
{
    for (size_t length : {0, 1, 55, 56, 63, 64, 65, 129, 1000}) {
        const std::string message = messageBytes(length);
        const std::string expected = sha224Hex(message);
        for (const auto& pattern : std::vector<std::vector<uint32_t>>{{1}, {63}, {64}, {65}, {0, 1, 63, 64, 65}}) {
            EXPECT_EQ(sha224HexInPieces(message, pattern), expected) << "length " << length;
        }
    }
}

TEST(Sha256, ConstantTablesHoldTheStandardValues)
{
    EXPECT_EQ(sha256_h0[0], 0x6a09e667U);
    EXPECT_EQ(sha256_h0[7], 0x5be0cd19U);
    EXPECT_EQ(sha224_h0[0], 0xc1059ed8U);
    EXPECT_EQ(sha224_h0[7], 0xbefa4fa4U);
    EXPECT_EQ(sha256_k[0], 0x428a2f98U);
    EXPECT_EQ(sha256_k[31], 0x14292967U);
    EXPECT_EQ(sha256_k[63], 0xc67178f2U);
}

}  // namespace
