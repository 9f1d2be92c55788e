// The wrapped function of the system.

#include "system_store.h"

#include <windows.h>

#include <wincrypt.h>

namespace {

uint32_t openings = 0;

}  // namespace

// The linker's names for the pointer through which the imported function is called.
extern "C" {
using OpenStore = HCERTSTORE(WINAPI*)(HCRYPTPROV_LEGACY, LPCWSTR);

extern OpenStore __wrap___imp_CertOpenSystemStoreW;

static HCERTSTORE WINAPI openStore(HCRYPTPROV_LEGACY, LPCWSTR)
{
    ++openings;
    return CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
}

OpenStore __wrap___imp_CertOpenSystemStoreW = &openStore;
}

namespace NV::test {

uint32_t systemStoreOpenings()
{
    return openings;
}

}  // namespace NV::test
