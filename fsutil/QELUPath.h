// Path and attribute utilities of the shared updater services: delete a
// path, read and set single attributes, read a file's size and permission
// bits, find a user-domain directory, and create the missing directories of
// a path below a known base.
//
// Failures go through the error model (QELBase) in one of two styles, each
// function keeping its own:
// - raising: a failed check raises the fatal exception with the code;
// - logging with a status: a failed check logs its code, and the function
//   then asks the error-trigger test the same question again; when that
//   answers yes it stores the code in *status and returns its failure value.
//   With a forced code and a skip count, each check therefore advances the
//   forcing counter by two, and the log and the status may disagree on the
//   pass where the count runs out. The status, not the result, is
//   authoritative.
// A status pointer may be null; nothing is stored then.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/FileAttributeDictionary.h"

namespace platform {
class ItemHandle;
}

// Codes of the logging-style checks.
inline constexpr int32_t kQELUPermissionsUnreadable = 1950;
inline constexpr int32_t kQELUPermissionsNotANumber = 1951;
inline constexpr int32_t kQELUAttributeNotSet = 1952;
inline constexpr int32_t kQELUAttributesUnreadable = 1953;
inline constexpr int32_t kQELUSizeMissing = 1954;
// Codes of QELUCreateDirectoryAndIntermediates (raised inside, caught).
inline constexpr int32_t kQELUComponentUnsafe = 1537;
inline constexpr int32_t kQELUDirectoryNotCreated = 1538;

// What QELUFileSize returns on failure.
inline constexpr uint64_t kQELUFileSizeFailed = ~uint64_t{0};

// True when the path is gone: removed now (with everything in it) or never
// there. Existence follows a final link, so a dangling link counts as not
// there and stays; a link to something is removed itself, never its target.
// An empty path, a failed removal or a forced code fails: the code is then
// recorded as an error (recordOnly) or only logged, the non-fatal exception
// is raised after that when raise is set, and the result is false.
bool QELUDeletePathIfExists(const std::string& path, int32_t code, signed char recordOnly, signed char raise);

// The value of one attribute of the item itself (a final link is not
// followed), or none when the path cannot be examined or has no such
// attribute. Reports nothing.
std::optional<platform::FileAttributeValue> QELUAttributesOfPathForKey(const std::string& path, const std::string& key);

// Sets one attribute (never through a final link). Code 1952 when the file
// manager refuses or the code is forced. Does not clear *status first: its
// callers do. A forced 1952 after a real change returns true with status
// 1952.
bool QELUSetAttributeForPath(const std::string& path, const std::string& key, const platform::FileAttributeValue& value,
                             int32_t* status);
// Clears *status, then sets the permission bits as QELUSetAttributeForPath.
bool QELUSetPosixPermissionsAtPath(const std::string& path, unsigned long bits, int32_t* status);

// The item's size (a final link's own size). All bits set with status 1953
// when its attributes cannot be read, 1954 when they hold no size.
uint64_t QELUFileSize(const std::string& path, int32_t* status);
// The item's mode bits with the set-id and sticky bits (a final link's own
// bits). 0 with status 1950 when they cannot be read, 1951 when they are not
// a number.
unsigned long QELUPosixPermissionsAtPath(const std::string& path, int32_t* status);

// The same four of an item already open (platform/ItemHandle.h), with the
// same checks and codes: each reads or changes that very item through its
// descriptor, so a check and the change that follows it are of one item even
// when its path leads elsewhere meanwhile.
std::optional<platform::FileAttributeValue> QELUAttributesOfItemForKey(const platform::ItemHandle& item,
                                                                       const std::string& key);
bool QELUSetAttributeForItem(const platform::ItemHandle& item, const std::string& key,
                             const platform::FileAttributeValue& value, int32_t* status);
bool QELUSetPosixPermissionsOfItem(const platform::ItemHandle& item, unsigned long bits, int32_t* status);
unsigned long QELUPosixPermissionsOfItem(const platform::ItemHandle& item, int32_t* status);

// The first user-domain directory of the type (a platform::SearchPathDirectory
// value, e.g. 5 for the Library folder), tilde expanded. Raises the fatal
// exception with code when there is none, with code + 1 when the first entry
// is not a text.
std::string QELUUserDirectoryOfType(uint32_t type, int32_t code);

// Makes every directory from below base down to path exist, creating what is
// missing with mode 0700 (exactly, whatever the umask), top down. Unless
// skipCheck is set, every directory that already exists must be safe for the
// current user (QELSecurity::makePathOK, which may clear its group and
// others write bits); a link to a directory never is. The first components
// of path, as many as base has, are skipped without being compared with
// base; base itself is neither checked nor created. A "." or ".." component
// below base is refused, so the walk never leaves the path it was given.
// False when a component exists but is no directory, is unsafe or is "." or
// "..", code 1537, or a directory cannot be created, code 1538; the fatal
// exception raised for it is caught here and never escapes.
bool QELUCreateDirectoryAndIntermediates(const std::string& path, const std::string& base, signed char skipCheck);
