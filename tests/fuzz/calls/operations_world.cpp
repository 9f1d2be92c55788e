// What happens around the calls: the user, the token, the log and memory. And the operands that
// several instructions share.

#include <algorithm>

#include "operations.h"

namespace NV::fuzz {

namespace {

// The functions of the library that the module calls.
constexpr const char* tokenFunctions[] = {"C_Initialize",
                                          "C_Finalize",
                                          "C_GetInfo",
                                          "C_GetSlotList",
                                          "C_GetSlotInfo",
                                          "C_GetTokenInfo",
                                          "C_GetMechanismList",
                                          "C_GetMechanismInfo",
                                          "C_OpenSession",
                                          "C_CloseSession",
                                          "C_Login",
                                          "C_Logout",
                                          "C_FindObjectsInit",
                                          "C_FindObjects",
                                          "C_FindObjectsFinal",
                                          "C_GetAttributeValue",
                                          "C_SignInit",
                                          "C_Sign",
                                          "C_VerifyInit",
                                          "C_Verify",
                                          "C_EncryptInit",
                                          "C_Encrypt",
                                          "C_DecryptInit",
                                          "C_Decrypt",
                                          "C_DigestInit",
                                          "C_Digest",
                                          "C_CreateObject",
                                          "C_DeriveKey",
                                          "C_GetFunctionList"};

constexpr CK_RV codes[] = {CKR_GENERAL_ERROR,
                           CKR_DEVICE_REMOVED,
                           CKR_TOKEN_NOT_PRESENT,
                           CKR_SESSION_HANDLE_INVALID,
                           CKR_PIN_LOCKED,
                           CKR_BUFFER_TOO_SMALL,
                           CKR_CRYPTOKI_ALREADY_INITIALIZED,
                           0x7391AB};

// What is more than the module takes, and lengths below it.
constexpr uint32_t claims[] = {0, 1, 33, 300, 65537, 1024 * 1024, 1024 * 1024 + 1, 0xFFFFFFF0};

// A number of events from 1 on: mostly so few that the next call meets the last one, sometimes as many as
// an opening has.
uint32_t soon(uint8_t operand, uint8_t form)
{
    if (operand < 0x80)
        return 1 + operand;
    return form % 8 == 7 ? 3U * operand : 1 + operand % 16;
}

}  // namespace

size_t lengthOf(uint8_t operand)
{
    constexpr size_t lengths[] = {32,  20,  48,  64,  0,   1,   8,   16,  28,  31,  33,
                                  63,  65,  66,  72,  100, 104, 117, 118, 127, 128, 129,
                                  132, 190, 214, 245, 246, 255, 256, 257, 300, 600};
    return lengths[operand % std::size(lengths)];
}

Bytes someBytes(size_t length, uint8_t operand)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(operand + 7 * i);
    return bytes;
}

bool rarely(uint8_t operand)
{
    return operand % 16 == 0xF;
}

DWORD flagsOf(uint8_t operand)
{
    constexpr DWORD flags[] = {0,
                               NCRYPT_SILENT_FLAG,
                               0,
                               0x100,
                               0,
                               NCRYPT_OVERWRITE_KEY_FLAG,
                               NCRYPT_SILENT_FLAG | 0x80000000,
                               0};
    return flags[operand % std::size(flags)];
}

const wchar_t* propertyName(uint8_t operand)
{
    static const std::wstring longest(64, L'p');
    static const std::wstring tooLong(65, L'p');
    static const wchar_t* const names[] = {NCRYPT_NAME_PROPERTY,
                                           L"SmartCardPin",
                                           NCRYPT_ALGORITHM_PROPERTY,
                                           NCRYPT_UNIQUE_NAME_PROPERTY,
                                           NCRYPT_WINDOW_HANDLE_PROPERTY,
                                           NCRYPT_VERSION_PROPERTY,
                                           NCRYPT_IMPL_TYPE_PROPERTY,
                                           NCRYPT_ALGORITHM_GROUP_PROPERTY,
                                           NCRYPT_KEY_USAGE_PROPERTY,
                                           NCRYPT_EXPORT_POLICY_PROPERTY,
                                           L"Odd Property",
                                           L"",
                                           NCRYPT_PROVIDER_HANDLE_PROPERTY,
                                           longest.c_str(),
                                           tooLong.c_str(),
                                           nullptr};
    const size_t chosen = operand % (std::size(names) + rules.moreNames.size());
    return chosen < std::size(names) ? names[chosen] : rules.moreNames[chosen - std::size(names)];
}

