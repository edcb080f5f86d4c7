/*
 * A library in the place of the install-manager library that lacks its
 * uninstall entry. It journals its loading and unloading like CorvaneHOV.c
 * ("CorvaneHOVNoEntry" TAB "load" / "unload").
 */
#include "DoubleJournal.h"

static const char kLibraryName[] = "CorvaneHOVNoEntry";

__attribute__((constructor)) static void libraryLoaded(void)
{
    doubleJournal(kLibraryName, "load");
}

__attribute__((destructor)) static void libraryUnloaded(void)
{
    doubleJournal(kLibraryName, "unload");
}

__attribute__((visibility("default"))) int hov_versionOfCorvaneApplicationManager(void)
{
    return 10;
}
