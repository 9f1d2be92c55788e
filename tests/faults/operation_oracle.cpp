// What a fault makes of a token operation:
//
// - A call that fails, throws or is missing ends the work. Every clean-up call that comes after it and
//   undoes a call before it is still made: logout, close, finalise.
// - Any such failure, of the work or of the clean-up, is NTE_INTERNAL_ERROR.
// - CKR_CRYPTOKI_ALREADY_INITIALIZED at the start is not a failure; the operation then leaves the
//   finalise step to the caller that initialised the library.
// - A count or length that lies is limited to the buffer, and the operation succeeds.
// - The output is the token's. The caller receives its length on success only, except from derivation,
//   which writes the length as soon as the key is derived.

#include "operation_oracle.h"

#include <algorithm>
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

}  // namespace

ExpectedOutcome expectedOutcome(const OperationRow& row, const Sequence& good,
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

}  // namespace NV::test
