// The two implementations of the SHA-256 compression function behind
// sha256_transf. sha256_transf picks one once per process: the accelerated
// one when the processor has the SHA extensions, else the portable one.
// Declared here so that tests can run both on the same input.
#pragma once

#include <cstdint>

// Compresses blockCount 64-byte blocks into the eight state words.
void sha256_transf_portable(uint32_t state[8], const unsigned char* blocks, uint32_t blockCount);
// Needs sha256_transf_accelerated_available(); must not be called otherwise.
void sha256_transf_accelerated(uint32_t state[8], const unsigned char* blocks, uint32_t blockCount);
// True when this processor (and build) can run the accelerated function.
bool sha256_transf_accelerated_available();
