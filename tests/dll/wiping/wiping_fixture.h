// The shipped module, watched, on a scripted token with an RSA key and an EC key, with its log on.
// Made once for all tests of a suite. Used by the tests of this folder.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "child.h"
#include "dialog_driver.h"
#include "folder.h"
#include "module_memory.h"
#include "peer_key.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

class WatchedModule {
public:
    WatchedModule()
    {
        Bytes blob = peerBlob(ecdhP256, 32);
        EXPECT_EQ(ERROR_SUCCESS,
                  module->ImportKey(provider.handle(), 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &peer,
                                    blob.data(), static_cast<DWORD>(blob.size()), 0));
    }

    Profile profile;
    ScriptedToken token;
    ProviderModule module = loaded();
    ModuleMemory memory{module.handle()};
    OpenedProvider provider{module};
    NCRYPT_KEY_HANDLE ecKey = provider.openKey(L"0256");
    NCRYPT_KEY_HANDLE rsaKey = provider.openKey(L"01AB");
    NCRYPT_KEY_HANDLE peer = 0;

private:
    // The module, after the token has its keys and the profile its configuration.
    ProviderModule loaded()
    {
        addKey("p256", {0x02, 0x56});
        addKey("rsa2048", {0x01, 0xAB});
        token.addEcKeyPair({0x02, 0x56}, 32);
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        profile.writeConfigFor(ScriptedToken::widePath());
        return ProviderModule(shippedModule());
    }

    // Without the checks that the tests' own build carries; another one by KEYWARDEN_MODULE.
    static std::filesystem::path shippedModule()
    {
        const wchar_t* other = _wgetenv(L"KEYWARDEN_MODULE");
        return other != nullptr ? other : programFolder() / L"nvksprovider.dll";
    }

    void addKey(const std::string& certificate, const Bytes& id)
    {
        const std::string der =
            readFile(std::filesystem::path(CERTIFICATES) / (certificate + ".der"));
        token.addCertificate(id, Bytes(der.begin(), der.end()));
    }
};

class WatchedTest : public testing::Test {
protected:
    static void SetUpTestSuite() { shared_ = std::make_unique<WatchedModule>(); }
    static void TearDownTestSuite() { shared_.reset(); }

    WatchedTest() { memory().forget(); }
    ~WatchedTest() override { token().clearFaults(); }

    ScriptedToken& token() { return shared_->token; }
    ModuleMemory& memory() { return shared_->memory; }
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table() { return *shared_->module.operator->(); }
    NCRYPT_PROV_HANDLE provider() { return shared_->provider.handle(); }
    NCRYPT_KEY_HANDLE ecKey() { return shared_->ecKey; }
    NCRYPT_KEY_HANDLE rsaKey() { return shared_->rsaKey; }
    NCRYPT_KEY_HANDLE peer() { return shared_->peer; }

    // The bytes, and their hexadecimal text of either case. At least eight bytes, not to be met by
    // chance.
    void lookForBytes(const std::string& name, std::span<const unsigned char> bytes)
    {
        memory().lookFor(name, bytes);
        std::string hex = hexEncode(Bytes(bytes.begin(), bytes.end()));
        memory().lookFor("hexadecimal " + name, std::string_view(hex));
        std::ranges::transform(hex, hex.begin(), [](char c) {
            return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
        });
        memory().lookFor("small hexadecimal " + name, std::string_view(hex));
    }

private:
    static inline std::unique_ptr<WatchedModule> shared_;
};

}  // namespace NV::test
