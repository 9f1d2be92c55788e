// Each token operation twice: through the module's table, and as the same PKCS#11 calls written
// bare. For the benchmarks that compare the two.

#pragma once

#include <span>
#include <string>
#include <vector>

#include "bare_token.h"
#include "linked_module.h"

namespace NV::bench {

// An RSA-2048 and a P-256 key of one token, opened through one provider.
class Operations {
public:
    // The names are the keys' CKA_IDs in hexadecimal. Runs every operation once in both ways, and
    // throws std::runtime_error if one fails or the results differ. Without `bare`, runs them through
    // the module alone.
    Operations(const LinkedModule& module, const OpenProvider& provider, BareToken* bare,
               const wchar_t* rsaName, const wchar_t* ecName);
    ~Operations();
    Operations(const Operations&) = delete;
    Operations& operator=(const Operations&) = delete;

    struct Row {
        const char* name;
        void (Operations::*throughModule)();
        void (Operations::*bare)();
    };
    static std::span<const Row> rows();

    // Asks for the length of a decryption.
    void decryptedLength();

private:
    void rsaSign();
    void rsaSignBare();
    void rsaVerify();
    void rsaVerifyBare();
    void rsaEncrypt();
    void rsaEncryptBare();
    void rsaDecrypt();
    void rsaDecryptBare();
    void ecSign();
    void ecSignBare();
    void ecVerify();
    void ecVerifyBare();
    void deriveKey();
    void deriveKeyBare();

    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags, const Bytes& hash,
                         Bytes& signature);
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, void* padding, DWORD flags, const Bytes& hash,
                           const Bytes& signature);
    void importPeer();
    void runOnce();
    void expectSameResults();

    const LinkedModule& module_;
    NCRYPT_PROV_HANDLE provider_;
    BareToken* bare_;
    NCRYPT_KEY_HANDLE rsa_;
    NCRYPT_KEY_HANDLE ec_;
    NCRYPT_KEY_HANDLE peer_ = 0;
    Bytes rsaId_;
    Bytes ecId_;
    Bytes hash_;
    Bytes digestInfo_;  // of the hash
    Bytes peerPoint_;
    // The latest output of each of the two ways.
    struct Written {
        Bytes rsaSignature = Bytes(256);
        Bytes ecSignature = Bytes(64);
        Bytes cipher = Bytes(256);
        Bytes plain = Bytes(256);
        Bytes derived = Bytes(32);
    };
    Written moduleWrote_;
    Written bareWrote_;
};

}  // namespace NV::bench
