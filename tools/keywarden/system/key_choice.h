// Which key a user means.

#pragma once

#include <string>

namespace NV::tool {

class KeyStorage;

// The name of the key that `wanted` stands for, in upper or lower case: a name, the thumbprint (SHA-1 or
// SHA-256) or the common name of the subject of its certificate, or the label of its certificate or
// public key. The token is read only if it is not the name of a key.
//
// Throws Failure, with the keys to choose from, if there is none or more than one.
std::wstring chooseKey(const KeyStorage& storage, const std::string& wanted);

}  // namespace NV::tool
