// The certificates and public keys of the token that the provider uses, read without a login.

#pragma once

#include <string>
#include <vector>

#include "base/encoding.h"
#include "formats/certificate.h"

namespace NV::tool {

struct TokenObject {
    std::wstring keyName;  // upper-case hexadecimal of CKA_ID, as the provider names keys
    std::string label;     // CKA_LABEL, any bytes
    Bytes certificate;     // DER; empty for a public key
};

// In the token's order. Empty if the token cannot be read: the operations on it say why.
std::vector<TokenObject> tokenObjects();

// The certificate of a key among these objects, or else the one that is published in "My"; null if
// there is none. Of several, the first that is not an authority's.
Certificate certificateOfKey(const std::vector<TokenObject>& objects, const std::wstring& keyName);

// A certificate from its DER; null if the system cannot read it.
Certificate certificateOf(const Bytes& der);

}  // namespace NV::tool
