// The scripted token with the keys that the shared work needs, and the results that its patterns
// give. Used here and in module/soak.

#pragma once

#include <vector>

#include "child.h"
#include "folder.h"
#include "peer_key.h"
#include "scripted_token.h"
#include "token_work.h"

namespace NV::test {

class ScriptedWork {
public:
    ScriptedWork()
    {
        addRsaKey({0x01, 0xAB});
        addRsaKey({0x5E, 0x01});
        token.addCertificate(Bytes{0x02, 0x56}, certificate("p256.der"));
        token.addEcKeyPair({0x02, 0x56}, 32);
    }

    // Of the build.
    static Bytes certificate(const char* name)
    {
        const std::string der = readFile(programFolder().parent_path() / "fixtures" / name);
        return {der.begin(), der.end()};
    }

    static TokenFacts facts()
    {
        return {.rsaKey = L"01AB",
                .ecKey = L"0256",
                .spareKey = L"5E01",
                .names = {L"01AB", L"0256", L"5E01"},
                .pin = std::wstring(kPin.begin(), kPin.end()),
                .peer = joinedBytes({coordinate(0x11, 32), coordinate(0x61, 32)}),
                .secret = repeated(kSecretPattern, 32)};
    }

    // Of so many callers, each with inputs of its own.
    static std::vector<KnownResults> known(int callers)
    {
        std::vector<KnownResults> all;
        for (int caller = 0; caller < callers; ++caller)
            all.push_back(knownTo(static_cast<unsigned char>(caller)));
        return all;
    }

    ScriptedToken token;

private:
    void addRsaKey(const Bytes& id)
    {
        token.addCertificate(id, certificate("rsa2048.der"));
        token.addRsaKeyPair(id, 2048);
    }

    static KnownResults knownTo(unsigned char caller)
    {
        KnownResults known;
        known.hash = coordinate(caller, 32);
        known.rsaSignature = signatureOf(CKM_RSA_PKCS, known.hash, 256);
        known.ecSignature = signatureOf(CKM_ECDSA, known.hash, 64);
        known.plain = Bytes(256, caller);
        // Raw encryption turns each byte by the pattern of nothing.
        known.cipher = pattern(0, {}, 256);
        for (unsigned char& byte : known.cipher)
            byte ^= caller;
        known.prepend = coordinate(caller, 7);
        const Bytes input = joinedBytes({known.prepend, facts().secret});
        known.digest = digestOf(CKM_SHA256, input);
        known.hmacKey = coordinate(caller, 40);
        known.hmac = hmacOf(CKM_SHA256_HMAC, known.hmacKey, input);
        return known;
    }
};

}  // namespace NV::test
