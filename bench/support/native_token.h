// Loads a PKCS#11 library of this machine and makes the module's calls, each of them timed. For the
// benchmarks of a token behind a network.

#pragma once

#include <p11-kit/pkcs11.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "measure.h"

namespace NV::bench {

// The time of each call in microseconds, by the name of the call; sums of several have names of
// their own.
using Times = std::map<std::string, std::vector<double>>;

// The calls throw std::runtime_error when the library does not return CKR_OK.
class NativeToken {
public:
    // Loads the library and uses its first slot with an initialized token.
    NativeToken(const std::string& library, const std::string& pin);

    // An RSA signature as the module makes one in classic: from C_Initialize to C_Finalize.
    void sign(Times& times);
    // Such signatures as in modern: the library stays initialized, and the dialog asks for the state of the
    // token. What is not part of them is not recorded.
    void signInModern(Times& times, unsigned signatures);
    // The opening of a provider: the discovery of all slots, then the token's certificates.
    void open(Times& times);
    // Repeats a call without work in one session, to measure the cost of the call itself.
    void ask(Times& times, unsigned calls);

    // After a call that failed: C_Finalize. Its result is ignored.
    void finalize() { list_->C_Finalize(nullptr); }

    CK_ULONG slots() const { return slots_; }
    // Of all slots together.
    CK_ULONG mechanisms() const { return mechanisms_; }
    CK_ULONG certificates() const { return certificates_; }

private:
    struct Unload {
        void operator()(void* library) const;
    };

    // Makes the call and records its time.
    template <typename Function, typename... Arguments>
    void call(Times& times, const char* name, Function function, Arguments... arguments);

    void initialize(Times& times);
    void discover(Times& times);
    void readSlot(Times& times, CK_SLOT_ID slot);
    void readCertificates(Times& times);
    void signInSession(Times& times, CK_SESSION_HANDLE session);
    CK_SESSION_HANDLE session(Times& times);
    void closeAndFinalize(Times& times, CK_SESSION_HANDLE session);

    std::unique_ptr<void, Unload> library_;
    CK_FUNCTION_LIST* list_ = nullptr;
    std::string pin_;
    CK_SLOT_ID slot_ = 0;
    CK_ULONG slots_ = 0;
    CK_ULONG mechanisms_ = 0;
    CK_ULONG certificates_ = 0;
};

}  // namespace NV::bench
