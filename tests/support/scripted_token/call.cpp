// Records calls, applies faults, and checks which thread may call when.

#include "call.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

namespace NV::scripted {

namespace {

thread_local bool throughList = false;

// Not mapped, and aligned.
// NOLINTNEXTLINE(performance-no-int-to-ptr)
volatile int* const nowhere = reinterpret_cast<int*>(ULONG_PTR{0x7390});

void printLine(std::string_view function)
{
    const std::string line = "scripted line in " + std::string(function) + "\n{\"steps\": 1}\n";
    static_cast<void>(std::fputs(line.c_str(), stdout));
    static_cast<void>(std::fflush(stdout));
}

bool actsOnBuffer(test::Fault fault)
{
    return fault == test::Fault::bufferTooSmall || fault == test::Fault::secondCountLarger ||
           fault == test::Fault::lengthPastBuffer;
}

bool isLie(test::Fault fault)
{
    return actsOnBuffer(fault) || fault == test::Fault::valueUnavailable ||
           fault == test::Fault::claims;
}

constexpr size_t mostStruck = 64;

// Of several faults that apply to one call, one of the first kind here acts, and of a kind the last one.
// Behind the work, a lie still has acted on the output.
enum class Acts { throws, answers, throwsAfterWork, answersAfterWork, lies, otherwise };

Acts howActs(test::Fault fault)
{
    using test::Fault;
    constexpr std::pair<Fault, Acts> kinds[] = {
        {Fault::throwException, Acts::throws},
        {Fault::returnValue, Acts::answers},
        {Fault::throwAfterWork, Acts::throwsAfterWork},
        {Fault::returnAfterWork, Acts::answersAfterWork},
    };
    const auto* const row = std::ranges::find(kinds, fault, &std::pair<Fault, Acts>::first);
    if (row != std::end(kinds))
        return row->second;
    return isLie(fault) ? Acts::lies : Acts::otherwise;
}

// Without those that another one overrules, the one that decides the result first.
std::vector<PlannedFault> acting(const std::vector<PlannedFault>& striking)
{
    std::map<Acts, PlannedFault> last;
    for (const PlannedFault& planned : striking)
        last.insert_or_assign(howActs(planned.fault), planned);
    if (last.contains(Acts::throws) || last.contains(Acts::answers))
        return {last.begin()->second};
    if (last.contains(Acts::throwsAfterWork))
        last.erase(Acts::answersAfterWork);
    std::vector<PlannedFault> faults;
    for (auto& [kind, planned] : last)
        faults.push_back(std::move(planned));
    return faults;
}

// The faults that apply to this call; a fault for a single call is removed by it. The name is a
// string literal.
std::vector<PlannedFault> strike(const char* function, bool bufferGiven)
{
    std::vector<PlannedFault> striking;
    std::erase_if(journal().faults, [&](PlannedFault& planned) {
        if (planned.function != function || (actsOnBuffer(planned.fault) && !bufferGiven))
            return false;
        if (planned.nth > 1) {
            --planned.nth;
            return false;
        }
        striking.push_back(planned);
        return planned.nth == 1;
    });
    for (const PlannedFault& planned : acting(striking)) {
        if (journal().struck.size() < mostStruck)
            journal().struck.push_back({function, planned.fault, planned.value});
    }
    return striking;
}

void record(std::string_view function, const Line& arguments)
{
    const uint32_t thread = GetCurrentThreadId();
    if (recording()) {
        const std::string name = std::string(throughList ? "list:" : "").append(function);
        journal().calls.push_back({name, name + "(" + arguments.str() + ")", thread});
    }
    // The function list may be fetched at any time: it does not depend on the state of the library.
    if (token().initialised && journal().sequenceThread != thread &&
        function != "C_GetFunctionList")
        ++journal().sequenceViolations;
}

}  // namespace

void throwScripted(std::string_view function)
{
    throw std::runtime_error("scripted fault in " + std::string(function));
}

Journal& journal()
{
    static Journal theJournal;
    return theJournal;
}

ListCall::ListCall()
{
    throughList = true;
}

ListCall::~ListCall()
{
    throughList = false;
}

Arrival::Inside::Inside()
{
    const std::lock_guard guard{tokenMutex()};
    if (journal().inside++ != 0)
        ++journal().overlappingCalls;
}

Arrival::Inside::~Inside()
{
    {
        const std::lock_guard guard{tokenMutex()};
        --journal().inside;
    }
    SetLastError(test::kLastError);
}

Arrival::MutexHeld::MutexHeld()
{
    {
        const std::lock_guard guard{tokenMutex()};
        mutex_ = token().heldMutex;
        callbacks_ = token().initArguments;
    }
    // Not under tokenMutex: the callback may wait.
    if (mutex_ != nullptr)
        callbacks_.LockMutex(mutex_);
}

Arrival::MutexHeld::~MutexHeld()
{
    if (mutex_ == nullptr)
        return;
    callbacks_.UnlockMutex(mutex_);
    bool finalised = false;
    {
        const std::lock_guard guard{tokenMutex()};
        finalised = token().heldMutex != mutex_;
    }
    if (finalised)
        callbacks_.DestroyMutex(mutex_);
}

Arrival::Arrival(const char* function, const Line& arguments, const void* buffer)
{
    std::vector<PlannedFault> striking;
    {
        const std::lock_guard guard{tokenMutex()};
        record(function, arguments);
        striking = strike(function, buffer != nullptr);
    }
    for (const PlannedFault& planned : striking) {
        if (planned.fault == test::Fault::delay)
            Sleep(planned.value);
    }
    for (const PlannedFault& planned : striking) {
        if (planned.fault == test::Fault::crash)
            *nowhere = 1;
        if (planned.fault == test::Fault::exitProcess)
            std::_Exit(static_cast<int>(planned.value));
        if (planned.fault == test::Fault::print)
            printLine(function);
        if (planned.fault == test::Fault::throwException)
            throwScripted(function);
        if (planned.fault == test::Fault::throwAfterWork)
            throwsAfterWork_ = true;
        if (planned.fault == test::Fault::returnValue)
            answer_ = planned.value;
        if (planned.fault == test::Fault::returnAfterWork)
            answerAfterWork_ = planned.value;
        if (isLie(planned.fault))
            lie_ = {planned.fault, planned.value};
    }
}

}  // namespace NV::scripted
