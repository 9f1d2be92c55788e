// The user's "My" store after a provider was opened.

#include <windows.h>

#include <wincrypt.h>

#include <memory>

#include "module_fixture.h"

namespace NV::test {

namespace {

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};

constexpr const char* registryKey = "Software\\Microsoft\\SystemCertificates\\My\\Certificates";

class PublicationTest : public ModuleTest {
protected:
    // Wine does not write new provider information over a stored certificate's old one.
    PublicationTest() { RegDeleteTreeA(HKEY_CURRENT_USER, registryKey); }
    ~PublicationTest() override { RegDeleteTreeA(HKEY_CURRENT_USER, registryKey); }

    void openAndClose()
    {
        module.emplace();
        provider.emplace(*module);
        provider.reset();
        module.reset();
    }

    // "container, provider, type, flags, parameters, kind of key" of each certificate of the
    // store with this encoding, a line each.
    static std::string information(const Bytes& der)
    {
        const std::unique_ptr<void, StoreCloser> store(CertOpenSystemStoreW(0, L"My"));
        std::string text;
        PCCERT_CONTEXT each = nullptr;
        while ((each = CertEnumCertificatesInStore(store.get(), each)) != nullptr) {
            if (Bytes(each->pbCertEncoded, each->pbCertEncoded + each->cbCertEncoded) == der)
                text += describe(each);
        }
        return text;
    }

private:
    static std::string describe(PCCERT_CONTEXT certificate)
    {
        DWORD size = 0;
        if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr,
                                               &size))
            return "no information\n";
        std::vector<CRYPT_KEY_PROV_INFO> buffer(size / sizeof(CRYPT_KEY_PROV_INFO) + 1);
        CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(),
                                          &size);
        const CRYPT_KEY_PROV_INFO& info = buffer.front();
        const std::wstring container = info.pwszContainerName;
        const std::wstring name = info.pwszProvName;
        return std::string(container.begin(), container.end()) + ", " +
               std::string(name.begin(), name.end()) + ", " + std::to_string(info.dwProvType) +
               ", " + std::to_string(info.dwFlags) + ", " + std::to_string(info.cProvParam) + ", " +
               std::to_string(info.dwKeySpec) + "\n";
    }
};

}  // namespace

TEST_F(PublicationTest, aCertificateIsThereWithContainerAndProvider)
{
    const Bytes der = certificateWithSerial("rsa2048", 1);
    token.addCertificate(Bytes{0x01, 0xAB}, der);
    EXPECT_EQ("", information(der));
    openAndClose();
    EXPECT_EQ("01AB, Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(der));
}

TEST_F(PublicationTest, everyKindOfCertificateIsThere)
{
    const Bytes ecDer = certificateWithSerial("p384", 2);
    const Bytes otherDer = certificateWithSerial("ed25519", 3);
    const Bytes namelessDer = certificateWithSerial("p256", 4);
    token.addCertificate(someBytes(20), ecDer);
    token.addCertificate(Bytes{0x02}, otherDer);
    token.addCertificate(std::nullopt, namelessDer);
    openAndClose();
    EXPECT_EQ(
        "A0A1A2A3A4A5A6A7A8A9AAABACADAEAFB0B1B2B3, Norvanta Software KeyStore Provider, 0, 0, "
        "0, 2\n",
        information(ecDer));
    EXPECT_EQ("02, Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(otherDer));
    EXPECT_EQ(", Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(namelessDer));
}

TEST_F(PublicationTest, bothCertificatesOfOneIdentifierAreThere)
{
    const Bytes first = certificateWithSerial("p256", 5);
    const Bytes second = certificateWithSerial("p256", 6);
    token.addCertificate(Bytes{0x07}, first);
    token.addCertificate(Bytes{0x07}, second);
    openAndClose();
    EXPECT_EQ("07, Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(first));
    EXPECT_EQ("07, Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(second));
}

TEST_F(PublicationTest, openingAgainAddsNothing)
{
    const Bytes der = certificateWithSerial("rsa2048", 7);
    token.addCertificate(Bytes{0x01, 0xAB}, der);
    openAndClose();
    openAndClose();
    openAndClose();
    // Replaced, not refused.
    EXPECT_EQ("", messages(profile.log(), "ERR"));
    EXPECT_EQ("01AB, Norvanta Software KeyStore Provider, 0, 0, 0, 2\n", information(der));
}

TEST_F(PublicationTest, aBrokenCertificateIsNotThere)
{
    const Bytes broken = {0x30, 0x00};
    token.addCertificate(Bytes{0x01}, broken);
    openAndClose();
    EXPECT_EQ("", information(broken));
}

TEST_F(PublicationTest, nothingIsPublishedFromASlotThatDoesNotQualify)
{
    token.clearSlots();
    token.addSlot(kSlot, kSlotFlags, kTokenFlags & ~CKF_TOKEN_INITIALIZED);
    const Bytes der = certificateWithSerial("p256", 8);
    token.addCertificate(Bytes{0x01}, der);
    openAndClose();
    EXPECT_EQ("", information(der));
}

}  // namespace NV::test
