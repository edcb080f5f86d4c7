#include "fsutil/Sha256.h"

#include <cstring>

#include "fsutil/Sha256Transform.h"

#if defined(__x86_64__) || defined(__i386__)
#define SHA256_HAVE_X86_EXTENSIONS 1
#include <cpuid.h>
#include <immintrin.h>
#else
#define SHA256_HAVE_X86_EXTENSIONS 0
#endif

const uint32_t sha224_h0[8] = {0xc1059ed8, 0x367cd507, 0x3070dd17, 0xf70e5939,
                               0xffc00b31, 0x68581511, 0x64f98fa7, 0xbefa4fa4};

const uint32_t sha256_h0[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                               0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

const uint32_t sha256_k[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

namespace {

inline uint32_t rotr(uint32_t x, unsigned n)
{
    return (x >> n) | (x << (32U - n));
}

inline uint32_t loadBigEndian32(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline void storeBigEndian32(uint32_t x, unsigned char* p)
{
    p[0] = static_cast<unsigned char>(x >> 24);
    p[1] = static_cast<unsigned char>(x >> 16);
    p[2] = static_cast<unsigned char>(x >> 8);
    p[3] = static_cast<unsigned char>(x);
}

inline uint32_t ch(uint32_t x, uint32_t y, uint32_t z)
{
    return (x & y) ^ (~x & z);
}

inline uint32_t maj(uint32_t x, uint32_t y, uint32_t z)
{
    return (x & y) ^ (x & z) ^ (y & z);
}

inline uint32_t bigSigma0(uint32_t x)
{
    return rotr(x, 2) ^ rotr(x, 13) ^ rotr(x, 22);
}

inline uint32_t bigSigma1(uint32_t x)
{
    return rotr(x, 6) ^ rotr(x, 11) ^ rotr(x, 25);
}

inline uint32_t smallSigma0(uint32_t x)
{
    return rotr(x, 7) ^ rotr(x, 18) ^ (x >> 3);
}

inline uint32_t smallSigma1(uint32_t x)
{
    return rotr(x, 17) ^ rotr(x, 19) ^ (x >> 10);
}

#if SHA256_HAVE_X86_EXTENSIONS

#define SHA256_X86_TARGET __attribute__((target("sha,sse4.1,ssse3")))

// Four rounds with the message words w (already scheduled) and the round
// constants k[0..3]. The state is held as ABEF and CDGH, the order in which
// the SHA instructions expect it.
SHA256_X86_TARGET inline void fourRounds(__m128i& abef, __m128i& cdgh, __m128i w, const uint32_t* k)
{
    __m128i wk = _mm_add_epi32(w, _mm_loadu_si128(reinterpret_cast<const __m128i*>(k)));
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, wk);
    wk = _mm_shuffle_epi32(wk, 0x0E);
    abef = _mm_sha256rnds2_epu32(abef, cdgh, wk);
}

// Completes the schedule of the next four words: next holds the sigma0 part
// from _mm_sha256msg1_epu32; the words seven back come from prev:cur.
SHA256_X86_TARGET inline __m128i finishSchedule(__m128i next, __m128i cur, __m128i prev)
{
    next = _mm_add_epi32(next, _mm_alignr_epi8(cur, prev, 4));
    return _mm_sha256msg2_epu32(next, cur);
}

SHA256_X86_TARGET inline __m128i loadMessageWords(const unsigned char* p)
{
    const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), byteSwap);
}

#endif

}  // namespace

