// The scripted token's function list: C_GetFunctionList and the variants of its result.

#include "function_list.h"

#include <set>

#include "call.h"
#include "calls.h"

namespace NV::scripted {

namespace {

struct ListScript {
    test::ListMode mode = test::ListMode::exports;
    std::set<std::string> nullEntries;
};

ListScript& script()
{
    static ListScript theScript;
    return theScript;
}

// The list that callers get; they may write to it.
CK_FUNCTION_LIST& handedOut()
{
    static CK_FUNCTION_LIST list;
    return list;
}

// A second function for each of the 68, at a different address than the exported one.
template <auto exported>
struct OtherEntry;

template <typename... Arguments, CK_RV(NV_CK_CALL* exported)(Arguments...)>
struct OtherEntry<exported> {
    static CK_RV NV_CK_CALL call(Arguments... arguments)
    {
        const ListCall marked;
        return exported(arguments...);
    }
};

void makeList()
{
    CK_FUNCTION_LIST& list = handedOut();
    list.version = test::kCryptokiVersion;
    const bool allDiffer = script().mode == test::ListMode::allDifferent;
#define NV_FILL(name, parameters) list.name = allDiffer ? &OtherEntry<&::name>::call : &::name;
    NV_CK_FUNCTIONS(NV_FILL)
#undef NV_FILL
    if (script().mode == test::ListMode::differentInitialize)
        list.C_Initialize = &OtherEntry<&::C_Initialize>::call;

    const std::set<std::string>& nulls = script().nullEntries;
#define NV_REMOVE(name, parameters)                                                                \
    if (nulls.contains(#name))                                                                     \
        list.name = nullptr;
    NV_CK_FUNCTIONS(NV_REMOVE)
#undef NV_REMOVE
}

}  // namespace

void resetFunctionList()
{
    script() = {};
}

void setListMode(test::ListMode mode)
{
    script().mode = mode;
}

void addNullListEntry(std::string function)
{
    script().nullEntries.insert(std::move(function));
}

bool isFunctionName(const std::string& name)
{
#define NV_QUOTE(function, parameters) #function,
    static const std::set<std::string> names{NV_CK_FUNCTIONS(NV_QUOTE)};
#undef NV_QUOTE
    return names.contains(name);
}

}  // namespace NV::scripted

using namespace NV::scripted;  // the definition below is a C function outside every namespace

CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR ppFunctionList)
{
    const Line line = Line{}.pointer("functionList", ppFunctionList);
    return serve("C_GetFunctionList", line, Needs::nothing, nullptr, [&](Token&, Lie) {
        if (ppFunctionList == nullptr)
            return CKR_ARGUMENTS_BAD;
        makeList();
        *ppFunctionList = &handedOut();
        return CKR_OK;
    });
}
