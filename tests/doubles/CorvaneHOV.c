/*
 * Stand-in for the maker's install-manager library. Tests copy the built
 * CorvaneHOV.so into a copy of the remover's bundle as
 * Contents/Frameworks/CorvaneHOV.dylib.
 *
 * hov_uninstallCorvaneApplicationManager returns the status named by the
 * environment variable HOV_DOUBLE_STATUS (a decimal integer, default 0) and
 * writes the value of HOV_DOUBLE_OUTPUT (default 1) through its pointer.
 *
 * Journal: the library appends one line to the doubles' journal
 * ($DOUBLES_STATE_DIR/journal, else /var/db/doubles/journal; nothing when
 * it cannot be opened) when it is loaded ("CorvaneHOV" TAB "load"), for
 * each call of the entry ("CorvaneHOV" TAB the entry's name) and when it is
 * unloaded ("CorvaneHOV" TAB "unload"), so a test sees whether and when the
 * library was opened, called and closed.
 */
#include "DoubleJournal.h"

#include <stdint.h>
#include <stdlib.h>

static const char kLibraryName[] = "CorvaneHOV";

static int32_t integerFromEnvironment(const char* name, int32_t fallback)
{
    const char* text = getenv(name);
    if (text == NULL || *text == '\0') {
        return fallback;
    }
    return (int32_t)strtol(text, NULL, 10);
}

__attribute__((constructor)) static void libraryLoaded(void)
{
    doubleJournal(kLibraryName, "load");
}

__attribute__((destructor)) static void libraryUnloaded(void)
{
    doubleJournal(kLibraryName, "unload");
}

__attribute__((visibility("default"))) int32_t hov_uninstallCorvaneApplicationManager(int32_t* result)
{
    doubleJournal(kLibraryName, "hov_uninstallCorvaneApplicationManager");
    if (result != NULL) {
        *result = integerFromEnvironment("HOV_DOUBLE_OUTPUT", 1);
    }
    return integerFromEnvironment("HOV_DOUBLE_STATUS", 0);
}
