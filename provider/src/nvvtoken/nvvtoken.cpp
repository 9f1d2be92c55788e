// The provider object: initialization with the token, refused operations, and the PIN.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "base/scope_exit.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "config/mode.h"
#include "logger/operation.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_failures.h"
#include "nvvtoken/nvvtoken_pin.h"
#include "nvvtoken/nvvtoken_work.h"
#include "p11/library_life.h"
#include "p11/p11text.h"
#include "pindialog/pindialog.h"

namespace NV {

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
    while (!serveFirstActiveSlot(here)) {
        if (!pkcs11_->discoverAgain(here))
            return trace.endWithResult(false);
    }
    if (!pkcs11_->joined())
        pkcs11_->C_Finalize(nullptr);
    return trace.endWithResult(true);
}

bool Provider::openToken(const Site& init)
{
    NV_UNDER(TRC, init, "Try to load PKCS11 library by configuration");
    if (!pkcs11_->loadModule(configuredLibrary(Config::instance()))) {
        // Compat: the text blames the configuration file for every failure to load the library.
        NV_UNDER(ERR, init, "Failed to load config file");
        return false;
    }
    NV_UNDER(TRC, init, "Success to load PKCS11 library");
    if (pkcs11_->joined())
        return true;
    if (const CK_RV rv = pkcs11_->C_Initialize(nullptr); rv != CKR_OK) {
        NV_UNDER(ERR, init, "Failed to call C_Initialize()");
        noteResult(rv, returnValueText);
        return false;
    }
    NV_UNDER(TRC, init, "Success to call C_Initialize()");
    return true;
}

bool Provider::serveFirstActiveSlot(const Site& init)
{
    const P11Module& module = *pkcs11_->module();
    const auto& slots = module.slots();
    NV_UNDER(TRC, init, "Slot Count = %d", static_cast<int>(slots.size()));
    P11Slot* active = module.firstActiveSlot();
    if (active == nullptr)
        return true;
    certStore_.loadCertificates(*pkcs11_, active, name_);
    if (pkcs11_->lost())
        return false;
    fileKeys(*active);
    setAlgorisms(*active);
    const auto place = std::ranges::find(slots, active, &std::unique_ptr<P11Slot>::get);
    NV_UNDER(INF, init, "Use first active slot[%d]", static_cast<int>(place - slots.begin()));
    slot_ = active;
    slot_->setChosen(true);
    return true;
}

void Provider::fileKeys(const P11Slot& slot)
{
    for (const auto& [keyName, certificate] : certStore_.certificates())
        keyStore_.addPublicKey(slot, keyName, certificate->algorithmOid(), certificate->publicKey(),
                               certificate->keyLength(),
                               {certificate->curveOid(), certificate->certificate()});
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

// What the operation answers without a PIN.
struct WithoutPIN {
    SECURITY_STATUS notShown;  // the dialog
    SECURITY_STATUS empty;     // the PIN
};

const WithoutPIN& withoutPIN()
{
    // Compat: in classic, an empty PIN is no failure.
    static constexpr WithoutPIN classic = {NTE_INTERNAL_ERROR, ERROR_SUCCESS};
    static constexpr WithoutPIN modern = {NTE_SILENT_CONTEXT, NTE_USER_CANCELLED};
    return mode().reportsMissingPin() ? modern : classic;
}

SECURITY_STATUS dialogFailure(const PINDialogException& error)
{
    switch (error.code()) {
    case PINDialogException::userCanceled:
        return NTE_USER_CANCELLED;
    case PINDialogException::openFailed:
        return withoutPIN().notShown;
    default:
        return NTE_INTERNAL_ERROR;
    }
}

}  // namespace

PINSubject Provider::readPINSubject(const Site& site, const P11KeyObject& key)
{
    PINSubject subject;
    sideBySide(site, [&](Pkcs11& p11) {
        subject = pinSubject(p11, *slot_, key, certStore_);
        return p11.lost() ? libraryLost : ERROR_SUCCESS;
    });
    return subject;
}

SecretBytes Provider::enterPIN(const P11KeyObject& key, SECURITY_STATUS& status)
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    SecretBytes pin;
    NV_TRC("Trying to open PinPad");
    try {
        const CK_TOKEN_INFO& token = slot_->tokenInfo();
        PINRequest request{Config::instance().moduleInstance(), ownerWindow_, token.ulMinPinLen,
                           token.ulMaxPinLen};
        if (mode().keysOwnDialogs() && key.ownerWindow() != nullptr)
            request.parent = key.ownerWindow();
        if (mode().dialogNamesKey())
            request.readSubject = [&] { return readPINSubject(here, key); };
        pin = requestPIN(&request);
        NV_TRC("Entered Pin is %d bytes", static_cast<int>(pin.size()));
        status = pin.empty() ? withoutPIN().empty : ERROR_SUCCESS;
    } catch (const PINDialogException& error) {
        NV_ERR("Caught Exception: %s(errorcode:%d)", error.what(), static_cast<int>(error.code()));
        status = dialogFailure(error);
    } catch (...) {
        status = statusOfCaught();
        NV_ERR("Caught Unknown Exception");
    }
    return trace.leaving(std::move(pin));
}

}  // namespace NV
