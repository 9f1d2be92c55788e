#include "router_fixture.h"

#include <cstring>
#include <string>

#include "nvvtoken/nvvtoken_name.h"

namespace NV::test {

std::wstring Answer::text() const
{
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return text.substr(0, text.find(L'\0'));
}

DWORD Answer::number() const
{
    DWORD value = 0;
    EXPECT_EQ(bytes.size(), sizeof value);
    if (bytes.size() == sizeof value)
        std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

namespace {

Bytes certificate(const char* name, uint32_t serial)
{
    return serial != 0 ? certificateWithSerial(name, serial) : certificateDer(name);
}

}  // namespace

RouterTest::RouterTest(uint32_t serial)
    : rsaCertificate(certificate("rsa2048", serial)), ecCertificate(certificate("p256", serial))
{
    if (modern())
        profile.writeModernConfigFor(ScriptedToken::widePath());
    else
        profile.writeConfigFor(ScriptedToken::widePath());
    token.addCertificate(Bytes{0x01, 0xAB}, rsaCertificate);
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    token.addCertificate(Bytes{0x02, 0x56}, ecCertificate);
    token.addEcKeyPair({0x02, 0x56}, 32);
    EXPECT_EQ(NCryptOpenStorageProvider(provider.out(), providerName, 0), ERROR_SUCCESS);
    token.clearCalls();
}

Answer RouterTest::property(NCRYPT_HANDLE object, const wchar_t* name)
{
    Answer answer;
    answer.status = NCryptGetProperty(object, name, nullptr, 0, &answer.length, 0);
    if (answer.status != ERROR_SUCCESS)
        return answer;
    answer.bytes.resize(answer.length);
    // A byte even for an empty value, so that it is no size query.
    BYTE none = 0;
    answer.status =
        NCryptGetProperty(object, name, answer.length != 0 ? answer.bytes.data() : &none,
                          answer.length, &answer.length, 0);
    return answer;
}

Answer RouterTest::exported(NCRYPT_KEY_HANDLE key, const wchar_t* blobType)
{
    Answer answer;
    answer.status = NCryptExportKey(key, 0, blobType, nullptr, nullptr, 0, &answer.length, 0);
    if (answer.status != ERROR_SUCCESS)
        return answer;
    answer.bytes.resize(answer.length);
    answer.status = NCryptExportKey(key, 0, blobType, nullptr, answer.bytes.data(), answer.length,
                                    &answer.length, 0);
    return answer;
}

Answer RouterTest::sign(NCRYPT_KEY_HANDLE key, DWORD room, const DialogDriver::Script& script,
                        DWORD moreFlags)
{
    const DialogDriver driver(script);
    return callSignHash(key, room, moreFlags);
}

Answer RouterTest::signWithoutDialog(NCRYPT_KEY_HANDLE key, DWORD room, DWORD moreFlags)
{
    const DialogDriver none(DialogDriver::cancelling(), 0);
    return callSignHash(key, room, moreFlags);
}

Answer RouterTest::callSignHash(NCRYPT_KEY_HANDLE key, DWORD room, DWORD moreFlags)
{
    const Answer group = property(key, NCRYPT_ALGORITHM_GROUP_PROPERTY);
    const bool rsa = group.text() == L"RSA";
    Answer answer;
    answer.bytes.resize(room);
    answer.status =
        NCryptSignHash(key, rsa ? &pkcs1 : nullptr, hash.data(), static_cast<DWORD>(hash.size()),
                       room != 0 ? answer.bytes.data() : nullptr, room, &answer.length,
                       (rsa ? DWORD{BCRYPT_PAD_PKCS1} : 0) | moreFlags);
    return answer;
}

DialogDriver::Script RouterTest::rightPin()
{
    return DialogDriver::entering(std::wstring(kPin.begin(), kPin.end()));
}

}  // namespace NV::test
