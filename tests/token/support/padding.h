// CNG's padding information as one value: the flags and the matching structure. For tests of
// operations with RSA keys.

#pragma once

#include "base/cng.h"

#include "base/encoding.h"

namespace NV::test {

class Padding {
public:
    // Algorithm names may be null; they and the label belong to the caller and outlive the object.
    static Padding none() { return Padding(0); }
    static Padding raw() { return Padding(BCRYPT_PAD_NONE); }
    static Padding pkcs1WithoutInformation()
    {
        Padding padding(BCRYPT_PAD_PKCS1);
        padding.bare_ = true;
        return padding;
    }
    static Padding pkcs1(const wchar_t* algorithm)
    {
        Padding padding(BCRYPT_PAD_PKCS1);
        padding.pkcs1_.pszAlgId = algorithm;
        return padding;
    }
    static Padding pss(const wchar_t* algorithm, ULONG saltSize)
    {
        Padding padding(BCRYPT_PAD_PSS);
        padding.pss_ = {algorithm, saltSize};
        return padding;
    }
    static Padding oaep(const wchar_t* algorithm, Bytes* label = nullptr)
    {
        Padding padding(BCRYPT_PAD_OAEP);
        padding.oaep_.pszAlgId = algorithm;
        if (label != nullptr) {
            padding.oaep_.pbLabel = label->data();
            padding.oaep_.cbLabel = static_cast<ULONG>(label->size());
        }
        return padding;
    }

    DWORD flags() const { return flags_; }

    // Null where the flags have none.
    void* information()
    {
        switch (bare_ ? 0 : flags_) {
        case BCRYPT_PAD_PKCS1:
            return &pkcs1_;
        case BCRYPT_PAD_PSS:
            return &pss_;
        case BCRYPT_PAD_OAEP:
            return &oaep_;
        default:
            return nullptr;
        }
    }

private:
    explicit Padding(DWORD flags) : flags_(flags) {}

    DWORD flags_;
    bool bare_ = false;
    BCRYPT_PKCS1_PADDING_INFO pkcs1_{};
    BCRYPT_PSS_PADDING_INFO pss_{};
    BCRYPT_OAEP_PADDING_INFO oaep_{};
};

}  // namespace NV::test
