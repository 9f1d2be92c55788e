// The fixed identifiers, texts and byte patterns of the scripted token, for the token itself and
// for the tests that compute its results. All values are unusual, so that a mixed-up value is
// visible.

#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "p11/cryptoki.h"

namespace NV::test {

using Bytes = std::vector<CK_BYTE>;

// Slot 52 has an initialized token; slot 77 is empty until a test fills it.
inline constexpr CK_SLOT_ID kSlot = 52;
inline constexpr CK_SLOT_ID kOtherSlot = 77;
inline constexpr CK_FLAGS kSlotFlags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
inline constexpr CK_FLAGS kEmptySlotFlags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
inline constexpr CK_FLAGS kTokenFlags =
    CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;

// The first of each kind; the next ones count up by one and never repeat before a reset.
inline constexpr CK_SESSION_HANDLE kFirstSession = 0x5E55;
inline constexpr CK_OBJECT_HANDLE kFirstObject = 0xB1;           // on the token, by control
inline constexpr CK_OBJECT_HANDLE kFirstSessionObject = 0xD501;  // made by a call

inline constexpr std::string_view kPin = "odd-PIN-7391";
inline constexpr std::string_view kSecurityOfficerPin = "odd-SO-PIN-26";
inline constexpr CK_ULONG kMinPinLength = 5;
inline constexpr CK_ULONG kMaxPinLength = 15;

inline constexpr CK_VERSION kCryptokiVersion{2, 40};
inline constexpr CK_VERSION kLibraryVersion{6, 23};
inline constexpr CK_VERSION kSlotHardwareVersion{2, 9};
inline constexpr CK_VERSION kSlotFirmwareVersion{4, 13};
inline constexpr CK_VERSION kTokenHardwareVersion{3, 7};
inline constexpr CK_VERSION kTokenFirmwareVersion{5, 11};
inline constexpr std::string_view kManufacturer = "Odd Token Works";
inline constexpr std::string_view kLibraryDescription = "Scripted token of the tests";
inline constexpr std::string_view kModel = "OddModel-3";
inline constexpr std::string_view kUtcTime = "2031052913374100";
// The slot's number in decimal follows these three.
inline constexpr std::string_view kSlotDescriptionStem = "Odd Slot ";
inline constexpr std::string_view kTokenLabelStem = "Odd Label ";
inline constexpr std::string_view kSerialNumberStem = "SN-7391-";

inline constexpr CK_ULONG kMaxSessionCount = 37;
inline constexpr CK_ULONG kMaxRwSessionCount = 19;
inline constexpr CK_ULONG kTotalPublicMemory = 70001;
inline constexpr CK_ULONG kFreePublicMemory = 50021;
inline constexpr CK_ULONG kTotalPrivateMemory = 30011;
inline constexpr CK_ULONG kFreePrivateMemory = 10007;
inline constexpr CK_ULONG kDeviceError = 0xDE7;
inline constexpr CK_ULONG kObjectOverhead = 13;  // C_GetObjectSize: this and all value bytes

// A false count or length exceeds the true one, or the buffer, by this much.
inline constexpr CK_ULONG kLieExcess = 7;

// What each call leaves as the thread's last error, as a token's driver may.
inline constexpr uint32_t kLastError = 0x2734;

inline constexpr CK_FLAGS CKF_HW = 0x1;
inline constexpr CK_FLAGS CKF_ENCRYPT = 0x100;
inline constexpr CK_FLAGS CKF_DECRYPT = 0x200;
inline constexpr CK_FLAGS CKF_DIGEST = 0x400;
inline constexpr CK_FLAGS CKF_SIGN = 0x800;
inline constexpr CK_FLAGS CKF_SIGN_RECOVER = 0x1000;
inline constexpr CK_FLAGS CKF_VERIFY = 0x2000;
inline constexpr CK_FLAGS CKF_VERIFY_RECOVER = 0x4000;
inline constexpr CK_FLAGS CKF_GENERATE = 0x8000;
inline constexpr CK_FLAGS CKF_GENERATE_KEY_PAIR = 0x10000;
inline constexpr CK_FLAGS CKF_WRAP = 0x20000;
inline constexpr CK_FLAGS CKF_UNWRAP = 0x40000;
inline constexpr CK_FLAGS CKF_DERIVE = 0x80000;

enum class MechanismFamily { rsa, ec, hmac, digest, keyGeneration };

struct MechanismRow {
    CK_MECHANISM_TYPE type;
    CK_ULONG minKeySize;
    CK_ULONG maxKeySize;
    CK_FLAGS flags;
    MechanismFamily family;
    CK_ULONG hashLength;  // bytes; of a digest, an HMAC, or the hash inside a signature; 0: none
};

inline constexpr CK_FLAGS kSignAndVerify = CKF_SIGN | CKF_VERIFY;
inline constexpr CK_FLAGS kRawRsa = CKF_HW | CKF_ENCRYPT | CKF_DECRYPT | kSignAndVerify |
                                    CKF_SIGN_RECOVER | CKF_VERIFY_RECOVER | CKF_WRAP | CKF_UNWRAP;

// In the order in which C_GetMechanismList returns them; intentionally not sorted.
inline constexpr MechanismRow kMechanisms[] = {
    {CKM_ECDSA, 161, 571, CKF_HW | kSignAndVerify, MechanismFamily::ec, 0},
    {CKM_ECDH1_DERIVE, 163, 569, CKF_HW | CKF_DERIVE, MechanismFamily::ec, 0},
    {CKM_EC_KEY_PAIR_GEN, 165, 567, CKF_HW | CKF_GENERATE_KEY_PAIR, MechanismFamily::keyGeneration,
     0},
    {CKM_RSA_PKCS, 1013, 8191, kRawRsa, MechanismFamily::rsa, 0},
    {CKM_RSA_X_509, 1015, 8189, kRawRsa, MechanismFamily::rsa, 0},
    {CKM_RSA_PKCS_OAEP, 1017, 8187, CKF_HW | CKF_ENCRYPT | CKF_DECRYPT, MechanismFamily::rsa, 0},
    {CKM_RSA_PKCS_PSS, 1019, 8185, CKF_HW | kSignAndVerify, MechanismFamily::rsa, 0},
    {CKM_SHA1_RSA_PKCS, 1021, 8183, kSignAndVerify, MechanismFamily::rsa, 20},
    {CKM_SHA256_RSA_PKCS, 1023, 8181, kSignAndVerify, MechanismFamily::rsa, 32},
    {CKM_SHA384_RSA_PKCS, 1025, 8179, kSignAndVerify, MechanismFamily::rsa, 48},
    {CKM_SHA512_RSA_PKCS, 1027, 8177, kSignAndVerify, MechanismFamily::rsa, 64},
    {CKM_RSA_PKCS_KEY_PAIR_GEN, 1029, 8175, CKF_HW | CKF_GENERATE_KEY_PAIR,
     MechanismFamily::keyGeneration, 0},
    {CKM_SHA_1, 0, 0, CKF_DIGEST, MechanismFamily::digest, 20},
    {CKM_SHA256, 0, 0, CKF_DIGEST, MechanismFamily::digest, 32},
    {CKM_SHA384, 0, 0, CKF_DIGEST, MechanismFamily::digest, 48},
    {CKM_SHA512, 0, 0, CKF_DIGEST, MechanismFamily::digest, 64},
    {CKM_SHA_1_HMAC, 3, 509, kSignAndVerify, MechanismFamily::hmac, 20},
    {CKM_SHA256_HMAC, 5, 511, kSignAndVerify, MechanismFamily::hmac, 32},
    {CKM_SHA384_HMAC, 7, 513, kSignAndVerify, MechanismFamily::hmac, 48},
    {CKM_SHA512_HMAC, 9, 515, kSignAndVerify, MechanismFamily::hmac, 64},
    {CKM_GENERIC_SECRET_KEY_GEN, 11, 517, CKF_GENERATE, MechanismFamily::keyGeneration, 0},
};

inline constexpr const MechanismRow* mechanismRow(CK_MECHANISM_TYPE type)
{
    for (const MechanismRow& row : kMechanisms) {
        if (row.type == type)
            return &row;
    }
    return nullptr;
}

// The hash's length in bytes: see MechanismRow; 0 for an unknown mechanism.
inline constexpr CK_ULONG hashLengthOf(CK_MECHANISM_TYPE type)
{
    const MechanismRow* row = mechanismRow(type);
    return row == nullptr ? 0 : row->hashLength;
}

// `length` bytes that depend on every byte of `data` and on the mechanism:
//   h = mechanism; for each byte b: h = h * 31 + b + 1 (32 bits);
//   byte i = (byte i mod 4 of h, lowest first) xor (0x5A + 3 * i)
inline Bytes pattern(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data, size_t length)
{
    uint32_t h = mechanism;
    for (const CK_BYTE b : data)
        h = h * 31 + b + 1;

    Bytes result(length);
    for (size_t i = 0; i < length; ++i)
        result[i] = static_cast<CK_BYTE>((h >> (8 * (i % 4))) ^ (0x5A + 3 * i));
    return result;
}

// The result of an operation without meaningful output.
inline constexpr CK_BYTE kOperationState[] = {0x57, 0xA7, 0x0E, 0x13, 0x99};
inline constexpr CK_BYTE kWrappedKey[] = {0x3B, 0xAD, 0xC0, 0xDE, 0x71, 0x05, 0xE9};
inline constexpr CK_BYTE kRecoveredData[] = {0x2E, 0xC0, 0x7E, 0x2D};
inline constexpr CK_BYTE kDualOutput[] = {0xD0, 0x0A, 0x17};
inline constexpr CK_MECHANISM_TYPE kRandomTag = 0x4A2D0;  // random bytes: pattern(tag, {}, length)
inline constexpr CK_MECHANISM_TYPE kKeyTag = 0x6E4E7;  // generated keys: pattern(tag, {}, length)

// The agreed secret repeats these bytes, unless a test sets others.
inline constexpr CK_BYTE kSecretPattern[] = {0xC3, 0x5A, 0x17, 0xE1, 0x8D};

inline Bytes repeated(std::span<const CK_BYTE> bytes, size_t length)
{
    Bytes result(length);
    for (size_t i = 0; i < length && !bytes.empty(); ++i)
        result[i] = bytes[i % bytes.size()];
    return result;
}

// The named curves of the token: CKA_EC_PARAMS and the coordinate size in bytes.
inline constexpr CK_BYTE kCurveP256[] = {0x06, 0x08, 0x2A, 0x86, 0x48,
                                         0xCE, 0x3D, 0x03, 0x01, 0x07};
inline constexpr CK_BYTE kCurveP384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};
inline constexpr CK_BYTE kCurveP521[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23};

struct CurveRow {
    std::span<const CK_BYTE> parameters;
    CK_ULONG coordinateSize;
};

inline constexpr CurveRow kCurves[] = {{kCurveP256, 32}, {kCurveP384, 48}, {kCurveP521, 66}};

}  // namespace NV::test
