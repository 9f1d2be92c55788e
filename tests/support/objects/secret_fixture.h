// What the tests of agreement and derivation share: the scripted token with an EC key pair of each
// curve, the call layer loaded on it, the captured log, and both operations behind one call each.
// Used by all files of this folder.

#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "keystore/keystore.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_secret.h"
#include "log_capture.h"
#include "p11/p11.h"
#include "peer_key.h"
#include "scripted_token.h"

namespace NV::test {

inline constexpr std::string_view agreementFunction = "NV::P11ECKeyObject::secretAgreement";
inline constexpr std::string_view derivationFunction = "NV::KeyStore::derive";

// What *phAgreedSecret and *pcbResult hold before a call.
inline constexpr NCRYPT_SECRET_HANDLE untouchedHandle = 0x7391;
inline constexpr DWORD untouchedLength = 0x7391;
// What fills output buffers before a call.
inline constexpr unsigned char untouchedByte = 0xEE;

// Level and message of each line, masked, each with a line feed.
std::string spoken(const LogLines& lines);

inline SecretBytes secretBytes(const Bytes& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// The agreed secret of the scripted token.
inline Bytes agreedSecret(size_t length)
{
    return repeated(kSecretPattern, length);
}

// Puts a new secret with these bytes into the list of the process.
NCRYPT_SECRET_HANDLE addToList(const Bytes& bytes);

// How many secrets the list contains.
size_t listSize();

struct Agreement {
    SECURITY_STATUS status = 0;
    OwnedSecret secret;          // null unless the status is 0
    bool handleWritten = false;  // whether *phAgreedSecret was
};

struct DerivationRun {
    const wchar_t* hash = L"SHA256";
    bool hmac = false;
    Bytes secret = {0x51, 0x52, 0x53};
    Bytes hmacKey = {};
    Bytes prepend = {};
    Bytes append = {};
    DWORD room = 64;  // of the output buffer
    bool query = false;
};

struct Derived {
    SECURITY_STATUS status = 0;
    DWORD length = untouchedLength;
    Bytes output;  // the buffer with as many guard bytes behind it
};

class SecretTest : public testing::Test {
protected:
    SecretTest();

    // What follows starts with no recorded calls and no log lines.
    void forget();

    static SecretBytes pin() { return {kPin.begin(), kPin.end()}; }

    // With the key pair whose CKA_ID is 0256, 0384 or 0521, and a peer on the same curve.
    Agreement agree(const wchar_t* keyId = L"0256", size_t coordinateSize = 32);
    Derived derive(const DerivationRun& run);

    std::string agreementLines() { return spoken(ofFunction(log.takeLines(), agreementFunction)); }
    std::string derivationLines()
    {
        return spoken(ofFunction(log.takeLines(), derivationFunction));
    }

    // The library's list as the call layer calls it; a test may replace an entry.
    CK_FUNCTION_LIST& library() { return *p11.module()->functionList(); }

    ScriptedToken token;
    LogCapture log;
    Pkcs11 p11;
    KeyPair p256{};  // 0xB1 and 0xB2
    KeyPair p384{};  // 0xB3 and 0xB4
    KeyPair p521{};  // 0xB5 and 0xB6
    KeyStore store;
};

}  // namespace NV::test
