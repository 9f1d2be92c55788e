// The module with the scripted token, and its log piece by piece. For the tests of this folder.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"

namespace NV::test {

inline constexpr wchar_t kProviderName[] = L"Norvanta Software KeyStore Provider";

// A value that is no provider's address; the first is for handles that become known to the
// registry, the second for those that stay unknown.
inline constexpr NCRYPT_PROV_HANDLE kStrangeHandle = 0x7391;
inline constexpr NCRYPT_PROV_HANDLE kUnknownHandle = 0x52D7;

// The operations in the order of the table.
inline constexpr std::array<const char*, 26> kOperations = {"OpenProvider",
                                                            "OpenKey",
                                                            "CreatePersistedKey",
                                                            "GetProviderProperty",
                                                            "GetKeyProperty",
                                                            "SetProviderProperty",
                                                            "SetKeyProperty",
                                                            "FinalizeKey",
                                                            "DeleteKey",
                                                            "FreeProvider",
                                                            "FreeKey",
                                                            "FreeBuffer",
                                                            "Encrypt",
                                                            "Decrypt",
                                                            "IsAlgSupported",
                                                            "EnumAlgorithms",
                                                            "EnumKeys",
                                                            "ImportKey",
                                                            "ExportKey",
                                                            "SignHash",
                                                            "VerifySignature",
                                                            "PromptUser",
                                                            "NotifyChangeKey",
                                                            "SecretAgreement",
                                                            "DeriveKey",
                                                            "FreeSecret"};

class RegistryTest : public testing::Test {
protected:
    RegistryTest() { profile_.writeConfigFor(ScriptedToken::widePath()); }

    // Loads the module, with the profile as it is by now.
    ProviderModule& module()
    {
        if (!module_) {
            module_.emplace();
            takeLines();
        }
        return *module_;
    }
    void unload() { module_.reset(); }

    // The lines since the last call.
    LogLines takeLines()
    {
        LogLines lines = withoutBanner(profile_.log());
        const size_t all = lines.size();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(taken_));
        taken_ = all;
        return lines;
    }

    SECURITY_STATUS open(NCRYPT_PROV_HANDLE& handle, const wchar_t* name = kProviderName)
    {
        return module()->OpenProvider(&handle, name, 0);
    }

    // A query that answers 0 for every working provider.
    SECURITY_STATUS use(NCRYPT_PROV_HANDLE handle)
    {
        return module()->IsAlgSupported(handle, L"RSA", 0);
    }

    Profile profile_;
    ScriptedToken token_;

private:
    std::optional<ProviderModule> module_;
    size_t taken_ = 0;
};

}  // namespace NV::test
