// The provider object: initialization with the token, properties, algorithms, refused operations,
// and the PIN.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <span>
#include <string_view>
#include <utility>

#include "base/scope_exit.h"
#include "base/text.h"
#include "config/config.h"
#include "config/mode.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_memory.h"
#include "p11/library_life.h"
#include "pindialog/pindialog.h"

namespace NV {

namespace {

constexpr size_t maxPropertyNameLength = 64;  // characters

// A property stores its size as a signed number.
constexpr DWORD maxPropertySize = INT32_MAX;

// Types of the provider's own properties: a text with its terminating zero, and plain bytes.
constexpr uint32_t textProperty = 1;
constexpr uint32_t binaryProperty = 3;

// The algorithms of one kind of operation.
struct AlgorithmGroup {
    DWORD operation;
    const std::vector<const wchar_t*>& names;
    DWORD interfaceNumber;
};

size_t algorithmCount(std::span<const AlgorithmGroup> groups, DWORD dwAlgOperations)
{
    size_t count = 0;
    for (const AlgorithmGroup& group : groups)
        count += (dwAlgOperations & group.operation) != 0 ? group.names.size() : 0;
    return count;
}

// One block with `count` records, and a block for each name. Null if there is no memory.
HeapBlock<NCryptAlgorithmName> algorithmRecords(std::span<const AlgorithmGroup> groups,
                                                DWORD dwAlgOperations, size_t count)
{
    auto records = allocateOnHeap<NCryptAlgorithmName>(count * sizeof(NCryptAlgorithmName));
    NCryptAlgorithmName* end = records.get();
    Undo freeNames([&] {
        for (const NCryptAlgorithmName& record : std::span(records.get(), end))
            std::free(record.pszName);
    });
    for (const AlgorithmGroup& group : groups) {
        if ((dwAlgOperations & group.operation) == 0 || records == nullptr)
            continue;
        for (const wchar_t* name : group.names) {
            auto copy = copyToHeap(name);
            if (copy == nullptr)
                return nullptr;
            // Compat: dwClass is the operation's bit and dwAlgOperations the interface number.
            // FreeBuffer releases the array, but not the names.
            *end++ = {copy.release(), group.operation, group.interfaceNumber, 0};
        }
    }
    freeNames.commit();
    return records;
}

bool contains(const std::vector<const wchar_t*>& names, std::wstring_view name)
{
    return std::ranges::find(names, name, [](const wchar_t* entry) {
               return std::wstring_view(entry);
           }) != names.end();
}

}  // namespace

Provider::Provider() : pkcs11_(std::make_unique<Pkcs11>())
{
    const Trace trace(NV_HERE);
    trace.leave();
}

Provider::~Provider()
{
    const Trace trace = Trace::ofCleanUp(NV_HERE);
    pkcs11_.reset();
    trace.leave();
}

bool Provider::init()
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    const std::lock_guard guard(lock_);
    trace.startClock();
    const std::lock_guard sequence(sequenceLock());
    const ScopeExit giveBack([this] { pkcs11_->giveBack(); });
    if (!openToken(here))
        return trace.endWithResult(false);
    setDefaultProperties();
    serveFirstActiveSlot(here);
    if (!pkcs11_->joined())
        pkcs11_->C_Finalize(nullptr);
    return trace.endWithResult(true);
}

bool Provider::openToken(const Site& init)
{
    NV_UNDER(TRC, init, "Try to load PKCS11 library by configuration");
    if (!pkcs11_->loadModule(Config::instance().get("p11File"))) {
        // Compat: the text blames the configuration file for every failure to load the library.
        NV_UNDER(ERR, init, "Failed to load config file");
        return false;
    }
    NV_UNDER(TRC, init, "Success to load PKCS11 library");
    if (pkcs11_->joined())
        return true;
    if (pkcs11_->C_Initialize(nullptr) != CKR_OK) {
        NV_UNDER(ERR, init, "Failed to call C_Initialize()");
        return false;
    }
    NV_UNDER(TRC, init, "Success to call C_Initialize()");
    return true;
}

