// The scripted token's function list: C_GetFunctionList and the variants of its result.

#include "function_list.h"

#include <cstring>
#include <new>
#include <set>

#include <windows.h>

#include "call.h"
#include "calls.h"

namespace NV::scripted {

namespace {

struct ListScript {
    test::ListMode mode = test::ListMode::exports;
    std::set<std::string> nullEntries;
    bool readOnly = false;
};

ListScript& script()
{
    static ListScript theScript;
    return theScript;
}

// The list that callers get, on pages of its own; they may write to it unless the script says
// otherwise.
CK_FUNCTION_LIST& handedOut()
{
    static void* const pages =
        VirtualAlloc(nullptr, sizeof(CK_FUNCTION_LIST), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (pages == nullptr)
        throw std::bad_alloc();
    return *static_cast<CK_FUNCTION_LIST*>(pages);
}

void protectList(DWORD protection)
{
    static DWORD current = PAGE_READWRITE;
    DWORD previous = 0;
    if (current == protection)
        return;
    current = protection;
    VirtualProtect(&handedOut(), sizeof(CK_FUNCTION_LIST), protection, &previous);
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

// The list as the script wants it.
CK_FUNCTION_LIST wantedList()
{
    CK_FUNCTION_LIST list{};
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
    return list;
}

void makeList()
{
    protectList(PAGE_READWRITE);
    const CK_FUNCTION_LIST wanted = wantedList();
    // Like that of other libraries, a list that is already right is not written: other threads use it.
    if (std::memcmp(&handedOut(), &wanted, sizeof wanted) != 0)
        std::memcpy(&handedOut(), &wanted, sizeof wanted);
    if (script().readOnly)
        protectList(PAGE_READONLY);
}

}  // namespace

void resetFunctionList()
{
    script() = {};
    protectList(PAGE_READWRITE);
}

void setListMode(test::ListMode mode)
{
    script().mode = mode;
}

void addNullListEntry(std::string function)
{
    script().nullEntries.insert(std::move(function));
}

void setListReadOnly(bool readOnly)
{
    script().readOnly = readOnly;
}

bool listReadOnly()
{
    MEMORY_BASIC_INFORMATION pages{};
    VirtualQuery(&handedOut(), &pages, sizeof pages);
    return pages.Protect == PAGE_READONLY;
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
