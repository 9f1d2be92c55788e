// What the tests of this folder share: the module on the scripted token in a profile of its own,
// certificates, and the log since the last look.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "config/mode.h"
#include "profile.h"
#include "provider_module.h"
#include "scripted_token.h"
#include "trace_log.h"

namespace NV::test {

// Certificates of the build, and the content of the public key's bit string.
Bytes certificateDer(const std::string& name);
Bytes certificateKey(const std::string& name);
// The same certificate with another serial number: another certificate to the system, and one that
// no other run has published.
Bytes certificateWithSerial(const std::string& name, uint32_t serial);

// A0 A1 A2 ...; used as hashes and messages.
Bytes someBytes(size_t length);

// Messages of the lines with a level, each with a line feed.
std::string messages(const LogLines& lines, std::string_view level);

// Level and message of the lines, masked, each with a line feed.
std::string levelsAndMessages(const LogLines& lines);

inline SECURITY_STATUS status(HRESULT code)
{
    return code;
}

class ModuleTest : public testing::Test {
protected:
    explicit ModuleTest(Behaviour behaviour = Behaviour::classic);

    // Loads the module and opens a provider; what follows starts without calls and log lines.
    void start();
    void forget();
    // The log lines since the last look, without the banner.
    LogLines takeLines();
    // Those of one function.
    LogLines linesOf(const std::string& function) { return ofFunction(takeLines(), function); }

    const ProviderModule& table() const { return *module; }
    NCRYPT_PROV_HANDLE handle() const { return provider->handle(); }
    NCRYPT_KEY_HANDLE openKey(const wchar_t* name) const { return provider->openKey(name); }

    ScriptedToken token;
    Profile profile;
    std::optional<ProviderModule> module;
    std::optional<OpenedProvider> provider;

private:
    size_t taken_ = 0;
};

// A provider with an RSA key "01AB" (certificate 0xB1, keys 0xB2 and 0xB3) and a P-256 key "0256"
// (0xB4 to 0xB6), both opened.
class ServedKeysTest : public ModuleTest {
protected:
    // Without a log, what a test measures is the module's own.
    explicit ServedKeysTest(bool withLog = true, Behaviour behaviour = Behaviour::classic);

    // What every refused operation must leave as it was: a buffer with EE on both sides and inside,
    // and a result length.
    struct Output {
        Bytes bytes = Bytes(600, 0xEE);
        DWORD length = 0xEEEE;

        BYTE* at(size_t offset = 100) { return bytes.data() + offset; }
        bool untouched() const { return bytes == Bytes(600, 0xEE) && length == 0xEEEE; }
        // Only this many bytes from `offset` on have been written.
        bool onlyWritten(size_t count, size_t offset = 100) const;
    };

    Bytes encryptPkcs1(Bytes input);

    NCRYPT_KEY_HANDLE rsa = 0;
    NCRYPT_KEY_HANDLE ec = 0;
    Bytes hash = someBytes(32);
};

// The same with the modern behaviour.
class ModernModuleTest : public ModuleTest {
protected:
    ModernModuleTest() : ModuleTest(Behaviour::modern) {}
};

class ModernKeysTest : public ServedKeysTest {
protected:
    ModernKeysTest() : ServedKeysTest(true, Behaviour::modern) {}
};

}  // namespace NV::test