void Provider::serveFirstActiveSlot(const Site& init)
{
    const P11Module& module = *pkcs11_->module();
    const auto& slots = module.slots();
    NV_UNDER(TRC, init, "Slot Count = %d", static_cast<int>(slots.size()));
    P11Slot* active = module.firstActiveSlot();
    if (active == nullptr)
        return;
    serveSlot(*active);
    const auto place = std::ranges::find(slots, active, &std::unique_ptr<P11Slot>::get);
    NV_UNDER(INF, init, "Use first active slot[%d]", static_cast<int>(place - slots.begin()));
    slot_ = active;
    slot_->setChosen(true);
}

void Provider::serveSlot(P11Slot& slot)
{
    certStore_.loadCertificates(*pkcs11_, &slot, name_);
    for (const auto& [keyName, certificate] : certStore_.certificates())
        keyStore_.addPublicKey(slot, keyName, certificate->algorithmOid(), certificate->publicKey(),
                               certificate->keyLength());
    setAlgorisms(slot);
}

void Provider::setDefaultProperties()
{
    const Trace trace(NV_HERE);
    const auto add = [this](const wchar_t* name, uint32_t type, const void* data, size_t size) {
        properties_[name] =
            std::make_shared<Property>(name, type, data, static_cast<int32_t>(size));
    };
    const std::wstring name = name_;
    const std::wstring version = L"1.0";
    constexpr uint32_t implementation = NCRYPT_IMPL_HARDWARE_FLAG;
    add(NCRYPT_NAME_PROPERTY, textProperty, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
    add(NCRYPT_VERSION_PROPERTY, textProperty, version.c_str(),
        (version.size() + 1) * sizeof(wchar_t));
    // Compat: the value is the first bytes of the provider and not its address.
    add(NCRYPT_PROVIDER_HANDLE_PROPERTY, binaryProperty, this, sizeof(NCRYPT_PROV_HANDLE));
    add(NCRYPT_IMPL_TYPE_PROPERTY, binaryProperty, &implementation, sizeof implementation);
    trace.leave();
}

// Compat: the lists do not depend on the token's mechanisms, and the log shows the name of this
// function.
void Provider::setAlgorisms(const P11Slot&)
{
    const Trace trace(NV_HERE);
    hashAlgorithms_ = {L"SHA1", L"SHA256", L"SHA384", L"SHA512", L"MD2", L"MD4", L"MD5"};
    asymmetricEncryptionAlgorithms_ = {L"RSA", L"ECDSA"};
    secretAgreementAlgorithms_ = {L"ECDH_P256", L"ECDH_P384", L"ECDH_P521"};
    signatureAlgorithms_ = {L"RSA_SIGN", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521"};
    rngAlgorithms_ = {L"RNG"};
    trace.leave();
}

SECURITY_STATUS Provider::outputProperty(const Site& site, const Property& property, PBYTE pbOutput,
                                         DWORD cbOutput, DWORD* pcbResult)
{
    const auto& value = property.value();
    const auto size = static_cast<DWORD>(value.size());
    if (pbOutput != nullptr) {
        if (cbOutput < size) {
            NV_UNDER(ERR, site, "The length of output buffer is too short");
            return NTE_BUFFER_TOO_SMALL;
        }
        NV_UNDER(TRC, site, "Store the value into output buffer (%d bytes)",
                 static_cast<int>(size));
        std::copy(value.begin(), value.end(), pbOutput);
    }
    *pcbResult = size;
    return ERROR_SUCCESS;
}

SECURITY_STATUS Provider::GetProviderProperty(LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                              DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(text("pszProperty", pszProperty), pointer("pbOutput", pbOutput),
                    number("cbOutput", cbOutput), pointer("pcbResult", pcbResult),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0)
        return trace.end(NTE_BAD_FLAGS);
    if (pszProperty == nullptr || pcbResult == nullptr ||
        std::wcslen(pszProperty) > maxPropertyNameLength)
        return trace.end(NTE_INVALID_PARAMETER);
    const auto property = properties_.find(pszProperty);
    if (property == properties_.end()) {
        // Compat: the text says "Key Property" for a property of the provider.
        NV_ERR("Not Found Key Property (%s)", printable(pszProperty).c_str());
        return trace.end(NTE_NOT_SUPPORTED);
    }
    NV_TRC("Found Provider Property (%s)", printable(pszProperty).c_str());
    return trace.end(outputProperty(here, *property->second, pbOutput, cbOutput, pcbResult));
}

SECURITY_STATUS Provider::GetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                         PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                         DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), text("pszProperty", pszProperty),
                    pointer("pbOutput", pbOutput), number("cbOutput", cbOutput),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pcbResult == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    const P11KeyObject* key = keyStore_.findOpenedOrImported(hKey);
    if (key == nullptr)
        return trace.end(NTE_INVALID_HANDLE);
    const Property* property = key->findProperty(pszProperty);
    if (property == nullptr) {
        NV_ERR("Not Found Key Property (%s)", printable(pszProperty).c_str());
        return trace.end(NTE_NOT_SUPPORTED);
    }
    NV_TRC("Found Key Property (%s)", printable(pszProperty).c_str());
    return trace.end(outputProperty(here, *property, pbOutput, cbOutput, pcbResult));
}

