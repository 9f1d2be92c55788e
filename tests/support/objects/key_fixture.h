// What the tests of key objects, key store and certificate store share: the scripted token with one
// RSA and one EC key pair, the call layer loaded on it, the captured log, and the six token
// operations behind one call. Used by all files of this folder.

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_rsa.h"
#include "log_capture.h"
#include "p11/p11.h"
#include "scripted_token.h"

namespace NV::test {

// Certificates of the build: the DER encoding, and the content of the public key's bit string.
Bytes certificateDer(const std::string& name);
Bytes certificateKey(const std::string& name);

// A0 A1 A2 ...; used as hashes and messages.
Bytes someBytes(size_t length);

// The numbers of the step headings in the order of the lines: "0 1 2 4 5".
std::string headings(const LogLines& lines);

// Messages of the lines with a level, each with a line feed.
std::string messages(const LogLines& lines, std::string_view level);

enum class Operation { rsaSign, rsaVerify, rsaEncrypt, rsaDecrypt, ecSign, ecVerify };

// The function whose name the operation's lines carry: "NV::P11RSAKeyObject::sign".
std::string functionOf(Operation operation);

class KeyTest : public testing::Test {
protected:
    KeyTest();

    // What follows starts with no recorded calls, no log lines and the next session.
    void forget();

    static SecretBytes pin(std::string_view text = kPin) { return {text.begin(), text.end()}; }
    static std::unique_ptr<P11RSAKeyObject> makeRsaKey(const wchar_t* name = L"01AB",
                                                       const std::string& fixture = "rsa2048",
                                                       uint32_t bits = 2048);
    static std::unique_ptr<P11ECKeyObject> makeEcKey(const wchar_t* name = L"0256",
                                                     const std::string& fixture = "p256",
                                                     uint32_t bits = 256);

    struct Run {
        Operation operation;
        DWORD flags = 0;
        void* padding = nullptr;
        Bytes input = someBytes(32);   // hash, plain text or cipher text
        Bytes signature = Bytes(256);  // to be verified
        size_t room = 256;             // of the output buffer; 0: no buffer
    };
    struct Result {
        SECURITY_STATUS status = 0;
        Bytes output;         // the whole buffer, filled with EE before
        DWORD length = 0xEE;  // what the operation wrote as result length
    };
    Result run(Run what);

    // Only the operation's own lines of the last run.
    LogLines linesOf(Operation operation)
    {
        return ofFunction(log.takeLines(), functionOf(operation));
    }

    ScriptedToken token;
    LogCapture log;
    Pkcs11 p11;
    KeyPair rsaPair{};  // 0xB1 and 0xB2, CKA_ID 01AB, 2048 bits
    KeyPair ecPair{};   // 0xB3 and 0xB4, CKA_ID 0256, P-256
    std::unique_ptr<P11KeyObject> rsa;
    std::unique_ptr<P11KeyObject> ec;
};

}  // namespace NV::test
