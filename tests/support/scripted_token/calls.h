// Declares the 68 PKCS#11 functions that scripted_token.dll exports; calls_*.cpp define them by
// subject, function_list.cpp lists them.

#pragma once

#include "export.h"
#include "p11/cryptoki.h"

extern "C" {
#define NV_DECLARE(name, parameters) NV_EXPORTED CK_RV NV_CK_CALL name parameters;
NV_CK_FUNCTIONS(NV_DECLARE)
#undef NV_DECLARE
}
