// A provider object with one RSA key, without the DLL around it: no module instance, and so no PIN
// dialog. Used by memory_test.cpp and nvvtoken_test.cpp.

#pragma once

#include <memory>
#include <stdexcept>

#include "config/config.h"
#include "key_fixture.h"
#include "nvvtoken/nvvtoken.h"

namespace NV::test {

class ProviderTest : public testing::Test {
protected:
    ProviderTest()
    {
        const TemporaryFolder folder;
        const std::filesystem::path file = folder.path() / "provider.conf";
        writeFile(file, "p11File=" + ScriptedToken::path() + "\n");
        Config::instance().load(narrowPath(file));
        token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
        token.addRsaKeyPair({0x01, 0xAB}, 2048);
        provider = std::make_unique<Provider>();
        if (!provider->init())
            throw std::runtime_error("the provider does not initialise");
    }

    ScriptedToken token;
    LogCapture log;
    std::unique_ptr<Provider> provider;
};

}  // namespace NV::test
