// SHA-224 and SHA-256 (FIPS 180-2) with a streaming and a one-shot interface.
//
// One context type serves both digests. There is no initialisation function:
// a streaming caller copies sha224_h0 or sha256_h0 into the state and sets
// both lengths to 0, then calls update any number of times and final once.
//
// The message length is counted in 32 bits: the bit length stored in the
// final padding is (total length + buffered length) * 8 taken modulo 2^32,
// with the upper half of the 64-bit length field always zero. Messages of
// 2^29 bytes (512 MiB) or more therefore give digests that differ from the
// standard's; below that size the results are exactly SHA-224 and SHA-256.
#pragma once

#include <cstdint>

inline constexpr uint32_t SHA224_DIGEST_SIZE = 28;
inline constexpr uint32_t SHA256_DIGEST_SIZE = 32;
inline constexpr uint32_t SHA256_BLOCK_SIZE = 64;

struct sha256_ctx {
    // Message bytes already compressed in whole 64-byte blocks.
    uint32_t tot_len;
    // Message bytes waiting in block (0 to 63 between calls).
    uint32_t len;
    // Two blocks, so that the final padding can spill into the second.
    unsigned char block[2 * SHA256_BLOCK_SIZE];
    // The working hash value H0..H7.
    uint32_t h[8];
};

extern const uint32_t sha224_h0[8];
extern const uint32_t sha256_h0[8];
extern const uint32_t sha256_k[64];

// Compresses blockCount whole 64-byte blocks into ctx->h.
void sha256_transf(sha256_ctx* ctx, const unsigned char* blocks, uint32_t blockCount);

void sha224_update(sha256_ctx* ctx, const unsigned char* message, uint32_t length);
void sha256_update(sha256_ctx* ctx, const unsigned char* message, uint32_t length);
// Pads, compresses the last block or two and writes the digest big-endian
// (28 bytes for SHA-224, 32 for SHA-256).
void sha224_final(sha256_ctx* ctx, unsigned char* digest);
void sha256_final(sha256_ctx* ctx, unsigned char* digest);

// One-shot digests; the context lives on the callee's stack.
void sha224(const unsigned char* message, uint32_t length, unsigned char* digest);
void sha256(const unsigned char* message, uint32_t length, unsigned char* digest);
