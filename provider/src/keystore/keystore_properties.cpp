// The tables of key properties.

#include "keystore/keystore_properties.h"

#include <algorithm>
#include <span>

#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_rsa.h"

namespace NV {

namespace {

// A key that gets its properties.
struct NewKey {
    const P11KeyObject& key;
    std::string_view certificate;
    DWORD ecUsage;

    bool isRsa() const { return key.algorithm() == "RSA"; }
};

struct KeyPropertyRow {
    const wchar_t* name;
    // Empty if the key does not have the property.
    Bytes (*value)(const NewKey& key);
};

template <typename Value>
Bytes bytesOf(const Value& value)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(&value);
    return {begin, begin + sizeof value};
}

Bytes numberBytes(DWORD value)
{
    return bytesOf(value);
}

Bytes textBytes(const std::wstring& characters)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(characters.c_str());
    return {begin, begin + (characters.size() + 1) * sizeof(wchar_t)};
}

Bytes keyName(const NewKey& key)
{
    return textBytes(key.key.keyId());
}

Bytes keyUsage(const NewKey& key)
{
    return numberBytes(key.isRsa() ? NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG
                                   : key.ecUsage);
}

Bytes implType(const NewKey&)
{
    return numberBytes(NCRYPT_IMPL_HARDWARE_FLAG);
}

Bytes algorithm(const NewKey& key)
{
    return textBytes(algorithmName(key.key));
}

Bytes algorithmGroup(const NewKey& key)
{
    return textBytes(widenBytes(key.key.algorithm()));
}

Bytes zero(const NewKey&)
{
    return numberBytes(0);
}

// A certificate's length of an RSA key is one of whole bytes. 0 if the length is not known.
DWORD bits(const NewKey& key)
{
    if (key.isRsa()) {
        if (const auto numbers = static_cast<const P11RSAKeyObject&>(key.key).numbers())
            return numbers->bits();
    }
    return key.key.keyLength();
}

Bytes length(const NewKey& key)
{
    const DWORD known = bits(key);
    return known != 0 ? numberBytes(known) : Bytes{};
}

Bytes lengths(const NewKey& key)
{
    const DWORD known = bits(key);
    return known != 0 ? bytesOf(NCRYPT_SUPPORTED_LENGTHS{known, known, 0, known}) : Bytes{};
}

Bytes signatureLength(const NewKey& key)
{
    const DWORD known = key.key.signatureLength();
    return known != 0 ? numberBytes(known) : Bytes{};
}

Bytes blockLength(const NewKey& key)
{
    return key.isRsa() ? signatureLength(key) : Bytes{};
}

Bytes curveName(const NewKey& key)
{
    const Curve* curve = key.key.curve();
    return curve != nullptr ? textBytes(curve->cngName) : Bytes{};
}

Bytes certificate(const NewKey& key)
{
    return base64Decode(key.certificate);
}

// Of each key, in the order in which the log shows them.
constexpr KeyPropertyRow ofEachKey[] = {
    {NCRYPT_NAME_PROPERTY, keyName},        {NCRYPT_UNIQUE_NAME_PROPERTY, keyName},
    {NCRYPT_KEY_USAGE_PROPERTY, keyUsage},  {NCRYPT_IMPL_TYPE_PROPERTY, implType},
    {NCRYPT_ALGORITHM_PROPERTY, algorithm}, {NCRYPT_ALGORITHM_GROUP_PROPERTY, algorithmGroup},
    {NCRYPT_EXPORT_POLICY_PROPERTY, zero},
};

constexpr KeyPropertyRow inModern[] = {
    {NCRYPT_LENGTH_PROPERTY, length},
    {BCRYPT_PUBLIC_KEY_LENGTH, length},
    {NCRYPT_LENGTHS_PROPERTY, lengths},
    {BCRYPT_SIGNATURE_LENGTH, signatureLength},
    {NCRYPT_BLOCK_LENGTH_PROPERTY, blockLength},
    {NCRYPT_ECC_CURVE_NAME_PROPERTY, curveName},
    {NCRYPT_CERTIFICATE_PROPERTY, certificate},
    {NCRYPT_KEY_TYPE_PROPERTY, zero},
};

constexpr const wchar_t* setByApplications[] = {
    NCRYPT_UI_POLICY_PROPERTY, NCRYPT_USE_CONTEXT_PROPERTY, NCRYPT_WINDOW_HANDLE_PROPERTY};

// What a behaviour says of properties.
struct PropertyRules {
    DWORD ecUsage;
    // Besides those of each key. An application cannot set them.
    std::span<const KeyPropertyRow> more;
    // Whether an application may set "SmartCardPin".
    bool storesPin;
    // Missing, they are NTE_NOT_FOUND.
    std::span<const wchar_t* const> optional;
};

constexpr PropertyRules classicRules{
    NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG, {}, true, {}};
constexpr PropertyRules modernRules{NCRYPT_ALLOW_SIGNING_FLAG | NCRYPT_ALLOW_KEY_AGREEMENT_FLAG,
                                    inModern, false, setByApplications};

const PropertyRules& rules()
{
    return mode().hasMoreKeyProperties() ? modernRules : classicRules;
}

}  // namespace

std::wstring algorithmName(const P11KeyObject& key)
{
    const Curve* curve = key.curve();
    return curve != nullptr ? curve->algorithmName : widenBytes(key.algorithm());
}

void addKeyProperties(P11KeyObject& key, std::string_view certificate)
{
    const PropertyRules& behaviour = rules();
    const NewKey newKey{key, certificate, behaviour.ecUsage};
    const std::span<const KeyPropertyRow> tables[] = {ofEachKey, behaviour.more};
    for (const auto rows : tables) {
        for (const KeyPropertyRow& row : rows) {
            if (const Bytes value = row.value(newKey); !value.empty())
                key.addProperty(row.name, value.data(), static_cast<int32_t>(value.size()));
        }
    }
}

bool mayBeSet(std::wstring_view name)
{
    const PropertyRules& behaviour = rules();
    if (name == NCRYPT_PIN_PROPERTY)
        return behaviour.storesPin;
    return std::ranges::none_of(behaviour.more,
                                [name](const KeyPropertyRow& row) { return name == row.name; });
}

SECURITY_STATUS statusOfMissing(std::wstring_view name)
{
    const bool optional = std::ranges::any_of(
        rules().optional, [name](const wchar_t* entry) { return name == entry; });
    return optional ? NTE_NOT_FOUND : NTE_NOT_SUPPORTED;
}

}  // namespace NV
