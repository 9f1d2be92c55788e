// The traced call layer: the one door to the PKCS#11 library after its discovery.

#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/mutex.h"
#include "p11/cryptoki.h"
#include "p11/module.h"

namespace NV {

// Owns the library's module and has one member for each of the 68 functions, with the standard's
// name, arguments and result. Each member logs its arguments, holds the object's lock for its whole
// run, times the library call alone and logs the outcome. The lock is not recursive: no member
// calls another.
//
// Results are the library's own, except: no function list yet gives CKR_GENERAL_ERROR, an exception
// out of the library or a null entry in its list CKR_FUNCTION_FAILED. A refused lock throws
// std::system_error.
class Pkcs11 {
public:
    Pkcs11() = default;
    virtual ~Pkcs11() = default;
    Pkcs11(const Pkcs11&) = delete;
    Pkcs11& operator=(const Pkcs11&) = delete;

    // Loads the library at the UTF-8 path and runs the discovery, which leaves it finalised. False
    // when either fails, and for every call after the first: the first module stays.
    virtual bool loadModule(std::string path);

    // C_Initialize with null makes init arguments with our mutex callbacks, which the module owns.
    // C_Login with a null PIN of length 0 asks NVEnterPIN.
    // The macro makes clang-format take what follows for something else.
    // clang-format off
#define NV_WRAPPER(name, parameters) virtual CK_RV name parameters;
    NV_CK_FUNCTIONS(NV_WRAPPER)
#undef NV_WRAPPER

    // Null before loadModule.
    const P11Module* module() const { return module_.get(); }
    // Whether C_Initialize ever returned CKR_OK.
    bool initialized() const { return initialized_; }
    // clang-format on

    // A call of the library past the trace, whatever comes of it: for clean-up where the log may be
    // what failed. `entryOf` takes the function out of the list.
    template <typename EntryOf, typename... Values>
    void callUntraced(EntryOf entryOf, Values... values) noexcept
    {
        try {
            const std::lock_guard guard(lock_);
            const CK_FUNCTION_LIST* list = functionList();
            if (list == nullptr)
                return;
            if (const auto entry = entryOf(*list); entry != nullptr)
                entry(values...);
        } catch (...) {
            // The exception that led here is the one to be heard.
        }
    }

private:
    CK_FUNCTION_LIST* functionList() const
    {
        return module_ != nullptr ? module_->functionList() : nullptr;
    }

    // The course of every wrapper but C_Initialize and C_Login; see p11_call.h.
    template <typename Call, typename Before, typename After, typename... Arguments>
    CK_RV call(const Call& which, const Before& before, const After& after,
               const Arguments&... arguments);

    CK_RV loginWithoutPin(const Site& site, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType);

    CK_C_INITIALIZE_ARGS* prepareInitArgs(const Site& site, CK_VOID_PTR pInitArgs,
                                          std::unique_ptr<CK_C_INITIALIZE_ARGS>& replaced);

    std::unique_ptr<P11Module> module_;
    Mutex lock_{LockRank::callLayer};
    bool initialized_ = false;
};

// C_GetAttributeValue for one attribute, its length or its value. A token that answers CKR_OK, but
// with the length that stands for no information, has told nothing: CKR_ATTRIBUTE_SENSITIVE.
CK_RV askForAttribute(Pkcs11& p11, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                      CK_ATTRIBUTE& wanted);

// An attribute of a template whose value is one of our own; the library only reads it.
inline CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, size_t length)
{
    return {type, const_cast<void*>(value), static_cast<CK_ULONG>(length)};
}

// Where NVEnterPIN takes a PIN from: the entry "pin". No prompt is attached to it, so it is empty.
using PinSource = std::map<std::string, std::string>;

}  // namespace NV

// Logs in with the PIN of the source through the module's function list: the library's result, or
// CKR_GENERAL_ERROR when the PIN is empty. The caller holds the lock of its Pkcs11 object, and the
// module must hold a function list.
CK_RV NVEnterPIN(const NV::P11Module& module, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType,
                 NV::PinSource source = {});
