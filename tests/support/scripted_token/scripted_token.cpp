// The tests' side of the scripted token.

#include "scripted_token.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <windows.h>

namespace NV::test {

namespace {

// A function of a library by its name; null when it does not exist.
template <typename Function>
Function exportOf(void* library, const char* name)
{
    const FARPROC address = GetProcAddress(static_cast<HMODULE>(library), name);
    // Through a generic function type, because the compiler warns about casts between different
    // types.
    return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(address));
}

std::string toUtf8(const std::wstring& wide)
{
    const int length = static_cast<int>(wide.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(), size, nullptr, nullptr);
    return text;
}

std::vector<Attribute> keyAttributes(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE type, const Bytes& id)
{
    const bool isPrivate = objectClass == CKO_PRIVATE_KEY;
    return {numberAttribute(CKA_CLASS, objectClass), numberAttribute(CKA_KEY_TYPE, type),
            flagAttribute(CKA_TOKEN, true), flagAttribute(CKA_PRIVATE, isPrivate),
            Attribute{CKA_ID, id}};
}

}  // namespace

Bytes sha256DigestInfo(const Bytes& hash)
{
    Bytes info = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                  0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    info.insert(info.end(), hash.begin(), hash.end());
    return info;
}

Bytes signatureOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data, size_t length)
{
    return pattern(mechanism, data, length);
}

Bytes hmacOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> key,
             std::span<const CK_BYTE> data)
{
    Bytes input(key.begin(), key.end());
    input.insert(input.end(), data.begin(), data.end());
    return pattern(mechanism, input, hashLengthOf(mechanism));
}

Bytes digestOf(CK_MECHANISM_TYPE mechanism, std::span<const CK_BYTE> data)
{
    return pattern(mechanism, data, hashLengthOf(mechanism));
}

std::wstring widePathBesideTest(const std::wstring& fileName)
{
    std::wstring path(32768, L'\0');  // the longest path in Windows
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L"\\/") + 1) + fileName;
}

std::string pathBesideTest(const std::string& fileName)
{
    return toUtf8(widePathBesideTest(L"")) + fileName;
}

Attribute numberAttribute(CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    Bytes bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return {type, bytes};
}

Attribute flagAttribute(CK_ATTRIBUTE_TYPE type, bool value)
{
    return {type, {value ? CK_TRUE : CK_FALSE}};
}

void ScriptedToken::Unload::operator()(void* library) const
{
    FreeLibrary(static_cast<HMODULE>(library));
}

ScriptedToken::ScriptedToken() : ScriptedToken(widePath()) {}

ScriptedToken::ScriptedToken(const std::wstring& copy) : library_(LoadLibraryW(copy.c_str()))
{
    if (!library_)
        throw std::runtime_error("cannot load " + toUtf8(copy));
    const auto control = exportOf<GetScriptedTokenControl>(library_.get(), "ScriptedTokenControl");
    if (control == nullptr)
        throw std::runtime_error(toUtf8(copy) + " is not the scripted token");
    control_ = control();
    reset();
}

ScriptedToken::~ScriptedToken()
{
    control_->reset();
}

std::string ScriptedToken::path()
{
    return toUtf8(widePath());
}

std::wstring ScriptedToken::widePath()
{
    return widePathBesideTest(L"scripted_token.dll");
}

std::vector<std::string> ScriptedToken::texts(CallText text) const
{
    std::vector<std::string> all(control_->callCount());
    for (uint32_t i = 0; i < all.size(); ++i) {
        all[i].resize(text(i, nullptr, 0));
        text(i, all[i].data(), static_cast<uint32_t>(all[i].size()));
    }
    return all;
}

std::vector<std::string> ScriptedToken::calls(const std::string& name) const
{
    std::vector<std::string> chosen = calls();
    std::erase_if(chosen, [&](const std::string& line) { return !line.starts_with(name + "("); });
    return chosen;
}

std::vector<uint32_t> ScriptedToken::callThreads() const
{
    std::vector<uint32_t> threads(control_->callCount());
    for (uint32_t i = 0; i < threads.size(); ++i)
        threads[i] = control_->callThread(i);
    return threads;
}

void ScriptedToken::addFault(const std::string& function, Fault fault, uint32_t value, uint32_t nth)
{
    if (control_->addFault(function.c_str(), fault, value, nth) == 0)
        throw std::invalid_argument("no PKCS#11 function is named " + function);
}

