// The instructions of a program. Each one takes its operands, works out what the module must answer,
// and calls it.

#pragma once

#include <string>

#include "world.h"

namespace NV::fuzz {

using Operation = void (*)(World& world, Operands& operands);

// operations_provider.cpp
void openProvider(World& world, Operands& operands);
void freeProvider(World& world, Operands& operands);
void getProviderProperty(World& world, Operands& operands);
void setProviderProperty(World& world, Operands& operands);
void isAlgSupported(World& world, Operands& operands);
void enumAlgorithms(World& world, Operands& operands);
void refusedOperation(World& world, Operands& operands);

// operations_keys.cpp
void openKey(World& world, Operands& operands);
void freeKey(World& world, Operands& operands);
void getKeyProperty(World& world, Operands& operands);
void setKeyProperty(World& world, Operands& operands);
void enumKeys(World& world, Operands& operands);
void freeBuffer(World& world, Operands& operands);
void importKey(World& world, Operands& operands);
void exportKey(World& world, Operands& operands);

// operations_signatures.cpp
void signHash(World& world, Operands& operands);
void verifySignature(World& world, Operands& operands);

// operations_ciphers.cpp
void encrypt(World& world, Operands& operands);
void decrypt(World& world, Operands& operands);

// operations_secrets.cpp
void secretAgreement(World& world, Operands& operands);
void deriveKey(World& world, Operands& operands);
void freeSecret(World& world, Operands& operands);

// operations_world.cpp: not calls, but what happens around them.
void changePin(World& world, Operands& operands);
void addTokenFault(World& world, Operands& operands);
void clearTokenFaults(World& world, Operands& operands);
void changeLog(World& world, Operands& operands);
void failMemory(World& world, Operands& operands);
void useToken(World& world, Operands& operands);

// The lengths that matter to a hash, a modulus or a curve, and those beside them.
size_t lengthOf(uint8_t operand);
// So many bytes that depend on the operand.
Bytes someBytes(size_t length, uint8_t operand);
// One in 16 operands.
bool rarely(uint8_t operand);

// A flag word: 0, or the silent flag, or others that no operation knows.
DWORD flagsOf(uint8_t operand);

const wchar_t* propertyName(uint8_t operand);
// What reading a property gives that is not there.
SECURITY_STATUS statusOfMissing(std::wstring_view name);
// What reading a property has written.
void checkValue(const Answer& answer, bool succeeded, const Bytes* value, const Output& output,
                const Place<DWORD>& length);

// CNG takes input by a pointer to non-const.
inline PBYTE in(const Bytes& bytes)
{
    return const_cast<PBYTE>(bytes.data());
}

inline DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

// After a failure, an output is as it was, or has what the token wrote before a later step failed.
inline bool untouchedOrHolds(const Output& output, const TokenResult& result)
{
    return output.untouched() || (result && output.holds(*result));
}

// A length that the token tells: the true one, unless it lies. The module limits it to the buffer.
bool lengthHolds(DWORD length, size_t trueLength, const Output& output, const Disturbance& by);

}  // namespace NV::fuzz
