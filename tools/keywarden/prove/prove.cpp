// The table of steps, and what becomes of what a step throws.

#include "prove/prove.h"

#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <exception>
#include <iterator>
#include <utility>

#include "base/cng.h"
#include "exit_code.h"
#include "failure.h"
#include "prove/proving.h"
#include "session.h"
#include "system/explanation.h"
#include "text.h"

namespace NV::tool {

namespace {

struct SystemStep {
    const char* name;
    std::string (*take)(Proving&);
};

enum class KeyKind { any, rsa, ec };

struct KeyStep {
    const char* name;
    KeyKind kind;
    bool asksForPin;
    std::string (*take)(Proving&, ProvedKey&);
};

constexpr SystemStep firstSteps[] = {
    {"registration", proveRegistration},
    {"bcrypt-providers", proveBcryptProviders},
    {"ncrypt-providers", proveNcryptProviders},
    {"open", proveOpening},
    {"keys", proveKeys},
};

// Taken for each key.
constexpr KeyStep keySteps[] = {
    {"key", KeyKind::any, false, proveKey},
    {"publication", KeyKind::any, false, provePublication},
    {"property-92", KeyKind::any, false, proveBitLength},
    {"acquire", KeyKind::any, false, proveAcquiring},
    {"sign", KeyKind::any, true, proveSigning},
    {"verify", KeyKind::any, false, proveVerifying},
    {"verify-certificate", KeyKind::any, false, proveVerifyingByCertificate},
    {"decrypt", KeyKind::rsa, true, proveDecrypting},
    {"agree", KeyKind::ec, true, proveAgreement},
    {"tls", KeyKind::any, true, proveTls},
    {"dotnet", KeyKind::any, true, proveDotnet},
};

constexpr SystemStep lastSteps[] = {{"removal", proveRemoval}};

// With which a system says that it does not have a function.
constexpr uint32_t missingFunction[] = {
    0xC0000002,  // STATUS_NOT_IMPLEMENTED
    0xC00000BB,  // STATUS_NOT_SUPPORTED
    0x80004001,  // E_NOTIMPL
    0x80090029,  // NTE_NOT_SUPPORTED
    0x80090302,  // SEC_E_UNSUPPORTED_FUNCTION
    ERROR_CALL_NOT_IMPLEMENTED,
    ERROR_NOT_SUPPORTED,
};

// Whether the next PIN dialog could lock the token, or is not wanted. NTE_INTERNAL_ERROR does not tell
// the reason.
bool endsPinDialogs(const Failure& failure)
{
    switch (failure.exitCode()) {
    case ExitCode::pinCancelled:
    case ExitCode::pinWrong:
    case ExitCode::pinLocked:
    case ExitCode::noDesktop:
        return true;
    default:
        return failure.status() == NTE_INTERNAL_ERROR;
    }
}

class Run {
public:
    Run(const Session& session, const ProveOptions& options, ProofListener& listener)
        : proving_{session, options, thisSystem(), false, nullptr, {}, {}}, listener_(listener)
    {
    }

    std::vector<Proof> all()
    {
        for (const SystemStep& step : firstSteps)
            take(step);
        for (ProvedKey& key : proving_.keys) {
            for (const KeyStep& step : keySteps) {
                if (step.kind == KeyKind::any || (step.kind == KeyKind::rsa) == key.isRsa)
                    take(step, key);
            }
        }
        closeKeys();
        for (const SystemStep& step : lastSteps)
            take(step);
        return std::move(proofs_);
    }

private:
    void take(const SystemStep& step)
    {
        take(step.name, {}, false, [&] { return step.take(proving_); });
    }

    void take(const KeyStep& step, ProvedKey& key)
    {
        take(step.name, toUtf8(key.name), step.asksForPin, [&] {
            if (step.asksForPin && !proving_.options.pinDialog)
                throw NotTried("it asks for the PIN; give --pin-dialog");
            if (step.asksForPin && pinStopped_)
                throw NotTried("a PIN dialog before has failed, so the PIN is not asked for again");
            return step.take(proving_, key);
        });
    }

    void take(const std::string& step, const std::string& key, bool asksForPin, const auto& work)
    {
        listener_.begun(step, key, asksForPin && proving_.options.pinDialog && !pinStopped_);
        Proof proof{step, key, ProofOutcome::done, {}, {}, {}};
        try {
            proof.text = work();
        } catch (const NotPossible& reason) {
            proof.outcome = ProofOutcome::notPossible;
            proof.text = reason.what();
        } catch (const NotTried& reason) {
            proof.outcome = ProofOutcome::notTried;
            proof.text = reason.what();
        } catch (const Failure& failure) {
            proof.outcome = ProofOutcome::failed;
            proof.text = failure.what();
            proof.advice = failure.advice();
            proof.status = failure.status();
            pinStopped_ = pinStopped_ || (asksForPin && endsPinDialogs(failure));
        } catch (const std::exception& error) {
            proof.outcome = ProofOutcome::failed;
            proof.text = std::string("an exception: ") + error.what();
        } catch (...) {
            // In classic, exceptions leave the provider.
            proof.outcome = ProofOutcome::failed;
            proof.text = "an exception of the provider";
        }
        listener_.ended(proof);
        proofs_.push_back(std::move(proof));
    }

    // Before the registration is removed.
    void closeKeys()
    {
        proving_.keys.clear();
        proving_.storage.reset();
    }

    Proving proving_;
    ProofListener& listener_;
    bool pinStopped_ = false;
    std::vector<Proof> proofs_;
};

}  // namespace

const Key& ProvedKey::opened() const
{
    if (key == nullptr)
        throw NotTried("the key is not open");
    return *key;
}

const CERT_CONTEXT& ProvedKey::published() const
{
    if (certificate == nullptr)
        throw NotTried("\"My\" has no certificate of the key");
    return *certificate;
}

void requireOfSystem(SECURITY_STATUS status, const std::string& what)
{
    if (status == ERROR_SUCCESS)
        return;
    const auto value = static_cast<uint32_t>(status);
    if (std::ranges::find(missingFunction, value) != std::end(missingFunction))
        throw NotPossible("the system does not have " + what + ": " + statusText(status));
    const Explanation* known = explain(value);
    throw Failure(
        what + " failed: " +
            (known != nullptr ? statusText(status) : hexText(status) + ", " + errorText(value)),
        known != nullptr ? std::string(known->meaning) + " " + std::string(known->advice)
                         : std::string(),
        known != nullptr ? known->exitCode : ExitCode::failed, status);
}

void requireOfSystem(bool succeeded, const std::string& what)
{
    if (succeeded)
        return;
    const auto error = static_cast<SECURITY_STATUS>(GetLastError());
    if (error != ERROR_SUCCESS)
        requireOfSystem(error, what);
    throw Failure(what + " failed without a reason");
}

Bytes randomBytes(size_t size)
{
    Bytes bytes(size);
    requireOfSystem(BCryptGenRandom(nullptr, bytes.data(), static_cast<ULONG>(size),
                                    BCRYPT_USE_SYSTEM_PREFERRED_RNG),
                    "BCryptGenRandom");
    return bytes;
}

std::vector<Proof> prove(const Session& session, const ProveOptions& options,
                         ProofListener& listener)
{
    return Run(session, options, listener).all();
}

}  // namespace NV::tool
