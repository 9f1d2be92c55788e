// Token operations of the modern behaviour through the module's table, for the files of this folder: an
// RSA key "01AB" and a P-256 key "0256" on the scripted token.

#pragma once

#include <functional>
#include <string>

#include "dialog_driver.h"
#include "folder.h"
#include "module_fixture.h"

namespace NV::test {

// The first so many of the bytes that the fixtures' signatures are over.
inline Bytes fixtureHash(size_t size)
{
    return someBytes(size);
}

// What a fixture's private key did; see tests/support/fixtures.
inline Bytes fixtureResult(const std::string& name)
{
    return hexDecode(readFile(std::filesystem::path(CERTIFICATES) / (name + ".hex")));
}

// A certificate, and a public key object, without which a self-signed certificate is no key.
inline void addCertificateWithKey(ScriptedToken& token, const Bytes& id,
                                  const std::string& certificate)
{
    token.addCertificate(id, certificateDer(certificate));
    token.addObject({numberAttribute(CKA_CLASS, CKO_PUBLIC_KEY), {CKA_ID, id}});
}

class TokenOperationTest : public ModernKeysTest {
protected:
    // With `room` bytes for the signature; 0 passes a null buffer.
    SECURITY_STATUS sign(NCRYPT_KEY_HANDLE key, DWORD room, void* padding = nullptr,
                         DWORD flags = 0)
    {
        return table()->SignHash(handle(), key, padding, hash.data(), sizeOf(hash),
                                 room != 0 ? output.at() : nullptr, room, &output.length, flags);
    }
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, const Bytes& signature, void* padding = nullptr,
                           DWORD flags = 0)
    {
        Bytes given = signature;
        return table()->VerifySignature(handle(), key, padding, hash.data(), sizeOf(hash),
                                        given.data(), sizeOf(given), flags);
    }
    SECURITY_STATUS encrypt(NCRYPT_KEY_HANDLE key, const Bytes& plain, DWORD room,
                            void* padding = nullptr, DWORD flags = BCRYPT_PAD_PKCS1)
    {
        Bytes given = plain;
        return table()->Encrypt(handle(), key, given.data(), sizeOf(given), padding,
                                room != 0 ? output.at() : nullptr, room, &output.length, flags);
    }
    SECURITY_STATUS decrypt(NCRYPT_KEY_HANDLE key, const Bytes& cipher, DWORD room,
                            void* padding = nullptr, DWORD flags = BCRYPT_PAD_PKCS1)
    {
        Bytes given = cipher;
        return table()->Decrypt(handle(), key, given.data(), sizeOf(given), padding,
                                room != 0 ? output.at() : nullptr, room, &output.length, flags);
    }

    // With the right PIN by the dialog.
    SECURITY_STATUS withPin(const std::function<SECURITY_STATUS()>& operation)
    {
        const DialogDriver dialog(DialogDriver::entering(std::wstring(kPin.begin(), kPin.end())));
        return operation();
    }

    Bytes written(size_t count) { return {output.at(), output.at() + count}; }
    // The status is so; nothing was written, and the token was not called.
    void expectRefused(SECURITY_STATUS expected, SECURITY_STATUS given)
    {
        EXPECT_EQ(status(expected), given);
        EXPECT_TRUE(output.untouched());
        EXPECT_TRUE(token.calls().empty());
    }

    static DWORD sizeOf(const Bytes& bytes) { return static_cast<DWORD>(bytes.size()); }

    Output output;
};

}  // namespace NV::test
