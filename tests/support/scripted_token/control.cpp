// The control interface that scripted_token.dll exports: plain functions for the token, the
// recorded calls and the faults.

#include "call.h"
#include "export.h"
#include "function_list.h"

namespace NV::scripted {

namespace {

using Guard = std::lock_guard<std::mutex>;

void reset()
{
    const Guard guard{tokenMutex()};
    token().reset();
    resetFunctionList();
    const uint32_t inside = journal().inside;
    journal() = {};
    journal().inside = inside;
    recording() = true;
}

uint32_t callCount()
{
    const Guard guard{tokenMutex()};
    return static_cast<uint32_t>(journal().calls.size());
}

uint32_t copyOut(const std::string& from, char* text, uint32_t capacity)
{
    if (text != nullptr)
        from.copy(text, capacity);
    return static_cast<uint32_t>(from.size());
}

uint32_t callText(std::string RecordedCall::*part, uint32_t index, char* text, uint32_t capacity)
{
    const Guard guard{tokenMutex()};
    const std::vector<RecordedCall>& calls = journal().calls;
    return index < calls.size() ? copyOut(calls[index].*part, text, capacity) : 0;
}

uint32_t callLine(uint32_t index, char* text, uint32_t capacity)
{
    return callText(&RecordedCall::line, index, text, capacity);
}

uint32_t callName(uint32_t index, char* text, uint32_t capacity)
{
    return callText(&RecordedCall::name, index, text, capacity);
}

uint32_t callThread(uint32_t index)
{
    const Guard guard{tokenMutex()};
    return index < journal().calls.size() ? journal().calls[index].thread : 0;
}

void clearCalls()
{
    const Guard guard{tokenMutex()};
    journal().calls.clear();
}

void setRecording(uint32_t on)
{
    recording() = on != 0;
}

uint32_t addFault(const char* function, test::Fault fault, uint32_t value, uint32_t nth)
{
    const Guard guard{tokenMutex()};
    if (!isFunctionName(function))
        return 0;
    journal().faults.push_back({function, fault, value, nth});
    return 1;
}

void clearFaults()
{
    const Guard guard{tokenMutex()};
    journal().faults.clear();
}

uint32_t struckFaults(test::StruckFault* faults, uint32_t capacity)
{
    const Guard guard{tokenMutex()};
    const auto& struck = journal().struck;
    if (faults != nullptr)
        std::copy_n(struck.begin(), std::min<size_t>(capacity, struck.size()), faults);
    return static_cast<uint32_t>(struck.size());
}

void clearStruckFaults()
{
    const Guard guard{tokenMutex()};
    journal().struck.clear();
}

void changeListMode(test::ListMode mode)
{
    const Guard guard{tokenMutex()};
    setListMode(mode);
}

uint32_t setListEntryNull(const char* function)
{
    const Guard guard{tokenMutex()};
    if (!isFunctionName(function))
        return 0;
    addNullListEntry(function);
    return 1;
}

void makeListReadOnly(uint32_t on)
{
    const Guard guard{tokenMutex()};
    setListReadOnly(on != 0);
}

uint32_t isListReadOnly()
{
    const Guard guard{tokenMutex()};
    return listReadOnly() ? 1 : 0;
}

void clearSlots()
{
    const Guard guard{tokenMutex()};
    token().slots.clear();
}

void putSlot(CK_SLOT_ID id, CK_FLAGS flags, CK_FLAGS tokenFlags)
{
    const Guard guard{tokenMutex()};
    Slot* known = token().slot(id);
    if (known == nullptr) {
        token().slots.push_back({id, flags, tokenFlags});
        return;
    }
    known->flags = flags;
    known->tokenFlags = tokenFlags;
}

void clearObjects()
{
    const Guard guard{tokenMutex()};
    token().objects.clear();
}

CK_OBJECT_HANDLE addObject(CK_SLOT_ID slot, const CK_ATTRIBUTE* attributes, uint32_t count)
{
    const Guard guard{tokenMutex()};
    Object added = objectFrom(attributes, count);
    added.slot = slot;
    return token().addTokenObject(std::move(added));
}

void setSecretPattern(const CK_BYTE* bytes, uint32_t length)
{
    const Guard guard{tokenMutex()};
    token().secretPattern.assign(bytes, bytes + length);
}

void setParametersReread(uint32_t on)
{
    const Guard guard{tokenMutex()};
    token().parametersReread = on != 0;
}

void setHoldsMutex(uint32_t on)
{
    const Guard guard{tokenMutex()};
    token().holdsMutex = on != 0;
}

uint32_t loggedIn(Login who)
{
    return std::ranges::any_of(token().slots,
                               [who](const Slot& each) { return each.login == who; });
}

void state(test::TokenState* told)
{
    const Guard guard{tokenMutex()};
    const CK_C_INITIALIZE_ARGS& arguments = token().initArguments;
    told->initialised = token().initialised;
    told->openSessions = static_cast<uint32_t>(token().sessions.size());
    told->userLoggedIn = loggedIn(Login::user);
    told->securityOfficerLoggedIn = loggedIn(Login::securityOfficer);
    told->objects = static_cast<uint32_t>(token().objects.size());
    told->sequenceViolations = journal().sequenceViolations;
    told->overlappingCalls = journal().overlappingCalls;
    told->initArgumentsGiven = token().initArgumentsGiven;
    told->initFlags = arguments.flags;
    told->callbacksGiven = (arguments.CreateMutex ? 1U : 0U) + (arguments.DestroyMutex ? 1U : 0U) +
                           (arguments.LockMutex ? 1U : 0U) + (arguments.UnlockMutex ? 1U : 0U);
    told->sessionsFinalized = journal().sessionsFinalized;
    told->loginsFinalized = journal().loginsFinalized;
}

// Not under tokenMutex: a callback may wait.
CK_RV callMutexCallback(test::MutexCallback which, void* mutex, void** created)
{
    CK_C_INITIALIZE_ARGS arguments{};
    {
        const Guard guard{tokenMutex()};
        arguments = token().initArguments;
    }
    if (which == test::MutexCallback::create)
        return arguments.CreateMutex ? arguments.CreateMutex(created) : CKR_GENERAL_ERROR;

    CK_RV(NV_CK_CALL * callback)(void*) = arguments.DestroyMutex;
    if (which == test::MutexCallback::lock)
        callback = arguments.LockMutex;
    if (which == test::MutexCallback::unlock)
        callback = arguments.UnlockMutex;
    return callback ? callback(mutex) : CKR_GENERAL_ERROR;
}

constexpr test::ScriptedTokenControl kControl{
    .reset = reset,
    .callCount = callCount,
    .callLine = callLine,
    .callName = callName,
    .callThread = callThread,
    .clearCalls = clearCalls,
    .setRecording = setRecording,
    .addFault = addFault,
    .clearFaults = clearFaults,
    .struckFaults = struckFaults,
    .clearStruckFaults = clearStruckFaults,
    .setListMode = changeListMode,
    .setListEntryNull = setListEntryNull,
    .setListReadOnly = makeListReadOnly,
    .listReadOnly = isListReadOnly,
    .clearSlots = clearSlots,
    .putSlot = putSlot,
    .clearObjects = clearObjects,
    .addObject = addObject,
    .setSecretPattern = setSecretPattern,
    .setParametersReread = setParametersReread,
    .setHoldsMutex = setHoldsMutex,
    .state = state,
    .callMutexCallback = callMutexCallback,
};

}  // namespace

}  // namespace NV::scripted

extern "C" NV_EXPORTED const NV::test::ScriptedTokenControl* ScriptedTokenControl()
{
    return &NV::scripted::kControl;
}
