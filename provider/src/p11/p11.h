// The traced call layer: every call of the PKCS#11 library after its discovery goes through it.

#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "p11/cryptoki.h"
#include "p11/library_use.h"
#include "p11/module.h"

namespace NV {

// Owns the library's module, or a share of it, and has one member for each of the 68 functions, with
// the standard's name, arguments and result. Each member logs its arguments, holds the object's lock
// until it returns, times the library call alone, and logs the outcome. The lock is not recursive: no
// member calls another.
//
// Results are the library's own, with two exceptions. Without a function list the result is
// CKR_GENERAL_ERROR. An exception out of the library and a null entry in its list give
// CKR_FUNCTION_FAILED. Throws std::system_error when the platform refuses the lock.
class Pkcs11 {
public:
    Pkcs11() = default;
    // A call layer of its own for one operation, on a library that another one has loaded. Null: without
    // a function list.
    explicit Pkcs11(std::shared_ptr<P11Module> module) : module_(std::move(module)) {}
    virtual ~Pkcs11() = default;
    Pkcs11(const Pkcs11&) = delete;
    Pkcs11& operator=(const Pkcs11&) = delete;

    // Loads the library at the UTF-8 path and runs the discovery, which finalizes the library at its
    // end. Returns false when either fails, and for every call after the first, which changes nothing.
    virtual bool loadModule(std::string path);

    // C_Initialize with null makes init arguments with our mutex callbacks, which the module owns.
    // C_Login with a null PIN of length 0 calls NVEnterPIN.
    // clang-format misreads the lines after the macro.
    // clang-format off
#define NV_WRAPPER(name, parameters) virtual CK_RV name parameters;
    NV_CK_FUNCTIONS(NV_WRAPPER)
#undef NV_WRAPPER

    // Null before loadModule.
    const P11Module* module() const { return module_.get(); }
    const std::shared_ptr<P11Module>& sharedModule() const { return module_; }
    // Whether the library stays initialized, so that operations need not initialize it and run side by
    // side.
    bool joined() const { return module_ != nullptr && module_->joined(); }
    // Whether a call has returned CKR_CRYPTOKI_NOT_INITIALIZED although the library should stay
    // initialized.
    bool lost() const { return lost_ && joined(); }
    // P11Module::discoverAgain; nothing is lost then.
    bool discoverAgain(const Site& site);
    // Whether any C_Initialize returned CKR_OK.
    bool initialized() const { return initialized_; }
    // clang-format on

    // Give back what the wrappers have taken from the library and not yet returned: the login, the
    // session with its login, or everything, the initialized state included. Without trace lines and
    // exceptions, for clean-up after the log itself may have failed.
    void giveBackLogin() noexcept;
    void giveBackSession() noexcept;
    void giveBack() noexcept;

private:
    CK_FUNCTION_LIST* functionList() const
    {
        return module_ != nullptr ? module_->functionList() : nullptr;
    }

    // The parts of a wrapper; see p11_call.h. `traced` is what all wrappers have in common: ENTER, the
    // lock, the argument lines, the result of `work`, LEAVE.
    template <typename Work, typename... Arguments>
    CK_RV traced(const Site& site, const Work& work, const Arguments&... arguments);
    // Calls `work` with the function list. Without one it logs an error.
    template <typename Work>
    CK_RV withFunctionList(const Site& site, const Work& work) const;
    // A whole wrapper that passes its arguments on: all but C_Initialize and C_Login.
    template <typename Call, typename Before, typename After, typename... Arguments>
    CK_RV call(const Call& which, const Before& before, const After& after,
               const Arguments&... arguments);

    CK_RV loginWithoutPin(const Site& site, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType);

    // Makes the module's init arguments the given ones, or new ones for null. Returns the replaced
    // ones; see P11Module::replaceInitArgs.
    P11Module::InitArgs prepareInitArgs(const Site& site, CK_VOID_PTR pInitArgs);

    std::shared_ptr<P11Module> module_;
    Mutex lock_{LockRank::callLayer};
    LibraryUse use_;
    bool initialized_ = false;
    bool lost_ = false;
};

// An attribute of more bytes is unavailable.
inline constexpr CK_ULONG maxAttributeSize = 1024 * 1024;

// C_GetAttributeValue for one attribute, its length or its value. CKR_OK becomes
// CKR_ATTRIBUTE_SENSITIVE with the length that means "unavailable information", and with a length of
// more than maxAttributeSize for an attribute without a buffer.
CK_RV askForAttribute(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                      CK_ATTRIBUTE& wanted);

// C_FindObjects for at most 1024 objects. `found` is empty after a failure. A reported count of more
// than maxListedEntries is one: CKR_GENERAL_ERROR.
CK_RV findObjects(Pkcs11& p11, CK_SESSION_HANDLE session, std::vector<CK_OBJECT_HANDLE>& found);

// A row of a template. The library only reads the value, which must outlive the call.
inline CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, size_t length)
{
    return {type, const_cast<void*>(value), static_cast<CK_ULONG>(length)};
}

// Where NVEnterPIN takes a PIN from: the entry "pin". No prompt fills it, so the PIN is empty.
using PinSource = std::map<std::string, std::string>;

}  // namespace NV

// Logs in with the PIN of the source through the module's function list. Returns the library's
// result, or CKR_GENERAL_ERROR when the PIN is empty. The caller holds the lock of its Pkcs11 object,
// and the module has a function list.
CK_RV NVEnterPIN(const NV::P11Module& module, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                 NV::PinSource source = {});