bool lengthHolds(DWORD length, size_t trueLength, const Output& output, const Disturbance& by)
{
    if (length == trueLength)
        return true;
    if (by.claim)
        return output.null() || length <= output.size();
    const size_t larger = std::min<size_t>(output.size(), trueLength + test::kLieExcess);
    return by.lie && !output.null() && (length == larger || length == output.size());
}

void changePin(World& world, Operands& operands)
{
    constexpr Pin pins[] = {Pin::right,   Pin::right,     Pin::wrong,  Pin::empty,
                            Pin::tooLong, Pin::cancelled, Pin::broken, Pin::right};
    world.setPin(pins[operands.byte() % std::size(pins)]);
}

void addTokenFault(World& world, Operands& operands)
{
    const char* const function = tokenFunctions[operands.byte() % std::size(tokenFunctions)];
    const uint8_t kind = operands.byte();
    const size_t chosen = operands.byte() % (std::size(codes) + rules.moreCodes.size());
    const CK_RV code =
        chosen < std::size(codes) ? codes[chosen] : rules.moreCodes[chosen - std::size(codes)];
    const uint8_t when = operands.byte();
    // Rarely every call.
    const uint32_t nth = when == 0xFF ? 0 : 1 + when % (when < 0xC0 ? 3 : 24);
    test::ScriptedToken& token = world.token();
    switch (kind % 10) {
    case 0:
        token.throwFrom(function, nth);
        break;
    case 1:
        token.failAfterWork(function, code, nth);
        break;
    case 2:
        token.valueUnavailable(nth);
        break;
    case 3:
        token.bufferTooSmall(function, nth);
        break;
    case 4:
        token.secondCountLarger(function, nth);
        break;
    case 5:
        token.lengthPastBuffer(function, nth);
        break;
    case 6:
        token.throwAfterWork(function, nth);
        break;
    case 7:
        token.claim(function, claims[code % std::size(claims)], nth);
        break;
    default:
        token.fail(function, code, nth);
        break;
    }
}

void clearTokenFaults(World& world, Operands&)
{
    world.token().clearFaults();
}

void changeLog(World& world, Operands& operands)
{
    const uint8_t form = operands.byte();
    const uint32_t record = soon(operands.byte(), form);
    world.setLog(form % 4 == 0, form % 4 >= 2 ? record : 0);
}

void failMemory(World& world, Operands& operands)
{
    const uint8_t form = operands.byte();
    world.setFailingAllocation(soon(operands.byte(), form));
}

// Another part of the process works with the library.
void useToken(World& world, Operands& operands)
{
    const CK_FUNCTION_LIST& library = world.library();
    const uint8_t what = operands.byte();
    CK_SESSION_HANDLE session = 0;
    Bytes pin(test::kPin.begin(), test::kPin.end());
    world.token().clearFaults();
    switch (what % 4) {
    case 0:
        library.C_Initialize(nullptr);
        break;
    case 1:
        library.C_Initialize(nullptr);
        library.C_OpenSession(test::kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
        break;
    case 2:
        library.C_Initialize(nullptr);
        library.C_OpenSession(test::kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
        library.C_Login(session, CKU_USER, pin.data(), sizeOf(pin));
        break;
    default:
        library.C_Finalize(nullptr);
        break;
    }
    world.token().takeStruckFaults();
    world.tokenWasUsed();
}

}  // namespace NV::fuzz
