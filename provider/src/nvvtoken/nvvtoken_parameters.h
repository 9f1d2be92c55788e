// The parameter list of a key derivation: what one of its buffers is, and taking its bytes over.
// Portable, without logging; used by Provider::DeriveKey.

#pragma once

#include <cstdint>
#include <string>

#include "base/secret.h"

namespace NV {

// CNG's BufferType: KDF_HASH_ALGORITHM and its kin; nvvtoken_secrets.cpp holds them to those.
inline constexpr uint32_t bufferTypeHashAlgorithm = 0;
inline constexpr uint32_t bufferTypePrepend = 1;
inline constexpr uint32_t bufferTypeAppend = 2;
inline constexpr uint32_t bufferTypeHmacKey = 3;

// A BCryptBuffer. The bytes are the caller's.
struct ParameterBuffer {
    uint32_t size;  // bytes
    uint32_t type;
    const void* bytes;
};

enum class ParameterKind {
    hashName,
    prepend,
    append,
    hmacKey,
    misplacedHmacKey,  // a key, but the derivation is not by HMAC
    unknown,
    unreadable,  // null with a size
};

ParameterKind parameterKind(const ParameterBuffer& buffer, bool useHmacKdf);

// What the whole list says.
struct DerivationParameters {
    std::wstring hashName;
    SecretBytes hmacKey;
    SecretBytes prepend;
    SecretBytes append;
};

// Takes over the bytes of a buffer whose kind is one of the first four. Prepend and append items add
// up in the order of the list, of names and keys the last one holds; an empty buffer changes nothing.
// The name is a text of at most the buffer's size: it may lack its terminator and need not be
// aligned. Throws std::bad_alloc.
void takeParameter(ParameterKind kind, const ParameterBuffer& buffer,
                   DerivationParameters& parameters);

}  // namespace NV
