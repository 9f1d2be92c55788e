// Secret agreement when no PIN was entered: the token is not asked, the status is 0, and nothing is
// stored.

#include "config/config.h"
#include "nvvtoken/nvvtoken.h"
#include "profile.h"
#include "secret_fixture.h"

namespace NV::test {

namespace {

// Without a module instance there is no template, so that the dialog cannot be shown.
TEST(EmptyPin, agreesOnNothingAndSucceeds)
{
    ScriptedToken token;
    const LogCapture log;
    const std::string der = readFile(std::filesystem::path(CERTIFICATES) / L"p256.der");
    token.addCertificate(Bytes{0x02, 0x56}, Bytes(der.begin(), der.end()));
    token.addEcKeyPair({0x02, 0x56}, 32);
    const Profile profile;
    profile.writeConfigFor(ScriptedToken::widePath());
    Config::instance().load(narrowPath(profile.configFile()));
    Config::instance().setModuleInstance(nullptr);
    Provider provider;
    ASSERT_TRUE(provider.init());
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, provider.OpenKey(&key, L"0256", 0, 0));
    token.clearCalls();

    NCRYPT_SECRET_HANDLE secret = untouchedHandle;
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, provider.SecretAgreement(key, key, &secret, 0));
    EXPECT_EQ(untouchedHandle, secret);
    EXPECT_TRUE(token.calls().empty());
    size_t listed = 1;
    SecretList::instance().remove(0, listed);
    EXPECT_EQ(0u, listed);
    const LogLines lines = lastRun(withoutBanner(log.lines()), "NV::Provider::SecretAgreement");
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::SecretAgreement:Success to retrive the entered "
                               "pin = 0 (bytes)"));
    EXPECT_TRUE(ofLevel(lines, "ERR").empty());
}

}  // namespace

}  // namespace NV::test
