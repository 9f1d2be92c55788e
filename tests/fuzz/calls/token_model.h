// What the scripted token makes of a key, a padding and data, computed a second time. For the model of
// the module: the token's own computations are in the library that the module loads.

#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include <bcrypt.h>

#include "base/encoding.h"
#include "key_facts.h"

namespace NV::fuzz {

// The argument pPaddingInfo with what it points to, for one call.
struct Padding {
    DWORD flags = 0;
    bool infoGiven = false;
    const wchar_t* hashName = nullptr;
    Bytes label;  // OAEP
};

// The result, or nothing where the token fails.
using TokenResult = std::optional<Bytes>;

TokenResult signature(const KeyFacts& key, const Padding& padding, const Bytes& hash);
// The signature that a verification accepts, which for a padding with a hash is not the one above.
TokenResult verifiedSignature(const KeyFacts& key, const Padding& padding, const Bytes& hash);
TokenResult encrypted(const KeyFacts& key, const Padding& padding, const Bytes& data);
TokenResult decrypted(const KeyFacts& key, const Padding& padding, const Bytes& data);
// In modern, what a signature's or a cipher's padding is refused with; ERROR_SUCCESS: nothing.
SECURITY_STATUS signatureRefusal(const KeyFacts& key, const Padding& padding, const Bytes& hash);
SECURITY_STATUS cipherRefusal(const KeyFacts& key, const Padding& padding);
// Whether the token finds the data too long for the padding.
bool isTooLong(const KeyFacts& key, const Padding& padding, const Bytes& data);
// The secret agreed with the owner of a point.
TokenResult agreed(const KeyFacts& key, const Bytes& point);
TokenResult derived(const std::wstring& hashName, bool hmac, const Bytes& hmacKey,
                    const Bytes& data);

}  // namespace NV::fuzz
