// The base of all tests with a real token: a profile, the module, an opened provider on the token
// that make-token.sh made, and its operations with results as values.

#pragma once

#include "base/cng.h"

#include <gtest/gtest.h>

#include <string>

#include "base/encoding.h"
#include "config/mode.h"
#include "dialog_driver.h"
#include "openssl.h"
#include "padding.h"
#include "profile.h"
#include "provider_module.h"
#include "token_keys.h"

namespace NV::test {

// The host path of the folder that make-token.sh made, or the one that KEYWARDEN_TOKEN_FOLDER names, and
// the user PIN of the token.
std::string tokenFolder();
// The same keys without public key objects, on another token.
std::string tokenFolderWithoutPublicKeys();
inline constexpr wchar_t tokenPin[] = L"keywarden-pin-4711";

// A status and the output of the operation: as many bytes as it reports. The caller's buffer ends
// after them or at its given size; a write past the end fails the test.
struct Outcome {
    SECURITY_STATUS status = 0;
    Bytes bytes;
};

// A profile for the module and a copy of the token for the library. Made before the module is
// loaded, because both read them when they load.
class TokenProfile {
public:
    // The folder that make-token.sh made.
    explicit TokenProfile(const std::string& made = tokenFolder(),
                          Behaviour behaviour = Behaviour::classic);

    const Profile& profile() const { return profile_; }

private:
    TemporaryFolder token_;
    Profile profile_;
};

// A key opened through the provider's table; the destructor closes it.
class OpenedKey {
public:
    OpenedKey(const ProviderModule& module, NCRYPT_PROV_HANDLE provider, const wchar_t* name);
    ~OpenedKey();
    OpenedKey(const OpenedKey&) = delete;
    OpenedKey& operator=(const OpenedKey&) = delete;

    // Operations. The dialog is the user's answer.
    Outcome sign(Padding padding, const Bytes& hash,
                 const DialogDriver::Script& dialog = DialogDriver::entering(tokenPin)) const;
    // With a buffer of this size.
    Outcome signInto(DWORD cbSignature, Padding padding, const Bytes& hash,
                     const DialogDriver::Script& dialog) const;
    SECURITY_STATUS verify(Padding padding, const Bytes& hash, const Bytes& signature) const;
    Outcome encrypt(Padding padding, const Bytes& plain) const;
    Outcome decrypt(Padding padding, const Bytes& cipher, DWORD cbOutput,
                    const DialogDriver::Script& dialog = DialogDriver::entering(tokenPin)) const;

    // The length query; no dialog is expected.
    DWORD signatureLength(Padding padding, const Bytes& hash) const;

    Outcome exported(const wchar_t* blobType) const;
    Outcome property(const wchar_t* name) const;

    NCRYPT_KEY_HANDLE handle() const { return handle_; }

private:
    const ProviderModule& module_;
    NCRYPT_PROV_HANDLE provider_;
    NCRYPT_KEY_HANDLE handle_ = 0;
};

// One profile, module and provider for all cases of a suite. A case does not affect the others,
// because every operation on the token is complete in itself.
class TokenTest : public testing::Test {
public:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

protected:
    // For the SetUpTestSuite of other suites.
    static void openToken(const std::string& made, Behaviour behaviour);
    static const ProviderModule& module();
    static NCRYPT_PROV_HANDLE provider();
    static OpenedKey open(const TokenKey& key) { return {module(), provider(), key.name}; }
    static const OpenSsl& openSsl();
    static LogLines log();

private:
    struct Opened;
    static Opened& opened();
    static Opened* current_;
};

// The same with the modern behaviour.
class ModernTokenTest : public TokenTest {
public:
    static void SetUpTestSuite() { openToken(tokenFolder(), Behaviour::modern); }
};

// Bytes without a pattern, the same in every run.
Bytes arbitraryBytes(size_t size, unsigned seed = 1);

// The same bytes with one bit of one byte inverted.
Bytes changed(Bytes bytes, size_t position = 0);

}  // namespace NV::test
