// What a fault makes of a token operation. In classic:
//
// - A call that fails, throws or is missing ends the work. Every clean-up call that comes after it and
//   undoes a call before it is still made: logout, close, finalise.
// - Any such failure, of the work or of the clean-up, is NTE_INTERNAL_ERROR.
// - CKR_CRYPTOKI_ALREADY_INITIALIZED at the start is not a failure; the operation then leaves the
//   finalise step to the caller that initialised the library.
// - A count or length that lies is limited to the buffer, and the operation succeeds.
// - The output is the token's. The caller receives its length on success only, except from derivation,
//   which writes the length as soon as the key is derived.
//
// In modern, the library is initialized before and after, and:
//
// - The first failure has the status of its row.
// - CKR_CRYPTOKI_NOT_INITIALIZED makes the operation initialize the library and begin again.
// - What the dialog asks the token about the PIN is not needed. It begins again in the same way.
// - A login that the token has already is used and left.
// - A token that wants a login for a public key is replaced by the certificate's key. It calls the
//   signatures of this token bad, which are patterns.
// - What lies about a length lies about the module's own buffer, if there is one. The caller's is written
//   on success only, or when the key is derived.

#include "operation_oracle.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace NV::test {

namespace {

// The call that a clean-up call undoes; empty: it is no clean-up call.
std::string_view undoneBy(std::string_view function)
{
    if (function == "C_Logout")
        return "C_Login";
    if (function == "C_CloseSession")
        return "C_OpenSession";
    return function == "C_Finalize" ? "C_Initialize" : "";
}

bool standsBefore(const Sequence& good, size_t place, std::string_view function)
{
    return std::ranges::any_of(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(place),
                               [&](const SequenceCall& call) { return call.function == function; });
}

size_t placeOf(const Sequence& good, std::string_view function)
{
    return static_cast<size_t>(std::ranges::find(good, function, &SequenceCall::function) -
                               good.begin());
}

Sequence callsSeen(const Sequence& good, const FaultCase& fault, bool fails)
{
    Sequence seen;
    for (size_t i = 0; i < good.size(); ++i) {
        const std::string& function = good[i].function;
        const std::string_view undone = undoneBy(function);
        const bool cleansUp = !undone.empty() && standsBefore(good, fault.call, undone);
        if (fails && i > fault.call && !cleansUp)
            continue;
        if (fault.saysAlreadyInitialized() && function == "C_Finalize")
            continue;
        // What is missing in the list does not reach the token.
        if (fault.kind == FaultKind::nullEntry && function == fault.target.function)
            continue;
        seen.push_back(good[i]);
    }
    return seen;
}

// What the token reports as the output's length, as far as the buffer reaches.
DWORD lengthTold(const OperationRow& row, const FaultCase& fault)
{
    const bool struck = fault.target.function == row.output;
    if (struck && fault.kind == FaultKind::secondCountLarger)
        return std::min<DWORD>(row.room, row.length + kLieExcess);
    if (struck && fault.kind == FaultKind::lengthPastBuffer)
        return row.room;
    return row.length;
}

ExpectedOutcome classicOutcome(const OperationRow& row, const Sequence& good,
                               const FaultCase& fault)
{
    const bool fails = !fault.isLie() && !fault.saysAlreadyInitialized();
    const bool hasOutput =
        row.output != nullptr && (!fails || placeOf(good, row.output) < fault.call);
    const bool told =
        (row.told == Told::onSuccess && !fails) || (row.told == Told::withTheOutput && hasOutput);
    ExpectedOutcome expected{};
    expected.status = fails ? NTE_INTERNAL_ERROR : ERROR_SUCCESS;
    expected.calls = namesOf(callsSeen(good, fault, fails));
    expected.output = hasOutput;
    if (told)
        expected.length = lengthTold(row, fault);
    expected.secret = row.operation == TokenOperation::agreement && !fails;
    expected.initialised =
        fault.saysAlreadyInitialized() || (fails && fault.target.function == "C_Finalize");
    // The close that failed is the only one to leave a session. A login ends with it at the latest.
    expected.sessionsFinalized = fails && fault.target.function == "C_CloseSession" ? 1 : 0;
    return expected;
}

struct StatusRow {
    CK_RV result;
    HRESULT status;
};

// Any other result is NTE_INTERNAL_ERROR.
constexpr StatusRow statusRows[] = {
    {CKR_PIN_INCORRECT, SCARD_W_WRONG_CHV},
    {CKR_PIN_INVALID, SCARD_W_WRONG_CHV},
    {CKR_PIN_LEN_RANGE, SCARD_W_WRONG_CHV},
    {CKR_PIN_LOCKED, SCARD_W_CHV_BLOCKED},
    {CKR_PIN_EXPIRED, NTE_PASSWORD_CHANGE_REQUIRED},
    {CKR_USER_PIN_NOT_INITIALIZED, SCARD_W_CARD_NOT_AUTHENTICATED},
    {CKR_FUNCTION_CANCELED, NTE_USER_CANCELLED},
    {CKR_BUFFER_TOO_SMALL, NTE_BUFFER_TOO_SMALL},
    {CKR_DATA_LEN_RANGE, NTE_BAD_LEN},
    {CKR_TOKEN_NOT_PRESENT, SCARD_W_REMOVED_CARD},
    {CKR_DEVICE_REMOVED, SCARD_W_REMOVED_CARD},
    {CKR_SLOT_ID_INVALID, SCARD_W_REMOVED_CARD},
    {CKR_TOKEN_NOT_RECOGNIZED, SCARD_W_UNSUPPORTED_CARD},
    {CKR_MECHANISM_INVALID, NTE_NOT_SUPPORTED},
    {CKR_MECHANISM_PARAM_INVALID, NTE_NOT_SUPPORTED},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, NTE_NOT_SUPPORTED},
    {CKR_FUNCTION_NOT_SUPPORTED, NTE_NOT_SUPPORTED},
    {CKR_HOST_MEMORY, NTE_NO_MEMORY},
    {CKR_DEVICE_MEMORY, NTE_NO_MEMORY},
};