SECURITY_STATUS Provider::SetProviderProperty(LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                              DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(text("pszProperty", pszProperty), pointer("pbInput", pbInput),
                    number("cbInput", cbInput), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pbInput == nullptr || cbInput == 0 || cbInput > maxPropertySize)
        return trace.end(NTE_INVALID_PARAMETER);
    auto property =
        std::make_shared<Property>(pszProperty, 0, pbInput, static_cast<int32_t>(cbInput));
    HWND window = ownerWindow_;
    if (std::wstring_view(pszProperty) == NCRYPT_WINDOW_HANDLE_PROPERTY)
        window = ownerWindow(here, pbInput, cbInput);
    // Both only after the last line that can throw.
    properties_[pszProperty] = std::move(property);
    ownerWindow_ = window;
    return trace.end(ERROR_SUCCESS);
}

// The owner window after the property is set to the value. Compat: a value longer than a handle does
// not change it; a shorter one is filled up with zeros.
HWND Provider::ownerWindow(const Site& site, const BYTE* pbInput, DWORD cbInput) const
{
    NV_UNDER(TRC, site, "Set NCRYPT_WINDOW_HANDLE_PROPERTY");
    uintptr_t window = 0;
    if (cbInput > sizeof window)
        return ownerWindow_;
    std::memcpy(&window, pbInput, cbInput);
    NV_UNDER(TRC, site, "Owner Window Handle is %p", asPointer(window));
    return reinterpret_cast<HWND>(window);  // NOLINT(performance-no-int-to-ptr)
}

