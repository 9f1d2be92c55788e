// What the wrappers of the call layer share: how the outcome of a call is logged, and the steps of a
// call. Only the p11*.cpp files include it.

#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <type_traits>

#include "logger/trace.h"
#include "p11/p11.h"
#include "p11/p11text.h"

namespace NV::call_layer {

// How the outcome of a call is logged: "Result = NAME, Elapsed [...]" or "END [...]".
enum class Outcome { result, end };

void logOutcome(const Site& site, const char* name, Outcome outcome, CK_RV rv, double milliseconds);

// Makes the library call between its START and outcome lines, and then calls `after`. Any exception,
// including the one for a null entry, becomes CKR_FUNCTION_FAILED.
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

// A function of the list, with work around the call of it: for the calls that take something from
// the library or give it back. `around` gets a function that makes the call, and returns its
// result. Unlike what follows the call, it runs before any line is written.
template <typename Entry, typename Around>
struct WatchedEntry {
    Entry entry;
    Around around;

    friend bool operator==(const WatchedEntry& watched, std::nullptr_t)
    {
        return watched.entry == nullptr;
    }

    template <typename... Values>
    CK_RV operator()(Values... values) const
    {
        return around([&] { return entry(values...); });
    }
};

template <typename Entry, typename Around>
WatchedEntry<Entry, Around> watched(Entry entry, Around around)
{
    return {entry, around};
}

inline constexpr auto nothingBefore = [] {};
inline constexpr auto nothingAfter = [](CK_RV) {};

// Logs an information structure that a successful call has filled. The heading is "CK_INFO = " or
// similar.
template <typename Info>
auto logInfo(const Site& site, const char* heading, const Info* pInfo)
{
    return [=](CK_RV rv) {
        if (rv == CKR_OK && pInfo != nullptr)
            NV_UNDER(TRC, site, "%s%s", heading, toText(*pInfo).c_str());
    };
}

}  // namespace NV::call_layer

namespace NV {

template <typename Work, typename... Arguments>
CK_RV Pkcs11::traced(const Site& site, const Work& work, const Arguments&... arguments)
{
    const Trace trace(site);
    const std::lock_guard guard(lock_);
    logArguments<LogLevel::DBG>(site, 0, arguments...);
    const CK_RV rv = work();
    lost_ = lost_ || rv == CKR_CRYPTOKI_NOT_INITIALIZED;
    return trace.leaving(rv);
}

template <typename Work>
CK_RV Pkcs11::withFunctionList(const Site& site, const Work& work) const
{
    if (const CK_FUNCTION_LIST* list = functionList())
        return work(*list);
    NV_UNDER(ERR, site, "Function List is not initialized");
    return CKR_GENERAL_ERROR;
}

template <typename Call, typename Before, typename After, typename... Arguments>
CK_RV Pkcs11::call(const Call& which, const Before& before, const After& after,
                   const Arguments&... arguments)
{
    const auto callEntry = [&](const CK_FUNCTION_LIST& list) {
        before();
        return call_layer::guarded(which.site, which.name, which.outcome, which.entryOf(list),
                                   after, arguments.value...);
    };
    return traced(
        which.site, [&] { return withFunctionList(which.site, callEntry); }, arguments...);
}

namespace call_layer {

// Which function a wrapper calls, and how it logs the outcome.
template <typename EntryOf>
struct Call {
    Site site;
    const char* name;
    Outcome outcome;
    EntryOf entryOf;
};

template <typename EntryOf>
Call(Site, const char*, Outcome, EntryOf) -> Call<EntryOf>;

// The same call with work around it; see WatchedEntry.
template <typename EntryOf, typename Around>
auto watchedCall(const Call<EntryOf>& which, Around around)
{
    const auto entryOf = [which, around](const CK_FUNCTION_LIST& list) {
        return watched(which.entryOf(list), around);
    };
    return Call{which.site, which.name, which.outcome, entryOf};
}

}  // namespace call_layer

// A wrapper's place, name, outcome style and entry in the function list. A function reads the
// entry, because a pointer to a member of a packed structure ignores the packing.
#define NV_CALL(function, outcome)                                                                 \
    call_layer::Call                                                                               \
    {                                                                                              \
        NV_HERE, #function, call_layer::Outcome::outcome,                                          \
            [](const CK_FUNCTION_LIST& list) { return list.function; }                             \
    }

// A wrapper without lines of its own.
#define NV_PLAIN_CALL(function, outcome, ...)                                                      \
    call(NV_CALL(function, outcome), call_layer::nothingBefore, call_layer::nothingAfter,          \
         __VA_ARGS__)

}  // namespace NV