SECURITY_STATUS statusOf(const FaultCase& fault)
{
    const CK_RV result =
        fault.kind == FaultKind::bufferTooSmall ? CKR_BUFFER_TOO_SMALL : fault.code;
    const auto* const row = std::ranges::find(statusRows, result, &StatusRow::result);
    const bool found = row != std::end(statusRows);
    return static_cast<SECURITY_STATUS>(found ? row->status : NTE_INTERNAL_ERROR);
}

// In modern, the dialog warns before the last try.
constexpr std::string_view pinQuery = "C_GetTokenInfo";

// What modern makes of the first failure.
enum class Means { nothing, failure, existingLogin, lostLibrary, certificateKey };

struct MeaningRow {
    CK_RV result;
    const char* function;  // null: any
    bool publicKeysOnly;
    Means means;
};

// Any other failure is one.
constexpr MeaningRow meaningRows[] = {
    {CKR_USER_ALREADY_LOGGED_IN, "C_Login", false, Means::existingLogin},
    {CKR_CRYPTOKI_NOT_INITIALIZED, nullptr, false, Means::lostLibrary},
    {CKR_USER_NOT_LOGGED_IN, nullptr, true, Means::certificateKey},
};

bool usesPublicKey(TokenOperation operation)
{
    return operation == TokenOperation::rsaVerify || operation == TokenOperation::ecVerify ||
           operation == TokenOperation::rsaEncrypt;
}

Means meaningOf(const OperationRow& row, const FaultCase& fault)
{
    if (fault.isLie() || fault.target.function == pinQuery)
        return Means::nothing;
    for (const MeaningRow& meaning : meaningRows) {
        if (fault.kind == FaultKind::code && fault.code == meaning.result &&
            (meaning.function == nullptr || fault.target.function == meaning.function) &&
            (!meaning.publicKeysOnly || usesPublicKey(row.operation)))
            return meaning.means;
    }
    return Means::failure;
}

