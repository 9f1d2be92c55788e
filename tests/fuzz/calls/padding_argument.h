// What the operations on the token with a padding share.

#pragma once

#include <iterator>

#include "operations.h"

namespace NV::fuzz {

// The padding of a call, as the model sees it and as the module gets it: a block of exactly the size
// that the flags ask for.
class PaddingArgument {
public:
    PaddingArgument(uint8_t flags, uint8_t form)
    {
        constexpr const wchar_t* hashNames[] = {L"SHA256", L"SHA1",   L"SHA384", L"SHA512",
                                                L"SHA256", L"sha256", L"MD5",    nullptr};
        // Mostly one padding.
        constexpr DWORD paddings[] = {0, BCRYPT_PAD_NONE, BCRYPT_PAD_PKCS1, BCRYPT_PAD_OAEP,
                                      BCRYPT_PAD_PSS};
        model_.flags = flags < 0xD0 ? paddings[flags % std::size(paddings)] : flags % 16;
        model_.infoGiven = form % 8 != 0;
        model_.hashName = hashNames[form / 32];
        if ((model_.flags & BCRYPT_PAD_OAEP) != 0)
            model_.label = someBytes(form % 4, form);
        if (!model_.infoGiven)
            return;
        if ((model_.flags & BCRYPT_PAD_OAEP) != 0)
            set(BCRYPT_OAEP_PADDING_INFO{model_.hashName,
                                         model_.label.empty() ? nullptr : model_.label.data(),
                                         sizeOf(model_.label)});
        else if ((model_.flags & BCRYPT_PAD_PSS) != 0)
            set(BCRYPT_PSS_PADDING_INFO{model_.hashName, form});
        else
            set(BCRYPT_PKCS1_PADDING_INFO{model_.hashName});
    }

    const Padding& model() const { return model_; }
    VOID* block() { return block_.empty() ? nullptr : block_.data(); }

private:
    template <typename Info>
    void set(const Info& info)
    {
        const auto* const begin = reinterpret_cast<const unsigned char*>(&info);
        block_.assign(begin, begin + sizeof info);
    }

    Padding model_;
    Bytes block_;
};

// What a call answers and gives.
struct Expectation {
    Expected expected;
    TokenResult result;
    // The length that a query is told. 0: that of the result.
    DWORD told = 0;
    // Compat: an empty PIN is a success without a result.
    bool skipped = false;
};

inline const Key* openedKey(const ProviderModel& provider, NCRYPT_KEY_HANDLE key)
{
    const auto found = provider.opened.find(key);
    return found != provider.opened.end() ? &found->second : nullptr;
}

// A key that works without the token.
inline const Key* importedRsaKey(const ProviderModel& provider, NCRYPT_KEY_HANDLE key)
{
    const auto found = provider.imported.find(key);
    return found != provider.imported.end() && found->second.facts.rsa ? &found->second : nullptr;
}

// The size of a buffer for a result: mostly enough.
inline size_t roomOf(uint8_t operand)
{
    return operand < 0xC0 ? 300 : lengthOf(operand);
}

// What the token's result makes of an operation with a buffer, in classic.
inline SECURITY_STATUS statusOf(const TokenResult& result, const Output& output)
{
    return result && (output.null() || output.size() >= result->size()) ? ERROR_SUCCESS
                                                                        : NTE_INTERNAL_ERROR;
}

inline bool staysSilent(DWORD flags)
{
    return rules.obeysSilentFlag && (flags & NCRYPT_SILENT_FLAG) != 0;
}

}  // namespace NV::fuzz
