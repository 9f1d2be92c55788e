// Renders a call's arguments as one line of text.

#include "line.h"

namespace NV::scripted {

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

std::string hexNumber(CK_ULONG value)
{
    std::string digits;
    do {
        digits.insert(digits.begin(), kDigits[value % 16]);
        value /= 16;
    } while (value != 0);
    return "0x" + digits;
}

std::string inBrackets(const char* word, CK_ULONG value)
{
    return std::string(word) + "[" + std::to_string(value) + "]";
}

std::string hexBytes(const void* data, CK_ULONG length)
{
    if (data == nullptr)
        return length == 0 ? "null" : inBrackets("null", length);
    if (length == 0)
        return "empty";
    const auto* bytes = static_cast<const CK_BYTE*>(data);
    std::string text;
    text.reserve(size_t{2} * length);
    for (CK_ULONG i = 0; i < length; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

// Blocks with pointers are shown as what they point at: addresses differ with each run.
std::string parameterText(const CK_MECHANISM& mechanism)
{
    if (mechanism.pParameter != nullptr && mechanism.mechanism == CKM_RSA_PKCS_OAEP &&
        mechanism.ulParameterLen == sizeof(CK_RSA_PKCS_OAEP_PARAMS)) {
        const auto& oaep = *static_cast<const CK_RSA_PKCS_OAEP_PARAMS*>(mechanism.pParameter);
        return "{hash=" + hexNumber(oaep.hashAlg) + ",mgf=" + hexNumber(oaep.mgf) +
               ",source=" + hexNumber(oaep.source) +
               ",sourceData=" + hexBytes(oaep.pSourceData, oaep.ulSourceDataLen) + "}";
    }
    if (mechanism.pParameter != nullptr && mechanism.mechanism == CKM_ECDH1_DERIVE &&
        mechanism.ulParameterLen == sizeof(CK_ECDH1_DERIVE_PARAMS)) {
        const auto& ecdh = *static_cast<const CK_ECDH1_DERIVE_PARAMS*>(mechanism.pParameter);
        return "{kdf=" + hexNumber(ecdh.kdf) +
               ",sharedData=" + hexBytes(ecdh.pSharedData, ecdh.ulSharedDataLen) +
               ",publicData=" + hexBytes(ecdh.pPublicData, ecdh.ulPublicDataLen) + "}";
    }
    return hexBytes(mechanism.pParameter, mechanism.ulParameterLen);
}

template <typename Value>
std::string templateText(const CK_ATTRIBUTE* attributes, CK_ULONG count, Value value)
{
    if (attributes == nullptr)
        return count == 0 ? "null" : inBrackets("null", count);
    std::string text = "{";
    for (CK_ULONG i = 0; i < count; ++i) {
        if (i != 0)
            text += ',';
        text += hexNumber(attributes[i].type) + "=" + value(attributes[i]);
    }
    return text + "}";
}

template <typename Function>
std::string presence(Function callback)
{
    return callback != nullptr ? "given" : "null";
}

}  // namespace

std::atomic<bool>& recording()
{
    static std::atomic<bool> on{true};
    return on;
}

Line& Line::add(const char* name, const std::string& value)
{
    if (!text_.empty())
        text_ += ", ";
    text_ += std::string(name) + "=" + value;
    return *this;
}

Line& Line::hex(const char* name, CK_ULONG value)
{
    if (!wanted_)
        return *this;
    return add(name, hexNumber(value));
}

Line& Line::decimal(const char* name, CK_ULONG value)
{
    if (!wanted_)
        return *this;
    return add(name, std::to_string(value));
}

Line& Line::bytes(const char* name, const void* data, CK_ULONG length)
{
    if (!wanted_)
        return *this;
    return add(name, hexBytes(data, length));
}

Line& Line::text(const char* name, const CK_UTF8CHAR* data, CK_ULONG length)
{
    if (!wanted_)
        return *this;
    if (data == nullptr)
        return add(name, hexBytes(data, length));
    return add(name, std::string(data, data + length));
}

Line& Line::pointer(const char* name, const void* value)
{
    if (!wanted_)
        return *this;
    return add(name, presence(value));
}

Line& Line::room(const char* name, const void* buffer, const CK_ULONG* length)
{
    if (!wanted_)
        return *this;
    // Without a buffer the length is output only, so its value is not looked at.
    if (buffer == nullptr)
        return add(name, "null");
    return add(name, length == nullptr ? std::string("room[?]") : inBrackets("room", *length));
}

Line& Line::mechanism(const CK_MECHANISM* mechanism)
{
    if (!wanted_)
        return *this;
    if (mechanism == nullptr)
        return add("mechanism", "null");
    hex("mechanism", mechanism->mechanism);
    return add("parameter", parameterText(*mechanism));
}

Line& Line::attributes(const char* name, const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    if (!wanted_)
        return *this;
    return add(name, templateText(attributes, count, [](const CK_ATTRIBUTE& each) {
                   return hexBytes(each.pValue, each.ulValueLen);
               }));
}

Line& Line::wanted(const char* name, const CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    if (!wanted_)
        return *this;
    return add(name, templateText(attributes, count, [](const CK_ATTRIBUTE& each) {
                   return each.pValue == nullptr ? std::string("null")
                                                 : inBrackets("room", each.ulValueLen);
               }));
}

Line& Line::initArguments(const CK_C_INITIALIZE_ARGS* arguments)
{
    if (!wanted_)
        return *this;
    if (arguments == nullptr)
        return add("initArgs", "null");
    return add("initArgs", "{CreateMutex=" + presence(arguments->CreateMutex) +
                               ",DestroyMutex=" + presence(arguments->DestroyMutex) +
                               ",LockMutex=" + presence(arguments->LockMutex) +
                               ",UnlockMutex=" + presence(arguments->UnlockMutex) +
                               ",flags=" + hexNumber(arguments->flags) +
                               ",reserved=" + presence(arguments->pReserved) + "}");
}

}  // namespace NV::scripted
