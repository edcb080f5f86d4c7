// Hexadecimal text of bytes, and the hashed identity of an application path.
#pragma once

#include <cstdint>
#include <string>

// 2 * count lower-case hexadecimal digits, high nibble first. Raises the
// fatal exception with code 1876 when count exceeds 0x3FFFFFFD and with 1877
// when the text buffer cannot be allocated (a negative count asks for an
// impossible allocation and ends there).
std::string QELUHexFrombytes(const unsigned char* bytes, int32_t count);

// The SHA-224 digest of the path's UTF-8 bytes, exactly as given (no case
// folding, no standardising, no trailing zero byte), as 56 lower-case hex
// digits. Raises the fatal exception with code 1844 when the path has no
// UTF-8 form.
std::string QELUHashOfAppPath(const std::string& path);
