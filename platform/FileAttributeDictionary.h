// A file's attributes as a dictionary of values keyed by the file manager's
// key names ("NSFileType", "NSFilePosixPermissions", ...). A value is one of
// several kinds (a number, a text, a boolean or a date), so a caller that
// expects one kind checks the kind it was handed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/Date.h"

namespace platform {

// Numbers are unsigned 64-bit: sizes, permission bits, account ids.
using FileAttributeValue = std::variant<uint64_t, std::string, bool, Date>;
using FileAttributeDictionary = std::map<std::string, FileAttributeValue, std::less<>>;

// Keys and what their values are.
inline constexpr char kFileType[] = "NSFileType";                          // text: one of the type names below
inline constexpr char kFileSize[] = "NSFileSize";                          // number: bytes
inline constexpr char kFilePosixPermissions[] = "NSFilePosixPermissions";  // number: mode & 07777
inline constexpr char kFileOwnerAccountID[] = "NSFileOwnerAccountID";      // number
inline constexpr char kFileOwnerAccountName[] = "NSFileOwnerAccountName";  // text; absent without an account
inline constexpr char kFileImmutable[] = "NSFileImmutable";                // boolean: the file system's flag
inline constexpr char kFileModificationDate[] = "NSFileModificationDate";  // date

// Values of kFileType. A pipe has no name of its own: it is of unknown type.
inline constexpr char kFileTypeRegular[] = "NSFileTypeRegular";
inline constexpr char kFileTypeDirectory[] = "NSFileTypeDirectory";
inline constexpr char kFileTypeSymbolicLink[] = "NSFileTypeSymbolicLink";
inline constexpr char kFileTypeCharacterSpecial[] = "NSFileTypeCharacterSpecial";
inline constexpr char kFileTypeBlockSpecial[] = "NSFileTypeBlockSpecial";
inline constexpr char kFileTypeSocket[] = "NSFileTypeSocket";
inline constexpr char kFileTypeUnknown[] = "NSFileTypeUnknown";

// The value under key when it is of the kind asked for; none when the key is
// absent or holds another kind.
std::optional<uint64_t> numberForKey(const FileAttributeDictionary& attributes, std::string_view key);
std::optional<std::string> stringForKey(const FileAttributeDictionary& attributes, std::string_view key);

}  // namespace platform
