// keywarden prove: takes the steps that show whether the provider works on this system as a part of CNG,
// and says of each what came of it.

#pragma once

#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace NV::tool {

struct Session;

enum class ProofOutcome { done, failed, notPossible, notTried };

// What came of a step. Texts are UTF-8.
struct Proof {
    std::string step;  // "verify"; scripts rely on it, so it never changes
    std::string key;   // the name of the key; empty for a step without one
    ProofOutcome outcome = ProofOutcome::done;
    std::string text;  // what was seen, what failed, or why the step was not possible or not tried
    std::string advice;  // what to do next; only of a failed step
    // Of the call that failed, if a call did.
    std::optional<SECURITY_STATUS> status;
};

struct ProveOptions {
    std::string key;           // as for chooseKey; empty: the first RSA and the first EC key
    bool pinDialog = false;    // take the steps that ask for the PIN
    bool registers = false;    // register the module if it is not registered, and remove that again
    bool unregisters = false;  // remove the registration at the end, whoever made it
    // A DLL whose CryptAcquireCertificatePrivateKey takes the place of the system's; empty: the system's.
    std::filesystem::path acquire;
};

// Follows the steps as they are taken.
class ProofListener {
public:
    ProofListener() = default;
    virtual ~ProofListener() = default;
    ProofListener(const ProofListener&) = delete;
    ProofListener& operator=(const ProofListener&) = delete;

    // `asksForPin`: it waits for the user.
    virtual void begun(const std::string& step, const std::string& key, bool asksForPin) = 0;
    virtual void ended(const Proof& proof) = 0;
};

// Takes all steps, in their order. The session must use CNG. Of a step that fails, nothing leaves this
// function but its Proof.
std::vector<Proof> prove(const Session& session, const ProveOptions& options,
                         ProofListener& listener);

}  // namespace NV::tool
