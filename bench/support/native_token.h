// A PKCS#11 library of this machine, and the calls that the module makes of it, each timed. For the
// benchmarks of a token behind a network.

#pragma once

#include <p11-kit/pkcs11.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "measure.h"

namespace NV::bench {

// What each call took, in microseconds, by the call's name; and sums of several under names of their
// own.
using Times = std::map<std::string, std::vector<double>>;

// The calls throw std::runtime_error when the library does not answer CKR_OK.
class NativeToken {
public:
    // Loads the library and takes its first slot with an initialised token.
    NativeToken(const std::string& library, const std::string& pin);

    // An RSA signature as the module makes one: from C_Initialize to C_Finalize.
    void sign(Times& times);
    // The opening of a provider: the discovery of all slots, then the token's certificates.
    void open(Times& times);
    // A call that asks for next to nothing, so often in one session; for what a call costs by itself.
    void ask(Times& times, unsigned calls);

    // After a call that failed: C_Finalize, whatever it answers.
    void finalize() { list_->C_Finalize(nullptr); }

    CK_ULONG slots() const { return slots_; }
    // Of all slots together.
    CK_ULONG mechanisms() const { return mechanisms_; }
    CK_ULONG certificates() const { return certificates_; }

private:
    struct Unload {
        void operator()(void* library) const;
    };

    // Makes the call and files its time.
    template <typename Function, typename... Arguments>
    void call(Times& times, const char* name, Function function, Arguments... arguments);

    void initialize(Times& times);
    void discover(Times& times);
    void readSlot(Times& times, CK_SLOT_ID slot);
    void readCertificates(Times& times);
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