void sha256_transf_portable(uint32_t state[8], const unsigned char* blocks, uint32_t blockCount)
{
    uint32_t w[64];
    for (uint32_t i = 0; i < blockCount; ++i) {
        const unsigned char* block = blocks + static_cast<size_t>(i) * SHA256_BLOCK_SIZE;
        for (size_t j = 0; j < 16; ++j) {
            w[j] = loadBigEndian32(block + 4 * j);
        }
        for (int j = 16; j < 64; ++j) {
            w[j] = smallSigma1(w[j - 2]) + w[j - 7] + smallSigma0(w[j - 15]) + w[j - 16];
        }
        uint32_t a = state[0];
        uint32_t b = state[1];
        uint32_t c = state[2];
        uint32_t d = state[3];
        uint32_t e = state[4];
        uint32_t f = state[5];
        uint32_t g = state[6];
        uint32_t h = state[7];
        for (int j = 0; j < 64; ++j) {
            const uint32_t t1 = h + bigSigma1(e) + ch(e, f, g) + sha256_k[j] + w[j];
            const uint32_t t2 = bigSigma0(a) + maj(a, b, c);
            h = g;
            g = f;
            f = e;
            e = d + t1;
            d = c;
            c = b;
            b = a;
            a = t1 + t2;
        }
        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
        state[4] += e;
        state[5] += f;
        state[6] += g;
        state[7] += h;
    }
}

#if SHA256_HAVE_X86_EXTENSIONS

SHA256_X86_TARGET void sha256_transf_accelerated(uint32_t state[8], const unsigned char* blocks, uint32_t blockCount)
{
    // state[0..3] = ABCD and state[4..7] = EFGH, lowest lane first; the
    // instructions work on ABEF and CDGH, highest lane first.
    const __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0xB1);
    const __m128i efgh = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4)), 0x1B);
    __m128i abef = _mm_alignr_epi8(abcd, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, abcd, 0xF0);

    for (uint32_t i = 0; i < blockCount; ++i) {
        const unsigned char* block = blocks + static_cast<size_t>(i) * SHA256_BLOCK_SIZE;
        const __m128i abefBefore = abef;
        const __m128i cdghBefore = cdgh;

        // Words 0..15 straight from the block; msg0..msg3 then rotate through
        // the schedule, four words at a time.
        __m128i msg0 = loadMessageWords(block);
        __m128i msg1 = loadMessageWords(block + 16);
        __m128i msg2 = loadMessageWords(block + 32);
        __m128i msg3 = loadMessageWords(block + 48);

        fourRounds(abef, cdgh, msg0, sha256_k + 0);
        fourRounds(abef, cdgh, msg1, sha256_k + 4);
        msg0 = _mm_sha256msg1_epu32(msg0, msg1);
        fourRounds(abef, cdgh, msg2, sha256_k + 8);
        msg1 = _mm_sha256msg1_epu32(msg1, msg2);
        fourRounds(abef, cdgh, msg3, sha256_k + 12);
        msg0 = finishSchedule(msg0, msg3, msg2);
        msg2 = _mm_sha256msg1_epu32(msg2, msg3);

        for (size_t group = 4; group < 16; group += 4) {
            const uint32_t* k = sha256_k + 4 * group;
            // Rounds 4*group .. 4*group+3 use msg0, and so on.
            fourRounds(abef, cdgh, msg0, k);
            msg1 = finishSchedule(msg1, msg0, msg3);
            if (group < 13) {
                msg3 = _mm_sha256msg1_epu32(msg3, msg0);
            }
            fourRounds(abef, cdgh, msg1, k + 4);
            msg2 = finishSchedule(msg2, msg1, msg0);
            if (group + 1 < 13) {
                msg0 = _mm_sha256msg1_epu32(msg0, msg1);
            }
            fourRounds(abef, cdgh, msg2, k + 8);
            msg3 = finishSchedule(msg3, msg2, msg1);
            if (group + 2 < 13) {
                msg1 = _mm_sha256msg1_epu32(msg1, msg2);
            }
            fourRounds(abef, cdgh, msg3, k + 12);
            if (group + 3 < 15) {
                msg0 = finishSchedule(msg0, msg3, msg2);
            }
            if (group + 3 < 13) {
                msg2 = _mm_sha256msg1_epu32(msg2, msg3);
            }
        }

        abef = _mm_add_epi32(abef, abefBefore);
        cdgh = _mm_add_epi32(cdgh, cdghBefore);
    }

    // Back to ABCD and EFGH.
    const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(dchg, feba, 8));
}

bool sha256_transf_accelerated_available()
{
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) {
        return false;
    }
    const bool ssse3 = (ecx & bit_SSSE3) != 0;
    const bool sse41 = (ecx & bit_SSE4_1) != 0;
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) {
        return false;
    }
    const bool sha = (ebx & (1U << 29)) != 0;
    return ssse3 && sse41 && sha;
}

