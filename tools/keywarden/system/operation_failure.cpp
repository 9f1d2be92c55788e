// From a status to the reason of it: by the table, by the log, by the token.

#include "system/operation_failure.h"

#include <optional>
#include <string_view>

#include "config/config.h"
#include "config/config_keys.h"
#include "config/mode.h"
#include "keystore/token_status.h"
#include "p11/p11.h"
#include "system/configuration.h"
#include "system/explanation.h"
#include "system/library_guard.h"
#include "system/log_folder.h"

namespace NV::tool {

namespace {

std::string sentences(const Explanation& row)
{
    return std::string(row.meaning) + (row.advice.empty() ? "" : " ") + std::string(row.advice);
}

// Statuses of the provider itself, too, may have results in the module's table, but not these.
bool onlyOfToken(const Explanation& status)
{
    return status.name.starts_with("SCARD_") ||
           status.value == uint32_t(NTE_PASSWORD_CHANGE_REQUIRED);
}

// The result, if the status stands for one alone.
std::string resultBehind(const Explanation& status)
{
    const auto results = resultsOfStatus(status.value);
    return results.size() == 1 && onlyOfToken(status) ? std::string(results[0]->name)
                                                      : std::string();
}

// Whether the status stands for the result. What the provider itself refused has such a status, too, and
// then the log may tell of an earlier operation.
bool leadsTo(const std::string& result, const Explanation& status)
{
    const Explanation* known = explain(std::string_view(result));
    return known != nullptr && isResult(*known) && &statusOfResult(known->value) == &status;
}

// The log of this process, in which the module writes.
struct Logged {
    LogState state;
    std::string result;  // empty if the log does not say it
};

// Nothing if the configuration cannot be read. What is wrong with the log is no reason here.
std::optional<Logged> readLog()
{
    try {
        loadConfiguration();
        Logged logged{configuredLog(), {}};
        if (logged.state.written)
            logged.result =
                latestResult(configuredLogFolder(), GetCurrentProcessId(), beginningOfProcess());
        return logged;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

struct PinState {
    CK_FLAGS flag;
    const char* meaning;
    const char* result;  // whose advice and exit code fit
};

// The worst first.
constexpr PinState pinStates[] = {
    {CKF_USER_PIN_LOCKED, "the token says that its PIN is locked.", "CKR_PIN_LOCKED"},
    {CKF_USER_PIN_FINAL_TRY,
     "the token says that a wrong PIN was entered, and that the next one locks it.",
     "CKR_PIN_INCORRECT"},
    {CKF_USER_PIN_COUNT_LOW,
     "the token says that a wrong PIN was entered since the last correct one.",
     "CKR_PIN_INCORRECT"},
};

// A login with the correct PIN takes these flags back, so one that is set belongs to this operation or to
// one that never came to a login.
const PinState* readPinState()
{
    const GuardedCall call("reading the state of the PIN");
    try {
        setMode(Config::instance().mode());
        Pkcs11 p11;
        if (!p11.loadModule(configuredLibrary(Config::instance())))
            return nullptr;
        const P11Slot* slot = p11.module()->firstActiveSlot();
        for (const PinState& state : pinStates) {
            if (slot != nullptr && (slot->tokenInfo().flags & state.flag) != 0)
                return &state;
        }
    } catch (const std::exception&) {
        // The token cannot be read; then it says nothing.
    }
    return nullptr;
}

Failure failureWithoutResult(const std::string& reason, const Explanation& status,
                             const std::optional<Logged>& logged, PinUse pin)
{
    constexpr const char* howToFind =
        "Run \"keywarden log on\", repeat the command, and look at \"keywarden log\".";
    if (!logged)
        return Failure(reason, sentences(status), status.exitCode);
    if (logged->state.written)
        return Failure(
            reason, logged->state.everything
                        ? "The log has no failed PKCS#11 call of this operation. \"keywarden log\" "
                          "shows what it did."
                        : std::string("The log does not contain the PKCS#11 result. ") + howToFind);
    if (const PinState* state = pin == PinUse::asks ? readPinState() : nullptr) {
        const Explanation& row = *explain(std::string_view(state->result));
        return Failure(reason,
                       std::string("The log is off, but ") + state->meaning + " " +
                           std::string(row.advice),
                       row.exitCode);
    }
    return Failure(reason,
                   std::string("The log is off, so the PKCS#11 result is not known. ") + howToFind);
}

Failure explainedFailure(SECURITY_STATUS status, const std::string& what, PinUse pin)
{
    const std::string reason = what + " failed: " + statusText(status);
    const Explanation* row = explain(static_cast<uint32_t>(status));
    if (row == nullptr)
        return Failure(reason);
    const bool general = row->value == otherTokenFailure.value;
    std::string result = resultBehind(*row);
    std::optional<Logged> logged;
    if (result.empty() && (general || !resultsOfStatus(row->value).empty())) {
        logged = readLog();
        if (logged && (general || leadsTo(logged->result, *row)))
            result = logged->result;
    }
    if (result.empty())
        return general ? failureWithoutResult(reason, *row, logged, pin)
                       : Failure(reason, sentences(*row), row->exitCode);
    const Explanation* known = explain(std::string_view(result));
    if (known == nullptr)
        return Failure(reason + ", " + result,
                       "The result is one of the vendor's own: look in the documentation of the "
                       "token's library.");
    return Failure(reason + ", " + std::string(known->name), sentences(*known), known->exitCode);
}

}  // namespace

Failure operationFailure(SECURITY_STATUS status, const std::string& what, PinUse pin)
{
    const Failure failure = explainedFailure(status, what, pin);
    return Failure(failure.what(), failure.advice(), failure.exitCode(), status);
}

}  // namespace NV::tool
