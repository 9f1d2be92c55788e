// What the wrappers of the call layer share: how the outcome of a call is told, and the course of a
// call. Only the p11*.cpp files include it.

#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <type_traits>

#include "logger/trace.h"
#include "p11/p11.h"
#include "p11/p11text.h"

namespace NV::call_layer {

// Logs an error when there is no list.
bool hasFunctionList(const Site& site, const CK_FUNCTION_LIST* list);

// How the outcome of a call is told: "Result = NAME, Elapsed [...]" or "END [...]".
enum class Outcome { Result, End };

void logOutcome(const Site& site, const char* name, Outcome outcome, CK_RV rv, double milliseconds);

// The library call between its START and outcome lines, and what follows it. An exception, that
// for a null entry among them, becomes CKR_FUNCTION_FAILED.
template <typename Entry, typename After, typename... Values>
CK_RV guarded(const Site& site, const char* name, Outcome outcome, Entry entry, const After& after,
              Values... values)
{
    try {
        NV_UNDER(TRC, site, "CALL %s(): START", name);
        if (entry == nullptr)
            throw std::bad_function_call();
        const Stopwatch clock;
        const CK_RV rv = entry(values...);
        logOutcome(site, name, outcome, rv, clock.milliseconds());
        after(rv);
        return rv;
    } catch (...) {
        NV_UNDER(ERR, site, "Caught Exception");
        return CKR_FUNCTION_FAILED;
    }
}

inline constexpr auto nothingBefore = [] {};
inline constexpr auto nothingAfter = [](CK_RV) {};

// Logs an information structure that a successful call has filled.
template <typename Info>
auto logInfo(const Site& site, const char* name, const Info* pInfo)
{
    return [=](CK_RV rv) {
        if (rv == CKR_OK && pInfo != nullptr)
            NV_UNDER(TRC, site, "%s = %s", name, toText(*pInfo).c_str());
    };
}

}  // namespace NV::call_layer

namespace NV {

template <typename Call, typename Before, typename After, typename... Arguments>
CK_RV Pkcs11::call(const Call& which, const Before& before, const After& after,
                   const Arguments&... arguments)
{
    using namespace call_layer;
    const Trace trace(which.site);
    const std::lock_guard guard(lock_);
    logArguments<LogLevel::DBG>(which.site, 0, arguments...);
    CK_RV rv = CKR_GENERAL_ERROR;
    if (const CK_FUNCTION_LIST* list = functionList(); hasFunctionList(which.site, list)) {
        before();
        rv = guarded(which.site, which.name, which.outcome, which.entryOf(*list), after,
                     arguments.value...);
    }
    trace.leave();
    return rv;
}

namespace call_layer {

// Which function a wrapper calls, and how it tells the outcome.
template <typename EntryOf>
struct Call {
    Site site;
    const char* name;
    Outcome outcome;
    EntryOf entryOf;
};

template <typename EntryOf>
Call(Site, const char*, Outcome, EntryOf) -> Call<EntryOf>;

}  // namespace call_layer

// A wrapper's place, name, outcome style and entry in the function list. The entry is read by a
// function, because a pointer to a member of a packed structure loses the packing.
#define NV_CALL(function, outcome)                                                                 \
    call_layer::Call                                                                               \
    {                                                                                              \
        NV_HERE, #function, call_layer::Outcome::outcome,                                          \
            [](const CK_FUNCTION_LIST& list) { return list.function; }                             \
    }

// A wrapper that adds nothing of its own.
#define NV_PLAIN_CALL(function, outcome, ...)                                                      \
    call(NV_CALL(function, outcome), call_layer::nothingBefore, call_layer::nothingAfter,          \
         __VA_ARGS__)

}  // namespace NV
