// The hooks of the functions of a PKCS#11 library.

#include "system/call_watch.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "base/writable_memory.h"
#include "p11/p11text.h"
#include "system/call_hook.h"

namespace NV::tool {

namespace {

CallWatch* current = nullptr;

template <typename Work>
CK_RV watched(const char* function, const Work& work)
{
    CallWatch* watch = current;
    if (watch == nullptr)
        return work();
    watch->begin(function);
    try {
        const CK_RV rv = work();
        watch->end(function, rv);
        return rv;
    } catch (...) {
        watch->end(function, CKR_FUNCTION_FAILED);
        throw;
    }
}

// A tag for each function.
#define NV_TAG(name, parameters)                                                                   \
    struct Tag_##name {                                                                            \
        template <typename Work>                                                                   \
        static CK_RV around(const Work& work)                                                      \
        {                                                                                          \
            return watched(#name, work);                                                           \
        }                                                                                          \
    };
NV_CK_FUNCTIONS(NV_TAG)
#undef NV_TAG

// The list is packed, so its entries cannot be bound to references.
template <typename Change>
void forEachEntry(CK_FUNCTION_LIST& list, const Change& change)
{
    const WritableMemory memory(&list, sizeof list);
    if (!memory.writable())
        return;
#define NV_CHANGE(name, parameters)                                                                \
    {                                                                                              \
        auto entry = list.name;                                                                    \
        change(entry, CallHook<decltype(entry), Tag_##name>());                                    \
        list.name = entry;                                                                         \
    }
    NV_CK_FUNCTIONS(NV_CHANGE)
#undef NV_CHANGE
}

}  // namespace

std::string describe(const FailedCall& call)
{
    return std::string(call.function) + ": " + returnValueText(call.rv);
}

CallWatch::CallWatch(std::shared_ptr<P11Module> module, Listener listener)
    : module_(std::move(module)), listener_(std::move(listener))
{
    current = this;
    forEachEntry(*module_->functionList(),
                 [](auto& entry, auto hook) { decltype(hook)::install(entry); });
}

CallWatch::~CallWatch()
{
    forEachEntry(*module_->functionList(),
                 [](auto& entry, auto hook) { decltype(hook)::remove(entry); });
    current = nullptr;
}

const FailedCall* CallWatch::failureOf(const char* function) const
{
    const auto failed = std::ranges::find_if(failures_, [&](const FailedCall& call) {
        return std::string_view(call.function) == function;
    });
    return failed != failures_.end() ? &*failed : nullptr;
}

void CallWatch::begin(const char* function) const
{
    if (listener_)
        listener_(function);
}

void CallWatch::end(const char* function, CK_RV rv)
{
    if (rv != CKR_OK)
        failures_.push_back({function, rv});
}

}  // namespace NV::tool
