// repair-probe: repairs one path for a user many times through the shared
// services' permission repair (QELSecurity::makePathOK) and counts the
// answers, so that an end-to-end test can race the repair against a user
// who swaps a folder on the path inside the sandbox.
//
// usage: repair-probe USER ROUNDS PATH
// Prints "COUNT YES" and "COUNT NO" (each only when seen), in that order.
// Exit status: 0 when the rounds ran and were reported, 1 when the output
// could not be written, 2 for a usage error.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fsutil/QELSecurity.h"

int main(int argc, char** argv)
{
    char* end = nullptr;
    const unsigned long rounds = argc == 4 ? std::strtoul(argv[2], &end, 10) : 0;
    if (argc != 4 || end == argv[2] || *end != '\0' || rounds == 0) {
        std::fprintf(stderr, "usage: repair-probe USER ROUNDS PATH\n");
        return 2;
    }
    const std::string user = argv[1];
    const std::string path = argv[3];
    unsigned long yes = 0;
    for (unsigned long round = 0; round < rounds; ++round) {
        yes += QELSecurity::makePathOK(path, user) ? 1 : 0;
    }
    if (yes > 0) {
        std::printf("%lu YES\n", yes);
    }
    if (yes < rounds) {
        std::printf("%lu NO\n", rounds - yes);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
