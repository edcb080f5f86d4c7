#include "tests/support/ByteStream.h"

namespace testsupport {

namespace {

uint64_t nextRandom(uint64_t& state)
{
    // splitmix64
    state += 0x9e3779b97f4a7c15ULL;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

}  // namespace

ByteStream::ByteStream(uint64_t seed) : theState(seed) {}

void ByteStream::fill(unsigned char* bytes, size_t count)
{
    size_t i = 0;
    while (i < count) {
        uint64_t r = nextRandom(theState);
        for (int j = 0; j < 8 && i < count; ++j, ++i) {
            bytes[i] = static_cast<unsigned char>(r);
            r >>= 8;
        }
    }
}

std::string messageBytes(size_t count, uint64_t seed)
{
    std::string bytes(count, '\0');
    ByteStream stream(seed * 0x100000001b3ULL + count);
    stream.fill(reinterpret_cast<unsigned char*>(bytes.data()), count);
    return bytes;
}

}  // namespace testsupport
