// The parameter list of a key derivation: the kind of a buffer, and copying its bytes. Portable,
// without logging; for Provider::DeriveKey.

#pragma once

#include <cstdint>
#include <string>

#include "base/secret.h"

namespace NV {

// Values of BCryptBuffer::BufferType. nvvtoken_secrets.cpp compares them with CNG's constants.
inline constexpr uint32_t bufferTypeHashAlgorithm = 0;
inline constexpr uint32_t bufferTypePrepend = 1;
inline constexpr uint32_t bufferTypeAppend = 2;
inline constexpr uint32_t bufferTypeHmacKey = 3;

// A BCryptBuffer. The bytes are the caller's.
struct ParameterBuffer {
    uint32_t size;  // bytes
    uint32_t type;
    const void* bytes;

    // False for a null pointer with a size.
    bool readable() const { return bytes != nullptr || size == 0; }
};

enum class ParameterKind : uint8_t {
    hashName,
    prepend,
    append,
    hmacKey,
    misplacedHmacKey,  // an HMAC key for a derivation without HMAC
    unknown,
};

ParameterKind parameterKind(const ParameterBuffer& buffer, bool useHmacKdf);

// The content of the whole list.
struct DerivationParameters {
    // Whether the list has a buffer for the name. For the caller of takeParameter.
    bool hasHashName = false;
    std::wstring hashName;
    SecretBytes hmacKey;
    SecretBytes prepend;
    SecretBytes append;
};

// Copies the bytes of a buffer whose kind is one of the first four. Several prepend or append items
// are joined in the order of the list; of several names or keys the last one is used. An empty
// buffer and a null pointer change nothing. The name is a text of at most the buffer's size: it may
// lack its terminator, and it need not be aligned. Only the first 64 characters are read. Throws
// std::bad_alloc.
void takeParameter(ParameterKind kind, const ParameterBuffer& buffer,
                   DerivationParameters& parameters);

}  // namespace NV
