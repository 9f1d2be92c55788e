// The module, opened twice, on a scripted token with an EC key and an RSA key, and short ways to its
// operations on secrets. Made once for all tests of a suite. Used by all files of this folder.

#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dialog_driver.h"
#include "folder.h"
#include "guarded_bytes.h"
#include "peer_key.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

inline constexpr wchar_t userPin[] = L"odd-PIN-7391";

// What output arguments hold before a call.
inline constexpr ULONG_PTR untouched = 0x7391;

inline constexpr SECURITY_STATUS success = ERROR_SUCCESS;

class SecretsModule {
public:
    SecretsModule() = default;
    ~SecretsModule()
    {
        if (secret != 0) {
            EXPECT_EQ(success, module->FreeSecret(first.handle(), secret));
        }
    }
    SecretsModule(const SecretsModule&) = delete;
    SecretsModule& operator=(const SecretsModule&) = delete;

    // The lines since the last call.
    LogLines takeLines()
    {
        const LogLines all = withoutBanner(profile.log());
        LogLines fresh(all.begin() + static_cast<std::ptrdiff_t>(taken_), all.end());
        taken_ = all.size();
        return fresh;
    }

    Profile profile;
    ScriptedToken token;
    ProviderModule module = loaded();
    OpenedProvider first{module};
    OpenedProvider second{module};
    NCRYPT_KEY_HANDLE key = first.openKey(L"0256");
    NCRYPT_KEY_HANDLE keyOfSecond = second.openKey(L"0256");
    NCRYPT_KEY_HANDLE rsaKey = first.openKey(L"01AB");
    NCRYPT_SECRET_HANDLE secret = 0;  // that the tests of a suite share, if they do

private:
    // The module, after the token has its keys and the profile its configuration.
    ProviderModule loaded()
    {
        addKey("p256", {0x02, 0x56});
        addKey("rsa2048", {0x01, 0xAB});
        token.addEcKeyPair({0x02, 0x56}, 32);
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        profile.writeConfigFor(ScriptedToken::widePath());
        return ProviderModule();
    }

    void addKey(const std::string& certificate, const Bytes& id)
    {
        const std::string der =
            readFile(std::filesystem::path(CERTIFICATES) / (certificate + ".der"));
        token.addCertificate(id, Bytes(der.begin(), der.end()));
    }

    size_t taken_ = 0;
};

class SecretsTest : public testing::Test {
protected:
    static void SetUpTestSuite() { shared_ = std::make_unique<SecretsModule>(); }
    static void TearDownTestSuite() { shared_.reset(); }

    SecretsTest() { forget(); }
    ~SecretsTest() override { token().clearFaults(); }

    // What follows starts with no recorded calls and no log lines.
    void forget()
    {
        token().clearCalls();
        shared_->takeLines();
    }

    ScriptedToken& token() { return shared_->token; }
    const ProviderModule& module() { return shared_->module; }
    NCRYPT_PROV_HANDLE provider() { return shared_->first.handle(); }
    NCRYPT_PROV_HANDLE otherProvider() { return shared_->second.handle(); }
    NCRYPT_KEY_HANDLE key() { return shared_->key; }
    NCRYPT_KEY_HANDLE keyOfOther() { return shared_->keyOfSecond; }
    NCRYPT_KEY_HANDLE rsaKey() { return shared_->rsaKey; }

    // Level and message of each line of the provider's function since the last time, masked. STATUS
    // and LEAVE are left out, and so are ENTER and the arguments.
    std::string said(const std::string& operation)
    {
        std::string text;
        for (const LogLine& line : ofFunction(shared_->takeLines(), "NV::Provider::" + operation)) {
            const bool frame = line.message == "ENTER" || line.message == "LEAVE" ||
                               line.message.starts_with("ARG[") ||
                               line.message.starts_with("STATUS=");
            if (!frame)
                text += line.level + " " + masked(line.message) + "\n";
        }
        return text;
    }

    LogLines takeLines() { return shared_->takeLines(); }

    // A secret that all tests of the suite share.
    NCRYPT_SECRET_HANDLE sharedSecret()
    {
        if (shared_->secret == 0)
            shared_->secret = agree();
        return shared_->secret;
    }

    // The handle of an import that must answer 0.
    NCRYPT_KEY_HANDLE import(const Bytes& blob, const wchar_t* type = BCRYPT_ECCPUBLIC_BLOB)
    {
        const GuardedBytes guarded(blob);
        NCRYPT_KEY_HANDLE handle = untouched;
        EXPECT_EQ(success, module()->ImportKey(provider(), 0, type, nullptr, &handle,
                                               guarded.data(), guarded.size(), 0));
        return handle;
    }
    NCRYPT_KEY_HANDLE importPeer() { return import(peerBlob(ecdhP256, 32)); }

    // A secret that the first provider agreed, with the PIN by the dialog.
    NCRYPT_SECRET_HANDLE agree()
    {
        const NCRYPT_KEY_HANDLE peer = importPeer();
        NCRYPT_SECRET_HANDLE secret = 0;
        const DialogDriver driver(DialogDriver::entering(userPin));
        EXPECT_EQ(success, module()->SecretAgreement(provider(), key(), peer, &secret, 0));
        EXPECT_EQ(success, module()->FreeKey(provider(), peer));
        return secret;
    }

private:
    static inline std::unique_ptr<SecretsModule> shared_;
};

// The scripted token's agreed secret for P-256.
inline Bytes agreedBytes()
{
    return repeated(kSecretPattern, 32);
}

}  // namespace NV::test
