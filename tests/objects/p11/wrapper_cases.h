// The 68 wrappers of the call layer as a table: how each is called, what then arrives at the
// scripted token, and what it logs. p11_wrapper_test.cpp runs it.

#pragma once

#include <ostream>
#include <span>
#include <string>

#include "p11/p11.h"
#include "scripted_token.h"

namespace NV::test {

// The token's objects, in the order in which addBenchObjects adds them.
inline constexpr CK_OBJECT_HANDLE kPublicKey = 0xB1;
inline constexpr CK_OBJECT_HANDLE kPrivateKey = 0xB2;
inline constexpr CK_OBJECT_HANDLE kEcPrivateKey = 0xB4;
inline constexpr CK_OBJECT_HANDLE kSecretKey = 0xB5;
inline constexpr CK_OBJECT_HANDLE kDataObject = 0xB6;
inline constexpr CK_SESSION_HANDLE kSession = kFirstSession;
inline constexpr CK_ULONG kModulusLength = 20;  // bytes

void addBenchObjects(ScriptedToken& token);

CK_RV NV_CK_CALL notify(CK_SESSION_HANDLE, CK_NOTIFICATION, CK_VOID_PTR);

// Arguments for the calls. Each has an address of its own, by whose name it shows in the expected
// lines, so that two that change places are seen.
struct Bench {
    Bench();
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    // The log's text with "[data]" for the address of `data`, and so on; "#" for elapsed times.
    // Other pointers, null and handles among them, stay as they were printed.
    std::string named(const std::string& text) const;

    CK_C_INITIALIZE_ARGS initArgs;
    CK_INFO info{};
    CK_SLOT_INFO slotInfo{};
    CK_TOKEN_INFO tokenInfo{};
    CK_SESSION_INFO sessionInfo{};
    CK_MECHANISM_INFO mechanismInfo{};
    CK_FUNCTION_LIST* functionList = nullptr;
    CK_SLOT_ID slots[5]{};
    CK_MECHANISM_TYPE types[40]{};
    CK_ULONG five = 5;
    CK_ULONG forty = 40;
    CK_BYTE oldPin[5]{'p', 'i', 'n', '-', 'A'};
    CK_BYTE newPin[6]{'p', 'i', 'n', '-', 'B', '7'};
    CK_BYTE userPin[12]{};
    CK_BYTE label[32]{};
    char application = 0;

    CK_BYTE data[3]{0x0F, 0xF0, 0x33};
    CK_BYTE output[256]{};
    CK_ULONG length = sizeof output;
    CK_ULONG scratchLength = sizeof output;
    CK_BYTE cipher[kModulusLength]{};
    CK_BYTE signature[kModulusLength]{};  // the right one for `data`

    CK_OBJECT_CLASS objectClass = CKO_DATA;
    CK_BYTE id[2]{0x01, 0xAB};
    CK_ULONG modulusBits = kModulusLength * 8;
    CK_BBOOL no = CK_FALSE;
    CK_ATTRIBUTE attributes[2]{{CKA_CLASS, &objectClass, 4}, {CKA_ID, id, 2}};
    CK_ATTRIBUTE wanted[1]{{CKA_ID, output, 20}};
    CK_ATTRIBUTE publicTemplate[1]{{CKA_MODULUS_BITS, &modulusBits, 4}};
    CK_ATTRIBUTE privateTemplate[2]{{CKA_ID, id, 2}, {CKA_TOKEN, &no, 1}};
    CK_OBJECT_HANDLE handles[3]{};
    CK_OBJECT_HANDLE newHandle = 0;
    CK_OBJECT_HANDLE otherHandle = 0;

    CK_BYTE point[65]{};
    CK_RSA_PKCS_PSS_PARAMS pssParameters{CKM_SHA256, CKG_MGF1_SHA256, 32};
    CK_ECDH1_DERIVE_PARAMS ecdhParameters{CKD_NULL, 0, nullptr, sizeof point, point};
    CK_MECHANISM rsaPkcs{CKM_RSA_PKCS, nullptr, 0};
    CK_MECHANISM rawRsa{CKM_RSA_X_509, nullptr, 0};
    CK_MECHANISM sha256{CKM_SHA256, nullptr, 0};
    CK_MECHANISM pss{CKM_RSA_PKCS_PSS, &pssParameters, sizeof pssParameters};
    CK_MECHANISM ecdh{CKM_ECDH1_DERIVE, &ecdhParameters, sizeof ecdhParameters};
    CK_MECHANISM secretGeneration{CKM_GENERIC_SECRET_KEY_GEN, nullptr, 0};
    CK_MECHANISM pairGeneration{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
};

// What a call needs before it can succeed.
enum class State { finalised, initialised, sessionOpen, loggedIn };

using Preparation = CK_RV (*)(const CK_FUNCTION_LIST& token, Bench& bench);

// What the line after the library's call shows: the time that it took, or its result as well.
enum class Outcome { time, result };

struct WrapperCase {
    const char* name = nullptr;
    State state = State::finalised;
    // Calls of the token itself, such as the start of an operation; the sum of their results.
    Preparation prepare = nullptr;
    CK_RV (*call)(Pkcs11& p11, Bench& bench) = nullptr;
    const char* recorded = nullptr;   // what the token sees
    const char* arguments = nullptr;  // as they are logged: "hSession=..., pData=..."
    // The lines that this wrapper alone logs, "DBG text\n": after a call that succeeds, and before it.
    const char* after = "";
    const char* before = "";
    Outcome outcome = Outcome::time;
};

// For messages of failing tests.
inline void PrintTo(const WrapperCase& row, std::ostream* out)
{
    *out << row.name;
}

inline constexpr Preparation nothing = nullptr;

// Together, one row for each function, in the order of the function list.
std::span<const WrapperCase> generalCases();
std::span<const WrapperCase> sessionsCases();
std::span<const WrapperCase> objectsCases();
std::span<const WrapperCase> cryptoCases();
std::span<const WrapperCase> keysCases();

}  // namespace NV::test
