// Generating the table, and letting a fault strike.

#include "fault_table.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <span>

namespace NV::test {

namespace {

struct Code {
    CK_RV value;
    const char* name;
};

constexpr Code codes[] = {
    {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
    {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
    {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
    {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
    {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
    {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
    {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
    {CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    {0x7391AB, "a code without a name"},
};

// Those of moreResults.
constexpr Code moreCodes[] = {
    {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
    {CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
    {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
    {CKR_PIN_INVALID, "CKR_PIN_INVALID"},
    {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
    {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
    {CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
    {CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED"},
    {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
    {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
    {CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
    {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
    {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
    {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
    {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
    {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
};
static_assert(std::ranges::equal(moreResults, moreCodes, {}, {}, &Code::value));

std::string_view nameOf(CK_RV code)
{
    for (const std::span<const Code> all :
         {std::span<const Code>(codes), std::span<const Code>(moreCodes)}) {
        const auto row = std::ranges::find(all, code, &Code::value);
        if (row != all.end())
            return row->name;
    }
    return "";
}

constexpr FaultKind outputFaults[] = {FaultKind::bufferTooSmall, FaultKind::secondCountLarger,
                                      FaultKind::lengthPastBuffer};

// The forms in which the scripted token records an output buffer.
bool givesBuffer(const std::string& line)
{
    return line.find("=room[") != std::string::npos ||
           line.find("objects=given") != std::string::npos;
}

std::string_view textOf(const FaultCase& fault)
{
    switch (fault.kind) {
    case FaultKind::code:
        return nameOf(fault.code);
    case FaultKind::exception:
        return "an exception";
    case FaultKind::nullEntry:
        return "no entry in the list";
    case FaultKind::valueUnavailable:
        return "a value that cannot be told";
    case FaultKind::bufferTooSmall:
        return "buffer too small, and the length needed";
    case FaultKind::secondCountLarger:
        return "a second count larger than the first";
    default:
        return "a length larger than the buffer";
    }
}

}  // namespace

Sequence sequenceOf(const std::vector<std::string>& lines)
{
    std::map<std::string, uint32_t> calls;
    std::map<std::string, uint32_t> withBuffer;
    Sequence sequence;
    for (const std::string& line : lines) {
        const std::string function = line.substr(0, line.find('('));
        sequence.push_back(
            {function, ++calls[function], givesBuffer(line) ? ++withBuffer[function] : 0});
    }
    return sequence;
}

std::string namesOf(const Sequence& sequence)
{
    std::string names;
    for (const SequenceCall& call : sequence)
        names += (names.empty() ? "" : " ") + call.function;
    return names;
}

std::string FaultCase::name() const
{
    return target.function + ", call " + std::to_string(target.occurrence) + ": " +
           std::string(textOf(*this));
}

std::vector<FaultCase> casesOf(const Sequence& sequence, std::span<const CK_RV> more)
{
    std::vector<CK_RV> results;
    std::ranges::transform(codes, std::back_inserter(results), &Code::value);
    results.insert(results.end(), more.begin(), more.end());
    std::vector<FaultCase> cases;
    for (size_t i = 0; i < sequence.size(); ++i) {
        const SequenceCall& call = sequence[i];
        for (const CK_RV result : results)
            cases.push_back({i, call, FaultKind::code, result});
        cases.push_back({i, call, FaultKind::exception, 0});
        if (call.function == "C_GetAttributeValue")
            cases.push_back({i, call, FaultKind::valueUnavailable, 0});
        if (call.withBuffer != 0) {
            for (const FaultKind kind : outputFaults)
                cases.push_back({i, call, kind, 0});
        }
        // C_GetFunctionList is called as an export: the list is what it gives.
        if (call.occurrence == 1 && call.function != "C_GetFunctionList")
            cases.push_back({i, call, FaultKind::nullEntry, 0});
    }
    return cases;
}

void arm(ScriptedToken& token, const FaultCase& fault)
{
    const SequenceCall& target = fault.target;
    switch (fault.kind) {
    case FaultKind::code:
        if (fault.saysAlreadyInitialized() || fault.saysAlreadyLoggedIn())
            token.failAfterWork(target.function, fault.code, target.occurrence);
        else
            token.fail(target.function, fault.code, target.occurrence);
        break;
    case FaultKind::exception:
        token.throwFrom(target.function, target.occurrence);
        break;
    case FaultKind::nullEntry:
        token.setListEntryNull(target.function);
        break;
    case FaultKind::valueUnavailable:
        token.valueUnavailable(target.occurrence);
        break;
    case FaultKind::bufferTooSmall:
        token.bufferTooSmall(target.function, target.withBuffer);
        break;
    case FaultKind::secondCountLarger:
        token.secondCountLarger(target.function, target.withBuffer);
        break;
    case FaultKind::lengthPastBuffer:
        token.lengthPastBuffer(target.function, target.withBuffer);
        break;
    }
}

CK_FUNCTION_LIST& remadeFunctionList(const ScriptedToken& token)
{
    CK_FUNCTION_LIST* list = nullptr;
    const CK_FUNCTION_LIST exports = token.exports();
    exports.C_GetFunctionList(&list);
    return *list;
}

}  // namespace NV::test
