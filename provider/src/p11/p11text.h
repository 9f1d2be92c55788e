// PKCS#11 values as texts for the log: names of return values, mechanisms, attributes and object
// classes, and one-line texts of the information structures. Used by the module and the call layer.

#pragma once

#include <string>

#include "p11/cryptoki.h"

namespace NV {

// "00000191(CKR_CRYPTOKI_ALREADY_INITIALIZED)", or "UNKNOWN" for a value without a name. The text
// is in a buffer of the calling thread and is valid until the thread's next call.
const char* returnValueText(CK_RV value);

// The CKM_ identifier, or "UNKNOWN". The text is static.
const char* mechanismText(CK_MECHANISM_TYPE type);

// "CKA_SUBJECT(257)", or "UNKNOWN". The number is signed, so that of the vendor attribute is
// negative. The text is in a buffer of the calling thread and is valid until the thread's next
// call.
const char* attributeText(CK_ATTRIBUTE_TYPE type);

// "CKO_PRIVATE_KEY(3)" for an attribute value that is 4 bytes long and a known class, otherwise an
// empty text. The value may be null and need not be aligned.
std::string objectClassText(const void* value, CK_ULONG length);

// "{type=CKA_CLASS(0),pValue=CKO_DATA(0),ulValueLen=4}". Compat: a 4-byte value that is the number
// of a class prints as the class in every attribute, not only in CKA_CLASS.
std::string toText(const CK_ATTRIBUTE& attribute);

std::string toText(const CK_INFO& info);
std::string toText(const CK_SLOT_INFO& info);
std::string toText(const CK_TOKEN_INFO& info);
std::string toText(const CK_SESSION_INFO& info);

// "{version=2.40,C_Initialize=0000...,...}": every entry in the list's order.
std::string toText(const CK_FUNCTION_LIST& list);

}  // namespace NV
