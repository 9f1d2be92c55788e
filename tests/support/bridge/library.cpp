// The native library behind the bridge: finding, loading and calling it.

#include "library.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

// From Wine's kernel32; its headers and the native PKCS#11 header do not go together.
extern "C" __attribute__((ms_abi)) int GetModuleHandleExW(uint32_t flags, const void* address,
                                                          void** module);
extern "C" __attribute__((ms_abi)) int DllMain(void* instance, uint32_t reason, void* reserved);

// Wine cannot load a Winelib DLL again after its last FreeLibrary, since the Linux library behind
// it stays in the process. So the bridge never leaves: users may free and load it as they like.
int DllMain(void* instance, uint32_t reason, void*)
{
    constexpr uint32_t processAttach = 1;
    constexpr uint32_t pin = 1;
    constexpr uint32_t fromAddress = 4;
    if (reason != processAttach)
        return 1;
    void* module = nullptr;
    return GetModuleHandleExW(pin | fromAddress, instance, &module);
}

namespace NV::bridge {

namespace {

constexpr const char* defaultModule = "/usr/lib/softhsm/libsofthsm2.so";

std::mutex loadLock;  // guards loadedName and initialized
std::string loadedName;
bool initialized = false;
std::atomic<const native::CK_FUNCTION_LIST*> loadedFunctions = nullptr;

std::string wantedModule()
{
    const char* name = std::getenv("P11_BRIDGE_MODULE");
    return name != nullptr && *name != '\0' ? name : defaultModule;
}

CK_RV loadFailure(const std::string& name, const char* reason)
{
    std::fprintf(stderr, "p11bridge: cannot load %s: %s\n", name.c_str(),
                 reason != nullptr ? reason : "no reason given");
    return CKR_LIBRARY_LOAD_FAILED;
}

// The library is never unloaded: what it registered in the process (exit handlers, threads)
// would outlive it otherwise.
CK_RV load(const std::string& name)
{
    void* library = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return loadFailure(name, dlerror());

    void* symbol = dlsym(library, "C_GetFunctionList");
    if (symbol == nullptr)
        return loadFailure(name, dlerror());
    const auto getFunctionList = reinterpret_cast<native::CK_C_GetFunctionList>(symbol);

    native::CK_FUNCTION_LIST* list = nullptr;
    const native::CK_RV result = getFunctionList(&list);
    if (result != CKR_OK || list == nullptr)
        return loadFailure(name, "C_GetFunctionList fails");
    loadedFunctions = list;
    loadedName = name;
    return CKR_OK;
}

}  // namespace

const native::CK_FUNCTION_LIST* functionList()
{
    return loadedFunctions;
}

CK_RV initializeLibrary(native::CK_C_INITIALIZE_ARGS* arguments)
{
    const std::lock_guard guard{loadLock};
    const std::string wanted = wantedModule();
    if (!initialized && wanted != loadedName) {
        if (const CK_RV result = load(wanted); result != CKR_OK)
            return result;
    }
    const CK_RV result = callNative(&native::CK_FUNCTION_LIST::C_Initialize, arguments);
    if (result == CKR_OK)
        initialized = true;
    return result;
}

CK_RV finalizeLibrary(void* reserved)
{
    const std::lock_guard guard{loadLock};
    const CK_RV result = callNative(&native::CK_FUNCTION_LIST::C_Finalize, reserved);
    if (result == CKR_OK)
        initialized = false;
    return result;
}

}  // namespace NV::bridge