SECURITY_STATUS Provider::SetKeyProperty(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty, PBYTE pbInput,
                                         DWORD cbInput, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("hKey", hKey), text("pszProperty", pszProperty),
                    pointer("pbInput", pbInput), number("cbInput", cbInput),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszProperty == nullptr || pbInput == nullptr || cbInput == 0 || cbInput > maxPropertySize)
        return trace.end(NTE_INVALID_PARAMETER);
    P11KeyObject* key = keyStore_.findOpenedOrImported(hKey);
    if (key == nullptr) {
        NV_ERR("Not Found the key (%p)", asPointer(hKey));
        return trace.end(NTE_INVALID_HANDLE);
    }
    NV_TRC("Found the key (%p)", asPointer(hKey));
    key->addProperty(pszProperty, pbInput, static_cast<int32_t>(cbInput));
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::IsAlgSupported(LPCWSTR pszAlgId, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(text("pszAlgId", pszAlgId), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pszAlgId == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    // Compat: the names of signature algorithms count as not supported.
    for (const auto* names : {&hashAlgorithms_, &asymmetricEncryptionAlgorithms_,
                              &cipherAlgorithms_, &rngAlgorithms_, &secretAgreementAlgorithms_}) {
        if (contains(*names, pszAlgId))
            return trace.end(ERROR_SUCCESS);
    }
    return trace.end(NTE_NOT_SUPPORTED);
}

SECURITY_STATUS Provider::EnumAlgorithms(DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(flagBits("dwAlgOperations", dwAlgOperations),
                    pointer("pdwAlgCount", pdwAlgCount), pointer("ppAlgList", ppAlgList),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (pdwAlgCount == nullptr || ppAlgList == nullptr || dwAlgOperations == 0)
        return trace.end(NTE_INVALID_PARAMETER);
    const AlgorithmGroup groups[] = {
        {NCRYPT_CIPHER_OPERATION, cipherAlgorithms_, 0},
        {NCRYPT_HASH_OPERATION, hashAlgorithms_, 0},
        {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, asymmetricEncryptionAlgorithms_, 3},
        {NCRYPT_SECRET_AGREEMENT_OPERATION, secretAgreementAlgorithms_, 4},
        {NCRYPT_SIGNATURE_OPERATION, signatureAlgorithms_, 5},
        {NCRYPT_RNG_OPERATION, rngAlgorithms_, 0},
    };
    const size_t count = algorithmCount(groups, dwAlgOperations);
    if (count != 0) {
        auto records = algorithmRecords(groups, dwAlgOperations, count);
        if (records == nullptr)
            return trace.end(NTE_NO_MEMORY);
        *pdwAlgCount = static_cast<DWORD>(count);
        *ppAlgList = records.release();
    }
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::CreatePersistedKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                             DWORD dwFlags)
{
    Trace trace(NV_HERE);
    NV_WRN("This operation is not available");
    trace.arguments(pointer("phKey", phKey), text("pszAlgId", pszAlgId),
                    text("pszKeyName", pszKeyName), flagBits("dwLegacyKeySpec", dwLegacyKeySpec),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    constexpr DWORD accepted = NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG;
    SECURITY_STATUS status = NTE_NOT_SUPPORTED;
    if (pszAlgId != nullptr && std::wstring_view(pszAlgId) == NCRYPT_RSA_ALGORITHM) {
        if ((dwFlags & ~accepted) != 0)
            status = NTE_BAD_FLAGS;
        else if (phKey == nullptr)
            status = NTE_INVALID_PARAMETER;
    }
    return trace.end(status);
}

namespace {

SECURITY_STATUS refusal(bool argumentsGiven)
{
    return argumentsGiven ? NTE_NOT_SUPPORTED : NTE_INVALID_PARAMETER;
}

}  // namespace

SECURITY_STATUS Provider::FinalizeKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    NV_WRN("This operation is not available");
    trace.arguments(pointer("hKey", hKey), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();
    return trace.end(refusal(hKey != 0));
}

SECURITY_STATUS Provider::DeleteKey(NCRYPT_KEY_HANDLE hKey, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    NV_WRN("This operation is not available");
    trace.arguments(pointer("hKey", hKey), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();
    return trace.end(refusal(hKey != 0));
}

SECURITY_STATUS Provider::PromptUser(NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    NV_WRN("This operation is not available");
    trace.arguments(pointer("hKey", hKey), text("pszOperation", pszOperation),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();
    return trace.end(refusal(hKey != 0 && pszOperation != nullptr));
}

SECURITY_STATUS Provider::NotifyChangeKey(HANDLE* phEvent, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    NV_WRN("This operation is not available");
    trace.arguments(pointer("phEvent", phEvent), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();
    return trace.end(refusal(phEvent != nullptr));
}

namespace {

SECURITY_STATUS dialogFailure(const PINDialogException& error)
{
    switch (error.code()) {
    case PINDialogException::userCanceled:
        return NTE_USER_CANCELLED;
    case PINDialogException::openFailed:
        return mode().reportsMissingPin() ? NTE_SILENT_CONTEXT : NTE_INTERNAL_ERROR;
    default:
        return NTE_INTERNAL_ERROR;
    }
}

}  // namespace

SecretBytes Provider::enterPIN(SECURITY_STATUS& status)
{
    const Trace trace(NV_HERE);
    SecretBytes pin;
    NV_TRC("Trying to open PinPad");
    try {
        const CK_TOKEN_INFO& token = slot_->tokenInfo();
        const PINRequest request{Config::instance().moduleInstance(), ownerWindow_,
                                 token.ulMinPinLen, token.ulMaxPinLen};
        pin = requestPIN(&request);
        NV_TRC("Entered Pin is %d bytes", static_cast<int>(pin.size()));
        // Compat: in classic, an empty PIN is no failure.
        status = pin.empty() && mode().reportsMissingPin() ? NTE_USER_CANCELLED : ERROR_SUCCESS;
    } catch (const PINDialogException& error) {
        NV_ERR("Caught Exception: %s(errorcode:%d)", error.what(), static_cast<int>(error.code()));
        status = dialogFailure(error);
    } catch (...) {
        NV_ERR("Caught Unknown Exception");
        status = NTE_INTERNAL_ERROR;
    }
    return trace.leaving(std::move(pin));
}

}  // namespace NV
