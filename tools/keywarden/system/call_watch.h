// Tells which function of a PKCS#11 library is being called, and which calls failed.

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "p11/cryptoki.h"
#include "p11/module.h"

namespace NV::tool {

// A call that did not return CKR_OK. An exception counts as CKR_FUNCTION_FAILED.
struct FailedCall {
    const char* function;
    CK_RV rv;
};

// "C_GetTokenInfo: 00000030(CKR_DEVICE_ERROR)".
std::string describe(const FailedCall& call);

// While the object exists, it stands before the functions of one library's list; the list is the
// library's own, so all callers in the process are watched. At most one object exists at a time. Not
// for calls of several threads.
class CallWatch {
public:
    // Called before each call with the function's name, which lives as long as the program.
    using Listener = std::function<void(const char* function)>;

    // The module is loaded. Watches nothing if its list cannot be written.
    CallWatch(std::shared_ptr<P11Module> module, Listener listener);
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

    // In order.
    const std::vector<FailedCall>& failures() const { return failures_; }
    // The first failed call of the function; null if there is none.
    const FailedCall* failureOf(const char* function) const;

    // For the hooks.
    void begin(const char* function) const;
    void end(const char* function, CK_RV rv);

private:
    std::shared_ptr<P11Module> module_;
    Listener listener_;
    std::vector<FailedCall> failures_;
};

}  // namespace NV::tool
