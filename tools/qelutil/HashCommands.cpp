// qelutil commands of the digests and the file hash check.
//
//   sha224 [FILE], sha256 [FILE]  digest of FILE (standard input when
//                                 absent), read in pieces; prints the hex
//                                 digest. Exits 1 when FILE cannot be read.
//   hash-app-path PATH            prints QELUHashOfAppPath(PATH)
//   hash-file PATH                prints QELSecurity::hashForFile(PATH);
//                                 the exit status is its status
//   hash-matches HASH PATH        prints QELSecurity::hashMatchesFile(HASH,
//                                 PATH); the exit status is the result
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fsutil/QELSecurity.h"
#include "fsutil/QELUHash.h"
#include "fsutil/Sha256.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

constexpr size_t kPieceSize = size_t{1} << 20;

struct Algorithm {
    const char* name;
    const uint32_t* initialState;
    void (*update)(sha256_ctx*, const unsigned char*, uint32_t);
    void (*final)(sha256_ctx*, unsigned char*);
    uint32_t digestSize;
};

const Algorithm kSha224{"sha224", sha224_h0, sha224_update, sha224_final, SHA224_DIGEST_SIZE};
const Algorithm kSha256{"sha256", sha256_h0, sha256_update, sha256_final, SHA256_DIGEST_SIZE};

int runStreamingDigest(const Algorithm& algorithm, const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 0, 1);
    const bool fromFile = !positional.empty();
    std::FILE* input = fromFile ? std::fopen(positional[0].c_str(), "rb") : stdin;
    if (input == nullptr) {
        std::fprintf(stderr, "qelutil %s: cannot open %s: %s\n", algorithm.name, positional[0].c_str(),
                     std::strerror(errno));
        return 1;
    }

    sha256_ctx ctx{};
    std::memcpy(ctx.h, algorithm.initialState, sizeof ctx.h);
    std::vector<unsigned char> piece(kPieceSize);
    size_t count = 0;
    while ((count = std::fread(piece.data(), 1, piece.size(), input)) > 0) {
        algorithm.update(&ctx, piece.data(), static_cast<uint32_t>(count));
    }
    const bool failed = std::ferror(input) != 0;
    if (fromFile) {
        std::fclose(input);
    }
    if (failed) {
        std::fprintf(stderr, "qelutil %s: read error on %s\n", algorithm.name,
                     fromFile ? positional[0].c_str() : "standard input");
        return 1;
    }

    unsigned char digest[SHA256_DIGEST_SIZE] = {};
    algorithm.final(&ctx, digest);
    const std::string text = QELUHexFrombytes(digest, static_cast<int32_t>(algorithm.digestSize));
    std::printf("%s\n", text.c_str());
    return 0;
}

int runSha224(const std::vector<std::string>& positional)
{
    return runStreamingDigest(kSha224, positional);
}

int runSha256(const std::vector<std::string>& positional)
{
    return runStreamingDigest(kSha256, positional);
}

int runHashAppPath(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    std::printf("%s\n", QELUHashOfAppPath(positional[0]).c_str());
    return 0;
}

int runHashFile(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    int32_t status = 0;
    const std::string digest = QELSecurity::hashForFile(positional[0], &status);
    std::printf("%s\n", digest.c_str());
    return status;
}

int runHashMatches(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 2, 2);
    const int32_t result = QELSecurity::hashMatchesFile(positional[0], positional[1]);
    std::printf("%d\n", result);
    return result;
}

const qelutil::CommandRegistrar sha224Command({"sha224", "sha224 [FILE]", runSha224});
const qelutil::CommandRegistrar sha256Command({"sha256", "sha256 [FILE]", runSha256});
const qelutil::CommandRegistrar hashAppPathCommand({"hash-app-path", "hash-app-path PATH", runHashAppPath});
const qelutil::CommandRegistrar hashFileCommand({"hash-file", "hash-file PATH", runHashFile});
const qelutil::CommandRegistrar hashMatchesCommand({"hash-matches", "hash-matches HASH PATH", runHashMatches});

}  // namespace