#else

void sha256_transf_accelerated(uint32_t state[8], const unsigned char* blocks, uint32_t blockCount)
{
    sha256_transf_portable(state, blocks, blockCount);
}

bool sha256_transf_accelerated_available()
{
    return false;
}

#endif

void sha256_transf(sha256_ctx* ctx, const unsigned char* blocks, uint32_t blockCount)
{
    using Transform = void (*)(uint32_t*, const unsigned char*, uint32_t);
    static const Transform transform =
        sha256_transf_accelerated_available() ? &sha256_transf_accelerated : &sha256_transf_portable;
    if (blockCount != 0) {
        transform(ctx->h, blocks, blockCount);
    }
}

void sha256_update(sha256_ctx* ctx, const unsigned char* message, uint32_t length)
{
    // Fill the buffer behind the bytes already waiting in it.
    const uint32_t room = SHA256_BLOCK_SIZE - ctx->len;
    const uint32_t head = length < room ? length : room;
    if (head != 0) {
        std::memcpy(&ctx->block[ctx->len], message, head);
    }
    if (ctx->len + length < SHA256_BLOCK_SIZE) {
        ctx->len += length;
        return;
    }
    // The buffer is full: compress it, then the whole blocks that follow
    // straight from the caller's bytes, and keep the tail for later.
    const uint32_t rest = length - head;
    const uint32_t blockCount = rest / SHA256_BLOCK_SIZE;
    const unsigned char* following = message + head;
    sha256_transf(ctx, ctx->block, 1);
    sha256_transf(ctx, following, blockCount);
    const uint32_t tail = rest % SHA256_BLOCK_SIZE;
    if (tail != 0) {
        std::memcpy(ctx->block, following + static_cast<size_t>(blockCount) * SHA256_BLOCK_SIZE, tail);
    }
    ctx->len = tail;
    ctx->tot_len += (blockCount + 1) * SHA256_BLOCK_SIZE;
}

void sha224_update(sha256_ctx* ctx, const unsigned char* message, uint32_t length)
{
    sha256_update(ctx, message, length);
}

namespace {

void padAndCompress(sha256_ctx* ctx)
{
    const uint32_t buffered = ctx->len;
    const uint32_t blockCount = (buffered % SHA256_BLOCK_SIZE) < SHA256_BLOCK_SIZE - 8 ? 1 : 2;
    // The bit length in 32 bits: the upper half of the 64-bit length field
    // stays zero.
    const uint32_t bitLength = (ctx->tot_len + buffered) * 8U;
    const uint32_t paddedLength = blockCount * SHA256_BLOCK_SIZE;
    std::memset(&ctx->block[buffered], 0, paddedLength - buffered);
    ctx->block[buffered] = 0x80;
    storeBigEndian32(bitLength, &ctx->block[paddedLength - 4]);
    sha256_transf(ctx, ctx->block, blockCount);
}

}  // namespace

void sha256_final(sha256_ctx* ctx, unsigned char* digest)
{
    padAndCompress(ctx);
    for (size_t i = 0; i < 8; ++i) {
        storeBigEndian32(ctx->h[i], digest + 4 * i);
    }
}

void sha224_final(sha256_ctx* ctx, unsigned char* digest)
{
    padAndCompress(ctx);
    for (size_t i = 0; i < 7; ++i) {
        storeBigEndian32(ctx->h[i], digest + 4 * i);
    }
}

void sha256(const unsigned char* message, uint32_t length, unsigned char* digest)
{
    sha256_ctx ctx{};
    std::memcpy(ctx.h, sha256_h0, sizeof ctx.h);
    sha256_update(&ctx, message, length);
    sha256_final(&ctx, digest);
}

void sha224(const unsigned char* message, uint32_t length, unsigned char* digest)
{
    sha256_ctx ctx{};
    std::memcpy(ctx.h, sha224_h0, sizeof ctx.h);
    sha224_update(&ctx, message, length);
    sha224_final(&ctx, digest);
}
