// not_pkcs11.dll: a library that loads but is not a PKCS#11 library, for tests that must reject it.

#include "export.h"

extern "C" NV_EXPORTED int oddFunction()
{
    return 7391;
}
