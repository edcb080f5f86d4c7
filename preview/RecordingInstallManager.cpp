// The stand-in of the maker's install-manager library while RemoverPreview
// runs the remover: bound over the library, its entry records the call (with
// the path the library was loaded from) in the preview's journal, writes 0
// through its pointer and answers 0, the status of success. The application
// manager itself is never called.
#include <cstdint>
#include <dlfcn.h>
#include <string>

#include "identities/ExternalTools.h"
#include "platform/preview/InheritedJournal.h"

extern "C" __attribute__((visibility("default"))) int32_t hov_uninstallCorvaneApplicationManager(int32_t* result)
{
    Dl_info where{};
    const bool found = dladdr(reinterpret_cast<void*>(&hov_uninstallCorvaneApplicationManager), &where) != 0 &&
                       where.dli_fname != nullptr;
    platform::InheritedJournal::appendToInherited(
        {"call", found ? where.dli_fname : "(unknown)", kInstallManagerEntry});
    if (result != nullptr) {
        *result = 0;
    }
    return 0;
}