std::vector<StruckFault> ScriptedToken::takeStruckFaults()
{
    std::vector<StruckFault> struck(control_->struckFaults(nullptr, 0));
    if (!struck.empty()) {
        control_->struckFaults(struck.data(), static_cast<uint32_t>(struck.size()));
        control_->clearStruckFaults();
    }
    return struck;
}

void ScriptedToken::setListEntryNull(const std::string& function)
{
    if (control_->setListEntryNull(function.c_str()) == 0)
        throw std::invalid_argument("no PKCS#11 function is named " + function);
}

CK_OBJECT_HANDLE ScriptedToken::addObject(const std::vector<Attribute>& attributes, CK_SLOT_ID slot)
{
    std::vector<Attribute> values = attributes;  // CK_ATTRIBUTE points to non-const bytes
    std::vector<CK_ATTRIBUTE> entries;
    entries.reserve(values.size());
    for (Attribute& each : values)
        entries.push_back({each.type, each.value.data(), static_cast<CK_ULONG>(each.value.size())});
    return control_->addObject(slot, entries.data(), static_cast<uint32_t>(entries.size()));
}

CK_OBJECT_HANDLE ScriptedToken::addCertificate(const std::optional<Bytes>& id, const Bytes& der,
                                               CK_SLOT_ID slot)
{
    std::vector<Attribute> attributes{numberAttribute(CKA_CLASS, CKO_CERTIFICATE),
                                      numberAttribute(CKA_CERTIFICATE_TYPE, CKC_X_509),
                                      flagAttribute(CKA_TOKEN, true),
                                      flagAttribute(CKA_PRIVATE, false), Attribute{CKA_VALUE, der}};
    if (id)
        attributes.push_back({CKA_ID, *id});
    return addObject(attributes, slot);
}

KeyPair ScriptedToken::addRsaKeyPair(const Bytes& id, CK_ULONG modulusBits, CK_SLOT_ID slot,
                                     const Bytes& modulus)
{
    Bytes value = modulus.empty() ? pattern(kKeyTag, id, (modulusBits + 7) / 8) : modulus;
    if (modulus.empty())
        value.front() |= 0x80;  // a modulus has its highest bit set

    KeyPair pair{};
    for (const CK_OBJECT_CLASS objectClass : {CKO_PUBLIC_KEY, CKO_PRIVATE_KEY}) {
        std::vector<Attribute> attributes = keyAttributes(objectClass, CKK_RSA, id);
        attributes.push_back({CKA_MODULUS, value});
        attributes.push_back({CKA_PUBLIC_EXPONENT, {0x01, 0x00, 0x01}});
        if (objectClass == CKO_PUBLIC_KEY) {
            attributes.push_back(numberAttribute(CKA_MODULUS_BITS, modulusBits));
            pair.publicKey = addObject(attributes, slot);
        } else {
            attributes.push_back(flagAttribute(CKA_SENSITIVE, true));
            pair.privateKey = addObject(attributes, slot);
        }
    }
    return pair;
}

KeyPair ScriptedToken::addEcKeyPair(const Bytes& id, CK_ULONG coordinateSize, CK_SLOT_ID slot)
{
    const auto* curve = std::ranges::find(kCurves, coordinateSize, &CurveRow::coordinateSize);
    if (curve == std::end(kCurves))
        throw std::invalid_argument("no curve has coordinates of this size");
    const Attribute parameters{CKA_EC_PARAMS,
                               Bytes(curve->parameters.begin(), curve->parameters.end())};

    std::vector<Attribute> publicKey = keyAttributes(CKO_PUBLIC_KEY, CKK_EC, id);
    publicKey.push_back(parameters);
    std::vector<Attribute> privateKey = keyAttributes(CKO_PRIVATE_KEY, CKK_EC, id);
    privateKey.push_back(parameters);
    privateKey.push_back(flagAttribute(CKA_SENSITIVE, true));

    KeyPair pair{};
    pair.publicKey = addObject(publicKey, slot);
    pair.privateKey = addObject(privateKey, slot);
    return pair;
}

TokenState ScriptedToken::state() const
{
    TokenState told{};
    control_->state(&told);
    return told;
}

CK_FUNCTION_LIST ScriptedToken::exports() const
{
    CK_FUNCTION_LIST list{};
    list.version = kCryptokiVersion;
#define NV_FILL(name, parameters)                                                                  \
    list.name = exportOf<CK_RV(NV_CK_CALL*) parameters>(library_.get(), #name);
    NV_CK_FUNCTIONS(NV_FILL)
#undef NV_FILL
    return list;
}

}  // namespace NV::test
