// What the tests of this folder share: the module on the scripted token, called through ncrypt.dll, in each
// of the two behaviours.

#pragma once

#include "base/cng.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "config/mode.h"
#include "dialog_driver.h"
#include "module_fixture.h"
#include "profile.h"
#include "registered_provider.h"
#include "scripted_token.h"

// GoogleTest finds it by its name.
namespace NV {
inline void PrintTo(Behaviour behaviour, std::ostream* stream)
{
    *stream << (behaviour == Behaviour::modern ? "modern" : "classic");
}
}  // namespace NV

namespace NV::test {

// A handle that the destructor frees, which must succeed unless the handle is 0.
class Handle {
public:
    explicit Handle(NCRYPT_HANDLE value = 0) : value_(value) {}
    ~Handle() { free(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    void free()
    {
        if (value_ != 0) {
            EXPECT_EQ(NCryptFreeObject(release()), ERROR_SUCCESS);
        }
    }
    NCRYPT_HANDLE release() { return std::exchange(value_, 0); }
    NCRYPT_HANDLE* out() { return &value_; }
    NCRYPT_HANDLE operator*() const { return value_; }

private:
    NCRYPT_HANDLE value_;
};

// A status, and what a call wrote.
struct Answer {
    SECURITY_STATUS status = 0;
    Bytes bytes;
    DWORD length = 0;  // what it reported

    // Without the terminating zero.
    std::wstring text() const;
    DWORD number() const;
};

// An RSA key "01AB" of 2048 bits and a P-256 key "0256" on the token; a provider opened through the router.
class RouterTest : public testing::TestWithParam<Behaviour> {
protected:
    // With a serial number, the certificates are new to the system's store "My".
    explicit RouterTest(uint32_t serial = 0);

    bool modern() const { return GetParam() == Behaviour::modern; }
    // The expected value of this behaviour.
    template <typename Value>
    Value either(Value classicValue, Value modernValue) const
    {
        return modern() ? modernValue : classicValue;
    }

    void openKey(Handle& key, const wchar_t* name) const
    {
        ASSERT_EQ(NCryptOpenKey(*provider, key.out(), name, 0, 0), ERROR_SUCCESS);
    }
    // With a buffer of exactly what the size query asks for.
    static Answer property(NCRYPT_HANDLE object, const wchar_t* name);
    static Answer exported(NCRYPT_KEY_HANDLE key, const wchar_t* blobType);

    // `room` bytes for the signature; the script answers one dialog.
    Answer sign(NCRYPT_KEY_HANDLE key, DWORD room, const DialogDriver::Script& script,
                DWORD moreFlags = 0);
    // The same, where no dialog may come: one that comes is cancelled, and a failure.
    Answer signWithoutDialog(NCRYPT_KEY_HANDLE key, DWORD room, DWORD moreFlags = 0);

    static DialogDriver::Script rightPin();

    const Bytes rsaCertificate;
    const Bytes ecCertificate;
    ScriptedToken token;
    Profile profile;
    RegisteredProvider registered;
    Bytes hash = someBytes(32);
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    Handle provider;

private:
    Answer callSignHash(NCRYPT_KEY_HANDLE key, DWORD room, DWORD moreFlags);
};

}  // namespace NV::test
