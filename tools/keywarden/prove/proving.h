// What the steps of a proof share, and the steps themselves, one file for each subject.

#pragma once

#include <windows.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "formats/certificate.h"
#include "prove/prove.h"
#include "system/key_storage.h"
#include "system/registration.h"

namespace NV::tool {

// The system cannot do what the step needs. The reason is for the user.
class NotPossible : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The step needs the result of one that was not done, or was not wanted.
class NotTried : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A key, and what the steps before have found out about it.
struct ProvedKey {
    std::wstring name;
    bool isRsa = false;
    std::unique_ptr<Key> key;  // null until it is open
    Bytes publicKey;           // as exported, a blob of CNG
    Certificate certificate;   // its entry in "My"; null until it is found
    Bytes digest;              // SHA-256
    Bytes signature;           // of the digest; empty until there is one

    // Each throws NotTried if there is none.
    const Key& opened() const;
    const CERT_CONTEXT& published() const;
};

struct Proving {
    const Session& session;
    const ProveOptions& options;
    CngSystem system;
    bool registeredHere = false;  // this run has made the registration
    std::unique_ptr<KeyStorage> storage;
    std::vector<std::wstring> names;  // of all keys
    std::vector<ProvedKey> keys;      // those of the proof
};

// Throws unless the status is ERROR_SUCCESS: NotPossible if it says that the system does not have the
// function, otherwise Failure with the status.
void requireOfSystem(SECURITY_STATUS status, const std::string& what);
// The same for a Win32 function, by the thread's last error.
void requireOfSystem(bool succeeded, const std::string& what);

// Random bytes. Throws as requireOfSystem.
Bytes randomBytes(size_t size);

// Each takes a step and returns what was seen. They throw NotPossible, NotTried or Failure.

std::string proveRegistration(Proving& proving);
std::string proveBcryptProviders(Proving& proving);
std::string proveNcryptProviders(Proving& proving);
std::string proveOpening(Proving& proving);
std::string proveKeys(Proving& proving);
std::string proveRemoval(Proving& proving);

std::string proveKey(Proving& proving, ProvedKey& key);
std::string provePublication(Proving& proving, ProvedKey& key);
std::string proveBitLength(Proving& proving, ProvedKey& key);
std::string proveAcquiring(Proving& proving, ProvedKey& key);
std::string proveSigning(Proving& proving, ProvedKey& key);
std::string proveVerifying(Proving& proving, ProvedKey& key);
std::string proveVerifyingByCertificate(Proving& proving, ProvedKey& key);
std::string proveDecrypting(Proving& proving, ProvedKey& key);
std::string proveAgreement(Proving& proving, ProvedKey& key);
std::string proveTls(Proving& proving, ProvedKey& key);
std::string proveDotnet(Proving& proving, ProvedKey& key);

}  // namespace NV::tool
