// The load configuration of the program: the DLLs of its import table come from the system's folder
// alone, so that a file of such a name beside the program is not loaded. Windows 10 1607 and later read
// it; before that, only the "known DLLs" come from there.
//
// The linker does not know the load configuration directory. cmake/load-config.py enters this section
// into the header after linking.

#include <windows.h>

#include <cstddef>

namespace {

// Microsoft's IMAGE_LOAD_CONFIG_DIRECTORY64 up to its members of Windows XP.
struct LoadConfiguration {
    DWORD size;
    BYTE unused[74];
    WORD dependentLoadFlags;
    BYTE unusedToo[32];
};
static_assert(offsetof(LoadConfiguration, dependentLoadFlags) == 0x4E);
static_assert(sizeof(LoadConfiguration) == 0x70);

[[gnu::used, gnu::section(".ldcfg")]] const LoadConfiguration configuration = {
    sizeof(LoadConfiguration), {}, LOAD_LIBRARY_SEARCH_SYSTEM32, {}};

}  // namespace