std::string modernCalls(const Sequence& good, const FaultCase& fault, Means means)
{
    const bool fails = means != Means::nothing && means != Means::existingLogin;
    Sequence seen = callsSeen(good, fault, fails);
    if (means == Means::existingLogin)
        std::erase_if(seen, [](const SequenceCall& call) { return call.function == "C_Logout"; });
    if (fault.target.function == pinQuery && fault.kind == FaultKind::code &&
        fault.code == CKR_CRYPTOKI_NOT_INITIALIZED)
        seen.insert(seen.begin() + 1, {{"C_Initialize", 1, 0}, {std::string(pinQuery), 2, 0}});
    if (means == Means::lostLibrary) {
        seen.push_back({"C_Initialize", 1, 0});
        // The user is not asked again.
        std::ranges::copy_if(good, std::back_inserter(seen),
                             [](const SequenceCall& call) { return call.function != pinQuery; });
    }
    return namesOf(seen);
}

// The length of the output as the module takes it from the token.
DWORD lengthTaken(const OperationRow& row, const FaultCase& fault)
{
    OperationRow asked = row;
    asked.room = row.ownRoom != 0 ? row.ownRoom : row.room;
    return lengthTold(asked, fault);
}

// *pcbResult of a success, and what of it the token has not written.
void tellLength(ExpectedOutcome& expected, const OperationRow& row, const FaultCase& fault)
{
    const DWORD taken = lengthTaken(row, fault);
    const bool isSignature =
        row.operation == TokenOperation::rsaSign || row.operation == TokenOperation::ecSign;
    expected.length = isSignature ? row.length : taken;
    if (row.operation != TokenOperation::rsaDecrypt)
        return;
    if (taken > row.room) {
        expected.status = NTE_BUFFER_TOO_SMALL;
        expected.output = false;
    } else {
        expected.zeros = taken - row.length;
    }
}

ExpectedOutcome modernOutcome(const OperationRow& row, const Sequence& good, const FaultCase& fault)
{
    const Means means = meaningOf(row, fault);
    const bool fails = means == Means::failure;
    const bool byCertificate = means == Means::certificateKey;
    const bool copied = row.operation == TokenOperation::rsaDecrypt;
    const bool encrypts = row.operation == TokenOperation::rsaEncrypt;

    ExpectedOutcome expected{};
    expected.calls = modernCalls(good, fault, means);
    if (fails)
        expected.status = statusOf(fault);
    else if (byCertificate && !encrypts)
        expected.status = NTE_BAD_SIGNATURE;
    expected.output = row.output != nullptr && !byCertificate &&
                      (!fails || (!copied && placeOf(good, row.output) < fault.call));
    expected.byCertificate = byCertificate && encrypts;
    const bool told = (row.told == Told::onSuccess && !fails) ||
                      (row.told == Told::withTheOutput && expected.output);
    if (told)
        tellLength(expected, row, fault);
    expected.secret = row.operation == TokenOperation::agreement && !fails;
    expected.initialised = true;
    const bool noSuccess = means != Means::nothing && means != Means::existingLogin;
    expected.sessionsLeft = noSuccess && fault.target.function == "C_CloseSession" ? 1 : 0;
    return expected;
}

}  // namespace

std::string callsOf(const OperationRow& row, Behaviour behaviour)
{
    std::string calls = row.calls;
    if (behaviour == Behaviour::classic)
        return calls;
    // Between "C_Initialize " and " C_Finalize".
    const size_t first = calls.find(' ') + 1;
    const bool asksForPin = calls.find(" C_Login ") != std::string::npos;
    return (asksForPin ? std::string(pinQuery) + " " : "") +
           calls.substr(first, calls.rfind(' ') - first);
}

ExpectedOutcome expectedOutcome(Behaviour behaviour, const OperationRow& row, const Sequence& good,
                                const FaultCase& fault)
{
    return behaviour == Behaviour::modern ? modernOutcome(row, good, fault)
                                          : classicOutcome(row, good, fault);
}

}  // namespace NV::test
