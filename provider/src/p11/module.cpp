// Loading of a PKCS#11 library, and the discovery of its slots, tokens and mechanisms.

#include "p11/module.h"

#include <algorithm>
#include <functional>
#include <new>
#include <utility>

#include "base/scope_exit.h"
#include "base/text.h"
#include "base/writable_memory.h"
#include "config/config_path.h"
#include "config/mode.h"
#include "logger/operation.h"
#include "p11/library_file.h"
#include "p11/library_life.h"
#include "p11/library_use.h"
#include "p11/p11text.h"

namespace NV {

namespace {

template <typename Function>
Function exportOf(HMODULE library, const char* name)
{
    // Through void*, because GetProcAddress returns a FARPROC for every export.
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

// A repaired list has a null entry for each export that the library does not have.
template <typename Function>
Function present(Function entry)
{
    if (entry == nullptr)
        throw std::bad_function_call();
    return entry;
}

unsigned long asLong(CK_ULONG value)
{
    return value;
}

// The result of the first call of a list query, which asked for the number of entries. A number that
// no token has counts as a failed call.
CK_RV checkedCount(const Site& init, const char* function, CK_RV rv, CK_ULONG count)
{
    if (rv != CKR_OK || count <= maxListedEntries)
        return rv;
    NV_UNDER(ERR, init, "FAILURE: %s() reports %lu entries, more than %lu", function, asLong(count),
             asLong(maxListedEntries));
    return CKR_GENERAL_ERROR;
}

}  // namespace

P11Mechanism::P11Mechanism(std::string name, CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO& info)
    : name_(std::move(name)), type_(type), ulMinKeySize_(info.ulMinKeySize),
      ulMaxKeySize_(info.ulMaxKeySize), flags_(info.flags)
{
}

void P11Slot::addMechanism(CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO& info)
{
    mechanisms_.try_emplace(type, mechanismText(type), type, info);
}

P11Module::P11Module(std::string path) : path_(std::move(path))
{
    const Trace trace(NV_HERE);
    NV_TRC("ARG[0]:%s", path_.c_str());
    trace.leave();
}

P11Module::~P11Module()
{
    const Trace trace = Trace::ofCleanUp(NV_HERE);
    P11Module::clean();
    trace.leave();
}

bool P11Module::load()
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    if (!checkPath(here) || !loadLibrary(here) || !fetchFunctionList(here))
        return trace.leave(false);
    verifyFunctionList(here);
    return trace.leave(true);
}

bool P11Module::checkPath(const Site& load) const
{
    NV_UNDER(TRC, load, "1) Check Precondition");
    if (path_.empty()) {
        NV_UNDER(ERR, load, "FAILURE: the name module is empty");
        return false;
    }
    const std::wstring path = fromUtf8(path_);
    NV_UNDER(DBG, load, "Path (u8) = %s", toUtf8(path).c_str());
    if (libraryLoading().absolutePathAlone && !isAbsolutePath(path)) {
        NV_UNDER(ERR, load, "FAILURE: %s is not an absolute path", path_.c_str());
        return false;
    }
    if (!fileExists(path)) {
        NV_UNDER(ERR, load, "FAILURE: %s file does not exist", path_.c_str());
        return false;
    }
    NV_UNDER(DBG, load, "SUCCESS: %s file exists", path_.c_str());
    return true;
}

bool P11Module::loadLibrary(const Site& load)
{
    NV_UNDER(TRC, load, "2) Load Module");
    if (library_ != nullptr) {
        NV_UNDER(WRN, load, "This module has already been loaded as %p",
                 static_cast<const void*>(library_.get()));
        return false;
    }
    library_ = libraryLoading().load(path_);
    if (library_ == nullptr) {
        NV_UNDER(ERR, load, "FAILURE: Module [%s] cannot be loaded", path_.c_str());
        return false;
    }
    NV_UNDER(DBG, load, "SUCCESS: Module [%s] is loaded as %p", path_.c_str(),
             static_cast<const void*>(library_.get()));
    state_ = "LOADED";
    return true;
}

bool P11Module::fetchFunctionList(const Site& load)
{
    NV_UNDER(TRC, load, "3) Get EntryPoint for C_GetFunctionList()");
    const auto getFunctionList =
        exportOf<CK_C_GetFunctionList>(library_.get(), "C_GetFunctionList");
    if (getFunctionList == nullptr) {
        NV_UNDER(ERR, load, "FAILURE: Failed to get location of C_GetFunctionList()");
        return false;
    }
    NV_UNDER(DBG, load, "SUCCESS: C_GetFunctionList() is located at %p",
             reinterpret_cast<const void*>(getFunctionList));

    NV_UNDER(TRC, load, "4) Call C_GetFunctionList()");
    NV_UNDER(TRC, load, "Call C_GetFunctionList():START");
    CK_RV rv = CKR_GENERAL_ERROR;
    try {
        rv = getFunctionList(&functionList_);
    } catch (...) {
        functionList_ = nullptr;
        NV_UNDER(ERR, load, "Caught Exception.");
        return false;
    }
    NV_UNDER(TRC, load, "Call C_GetFunctionList():END RV=%s", returnValueText(rv));
    if (rv != CKR_OK || functionList_ == nullptr) {
        functionList_ = nullptr;
        NV_UNDER(ERR, load, "FAILURE: Failed to get function list: 0x%lX\n", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    state_ = "INITIALIZED";
    version_ = functionList_->version;
    NV_UNDER(DBG, load, "SUCCESS: PKCS#11 Version %d.%d", version_.major, version_.minor);
    return true;
}

void P11Module::verifyFunctionList(const Site& load)
{
    NV_UNDER(TRC, load, "5) Verify obtained FunctionList (Optional Check)");
    using Initialize = decltype(CK_FUNCTION_LIST::C_Initialize);
    const Initialize listed = functionList_->C_Initialize;
    const auto exported = exportOf<Initialize>(library_.get(), "C_Initialize");
    NV_UNDER(DBG, load, "C_Initialize in LST = [%p]", reinterpret_cast<const void*>(listed));
    NV_UNDER(DBG, load, "C_Initialize in DLL = [%p]", reinterpret_cast<const void*>(exported));
    if (listed == exported) {
        NV_UNDER(DBG, load, "SUCCESS: The address of C_Initialize() is verified");
        return;
    }
    NV_UNDER(WRN, load, "WARNING: The address of C_Initialize() is not match");
    NV_UNDER(DBG, load, "Try to obtain exported entrypoint from DLL");
    if (!repairFunctionList_)
        return;
    NV_UNDER(DBG, load, "Original FuncList = %s", toText(*functionList_).c_str());
    if (mode().keepsLibraryInitialized())
        repairCopy();
    else if (!repairInPlace(load))
        return;
    NV_UNDER(DBG, load, "Updated FuncList = %s", toText(*functionList_).c_str());
}

// Writes into the library's own list.
bool P11Module::repairInPlace(const Site& load)
{
    const WritableMemory list(functionList_, sizeof *functionList_);
    if (!list.writable()) {
        NV_UNDER(ERR, load, "FAILURE: The function list cannot be written");
        return false;
    }
    takeExports(*functionList_);
    return true;
}

// Other threads may call the library through its own list: those of other providers, and the host's.
void P11Module::repairCopy()
{
    ownFunctionList_ = std::make_unique<CK_FUNCTION_LIST>(*functionList_);
    takeExports(*ownFunctionList_);
    functionList_ = ownFunctionList_.get();
}

// A missing export becomes a null entry, which each call through the list tests for.
void P11Module::takeExports(CK_FUNCTION_LIST& list) const
{
#define NV_ENTRY(name, parameters)                                                                 \
    list.name = exportOf<decltype(CK_FUNCTION_LIST::name)>(library_.get(), #name);
    NV_CK_FUNCTIONS(NV_ENTRY)
#undef NV_ENTRY
}

bool P11Module::init()
{
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    if (functionList_ == nullptr) {
        NV_ERR("The library is not initialized");
        return trace.leave(false);
    }
    return trace.leave(mode().keepsLibraryInitialized() ? discoverShared(here)
                                                        : discoverAlone(here));
}

// Between an initialization and a finalization of its own.
bool P11Module::discoverAlone(const Site& init)
{
    LibraryUse use;
    const ScopeExit giveBack([&] { use.giveBack(*functionList_); });
    if (!initializeLibrary(init, use))
        return false;
    const bool result = discover(init);
    return finalizeLibrary(init, use) && result;
}

// In the initialized state that all providers and the rest of the process share.
bool P11Module::discoverShared(const Site& init)
{
    if (!joinLibrary(init))
        return false;
    // Joining may have begun a new one.
    generation_ = LibraryLife::instance().generation();
    const bool discovered = discover(init);
    if (lost_)
        return discoverAgain(init);
    return discovered || leaveLibrary(init);
}

bool P11Module::discoverAgain(const Site& site)
{
    lost_ = false;
    slots_.clear();
    if (std::exchange(begunAgain_, true) ||
        !LibraryLife::instance().resume(site, *functionList_, generation_))
        return leaveLibrary(site);
    return (discover(site) && !lost_) || leaveLibrary(site);
}

// An opening that fails never destroys this object.
bool P11Module::leaveLibrary(const Site& site)
{
    joined_ = false;
    LibraryLife::instance().leave(site, *functionList_);
    return false;
}

bool P11Module::joinLibrary(const Site& init)
{
    if (joined_)
        return true;
    const CK_RV rv = LibraryLife::instance().join(init, *functionList_);
    joined_ = rv == CKR_OK || rv == CKR_CRYPTOKI_ALREADY_INITIALIZED;
    if (!joined_) {
        NV_UNDER(ERR, init, "Error initializing the cryptoki library: 0x%lX\n", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    state_ = "INITIALIZED";
    return true;
}

bool P11Module::discover(const Site& init)
{
    try {
        return readLibraryInfo(init) && readSlots(init);
    } catch (const std::bad_alloc&) {
        NV_UNDER(ERR, init, "Caught Exception.");
        // The entry point tells it.
        if (joined_)
            throw;
        return false;
    } catch (...) {
        NV_UNDER(ERR, init, "Caught Exception.");
        return false;
    }
}

CK_RV P11Module::noted(CK_RV rv)
{
    lost_ = lost_ || rv == CKR_CRYPTOKI_NOT_INITIALIZED;
    return rv;
}

bool P11Module::initializeLibrary(const Site& init, LibraryUse& use)
{
    CK_RV rv = CKR_GENERAL_ERROR;
    try {
        // Ends an initialization by an earlier user of the library. The result does not matter.
        NV_UNDER(TRC, init, "Call C_Finalize():START");
        rv = present(functionList_->C_Finalize)(nullptr);
        NV_UNDER(TRC, init, "Call C_Finalize():END RV=%s", returnValueText(rv));

        NV_UNDER(TRC, init, "Call C_Initialize():START");
        const auto initialize = present(functionList_->C_Initialize);
        // Before the call: a library that throws may be initialized.
        use.initialized();
        rv = initialize(nullptr);
        if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
            use.finalized();
        NV_UNDER(TRC, init, "Call C_Initialize():END RV=%s", returnValueText(rv));
    } catch (...) {
        // Compat: misspelled here and in finalizeLibrary; people search logs for it.
        NV_UNDER(ERR, init, "Caught Enxception");
        return false;
    }
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        NV_UNDER(ERR, init, "Error initializing the cryptoki library: 0x%lX\n", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    state_ = "INITIALIZED";
    return true;
}

bool P11Module::readLibraryInfo(const Site& init)
{
    CK_INFO info{};
    NV_UNDER(TRC, init, "Call C_GetInfo():START");
    const CK_RV rv = noted(present(functionList_->C_GetInfo)(&info));
    NV_UNDER(TRC, init, "Call C_GetInfo():END RV=%s", returnValueText(rv));
    if (rv != CKR_OK) {
        NV_UNDER(ERR, init, "FAILURE: C_GetInfo() : 0x%lX", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    NV_UNDER(DBG, init, "SUCCESS: C_GetInfo()");
    NV_UNDER(DBG, init, "CK_INFO = %s", toText(info).c_str());
    libraryInfo_ = info;
    return true;
}

bool P11Module::readSlots(const Site& init)
{
    CK_ULONG count = 0;
    std::vector<CK_SLOT_ID> ids;
    NV_UNDER(TRC, init, "Call C_GetSlotList():START");
    const auto getSlotList = present(functionList_->C_GetSlotList);
    CK_RV rv = noted(getSlotList(CK_TRUE, nullptr, &count));
    rv = checkedCount(init, "C_GetSlotList", rv, count);
    const bool counted = rv == CKR_OK;
    if (counted) {
        ids.resize(count);
        rv = noted(getSlotList(CK_TRUE, ids.data(), &count));
        // The count may have grown between the calls; the buffer has not.
        ids.resize(std::min<size_t>(ids.size(), count));
    }
    NV_UNDER(TRC, init, "Call C_GetSlotList():END RV=%s", returnValueText(rv));
    if (!counted) {
        NV_UNDER(ERR, init, "FAILURE: C_GetSlotList() : 0x%lX", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    if (rv == CKR_OK) {
        NV_UNDER(DBG, init, "SUCCESS: C_GetSlotList()");
        NV_UNDER(DBG, init, "Present Slot Count = %lu", asLong(static_cast<CK_ULONG>(ids.size())));
        for (size_t i = 0; i < ids.size(); ++i)
            NV_UNDER(DBG, init, "Slot[%d] = %lu", static_cast<int>(i), asLong(ids[i]));
    }
    // Compat: one buffer for all slots. A slot whose information cannot be read shows that of the
    // slot before it.
    CK_SLOT_INFO slotInfo{};
    for (const CK_SLOT_ID id : ids)
        slots_.push_back(readSlot(init, id, slotInfo));
    return true;
}

std::unique_ptr<P11Slot> P11Module::readSlot(const Site& init, CK_SLOT_ID slotId,
                                             CK_SLOT_INFO& slotInfo)
{
    auto slot = std::make_unique<P11Slot>();

    NV_UNDER(DBG, init, "Call C_GetSlotInfo():START");
    CK_RV rv = noted(present(functionList_->C_GetSlotInfo)(slotId, &slotInfo));
    NV_UNDER(TRC, init, "Call C_GetSlotInfo():END RV=%s", returnValueText(rv));
    if (rv == CKR_OK) {
        NV_UNDER(DBG, init, "SUCCESS: C_GetSlotInfo()");
        NV_UNDER(DBG, init, "SlotInfo: %s", toText(slotInfo).c_str());
    }

    CK_TOKEN_INFO tokenInfo{};
    NV_UNDER(TRC, init, "Call C_GetTokenInfo():START");
    rv = noted(present(functionList_->C_GetTokenInfo)(slotId, &tokenInfo));
    NV_UNDER(TRC, init, "Call C_GetTokenInfo():END RV=%s", returnValueText(rv));
    if (rv == CKR_OK) {
        NV_UNDER(DBG, init, "SUCCESS: C_GetTokenInfo()");
        NV_UNDER(DBG, init, "TokenInfo: %s", toText(tokenInfo).c_str());
        slot->setId(slotId);
        slot->setSlotInfo(slotInfo);
        slot->setTokenInfo(tokenInfo);
    }

    readMechanisms(init, slotId, *slot);
    return slot;
}

void P11Module::readMechanisms(const Site& init, CK_SLOT_ID slotId, P11Slot& slot)
{
    CK_ULONG count = 0;
    std::vector<CK_MECHANISM_TYPE> types;
    NV_UNDER(TRC, init, "Call C_GetMechanismList():START");
    const auto getMechanismList = present(functionList_->C_GetMechanismList);
    CK_RV rv = noted(getMechanismList(slotId, nullptr, &count));
    rv = checkedCount(init, "C_GetMechanismList", rv, count);
    const bool counted = rv == CKR_OK;
    const CK_ULONG announced = count;
    if (counted) {
        types.resize(count);
        rv = noted(getMechanismList(slotId, types.data(), &count));
        types.resize(std::min<size_t>(types.size(), count));
    }
    NV_UNDER(TRC, init, "Call C_GetMechanismList():END RV=%s", returnValueText(rv));
    if (counted)
        NV_UNDER(DBG, init, "SUCCESS: C_GetMechanismList(): Count=%d", static_cast<int>(announced));
    if (rv != CKR_OK)
        return;

    for (const CK_MECHANISM_TYPE type : types) {
        CK_MECHANISM_INFO info{};
        NV_UNDER(TRC, init, "Call C_GetMechanismInfo():START");
        rv = noted(present(functionList_->C_GetMechanismInfo)(slotId, type, &info));
        NV_UNDER(TRC, init, "Call C_GetMechanismInfo():END RV=%s", returnValueText(rv));
        if (rv != CKR_OK)
            continue;
        NV_UNDER(TRC, init, "Add Mechanism[%s(0x%04x)]:Flag=0x%08x,MinKeySize=%d,MaxKeySize=%d",
                 mechanismText(type), type, info.flags, static_cast<int>(info.ulMinKeySize),
                 static_cast<int>(info.ulMaxKeySize));
        slot.addMechanism(type, info);
    }
}

bool P11Module::finalizeLibrary(const Site& init, LibraryUse& use)
{
    CK_RV rv = CKR_GENERAL_ERROR;
    try {
        NV_UNDER(TRC, init, "Call C_Finalize():START");
        use.finalized();
        rv = present(functionList_->C_Finalize)(nullptr);
        NV_UNDER(TRC, init, "Call C_Finalize():END RV=%s", returnValueText(rv));
    } catch (...) {
        NV_UNDER(ERR, init, "Caught Enxception");
        return false;
    }
    if (rv != CKR_OK) {
        NV_UNDER(ERR, init, "Error finalizing the cryptoki library: 0x%lX\n", asLong(rv));
        noteResult(rv, returnValueText);
        return false;
    }
    return true;
}

P11Slot* P11Module::firstActiveSlot() const
{
    const auto active = std::ranges::find_if(slots_, [](const auto& slot) {
        return (slot->slotInfo().flags & CKF_TOKEN_PRESENT) != 0 &&
               (slot->tokenInfo().flags & CKF_TOKEN_INITIALIZED) != 0;
    });
    return active != slots_.end() ? active->get() : nullptr;
}

bool P11Module::lock()
{
    const Trace trace(NV_HERE);
    if (initArgs_ != nullptr) {
        if (mutexHandle_ == nullptr && initArgs_->CreateMutex != nullptr) {
            NV_TRC("Call CreateMutex():START");
            const CK_RV rv = initArgs_->CreateMutex(&mutexHandle_);
            NV_TRC("Call CreateMutex():END RV=%s", returnValueText(rv));
        }
        if (mutexHandle_ != nullptr && initArgs_->LockMutex != nullptr)
            lockMutex(NV_HERE);
    }
    return trace.leave(true);
}

// A caller that gets an exception does not unlock.
void P11Module::lockMutex(const Site& lock)
{
    NV_UNDER(TRC, lock, "Call LockMutex():START");
    const CK_RV rv = initArgs_->LockMutex(mutexHandle_);
    try {
        NV_UNDER(TRC, lock, "Call LockMutex():END RV=%s", returnValueText(rv));
    } catch (...) {
        if (initArgs_->UnlockMutex != nullptr)
            initArgs_->UnlockMutex(mutexHandle_);
        throw;
    }
}

bool P11Module::unlock()
{
    constexpr Site here = NV_HERE;
    const Trace trace = Trace::ofCleanUp(here);
    if (initArgs_ != nullptr && mutexHandle_ != nullptr && initArgs_->UnlockMutex != nullptr) {
        NV_CLEAN_UP(TRC, here, "Call UnlockMutex():START");
        const CK_RV rv = initArgs_->UnlockMutex(mutexHandle_);
        NV_CLEAN_UP(TRC, here, "Call UnlockMutex():END RV=%s", returnValueText(rv));
    }
    return trace.leave(true);
}

bool P11Module::clean()
{
    constexpr Site here = NV_HERE;
    const Trace trace = Trace::ofCleanUp(here);
    if (std::exchange(joined_, false)) {
        LibraryLife::instance().leave(here, *functionList_);
    } else if (functionList_ != nullptr && !mode().sharesLibraryWithHost()) {
        NV_CLEAN_UP(TRC, here, "Call C_Finalize(): START");
        quietly([this] { present(functionList_->C_Finalize)(nullptr); });
        NV_CLEAN_UP(TRC, here, "Call C_Finalize(): END");
    }
    if (library_ != nullptr) {
        NV_CLEAN_UP(TRC, here, "Handle = %p", static_cast<const void*>(library_.get()));
        library_.reset();
        NV_CLEAN_UP(TRC, here, "Module [%s] has been unloaded", path_.c_str());
    }
    // The pointers to the function list and the init arguments are not cleared, because clean runs
    // once, at the end.
    if (ownedInitArgs_ != nullptr) {
        NV_CLEAN_UP(TRC, here, "Delete _initArgs[%p]",
                    static_cast<const void*>(ownedInitArgs_.get()));
        ownedInitArgs_.reset();
    }
    return trace.leave(true);
}

P11Module::InitArgs P11Module::replaceInitArgs(InitArgs owned)
{
    InitArgs replaced = std::exchange(ownedInitArgs_, std::move(owned));
    initArgs_ = ownedInitArgs_.get();
    return replaced;
}

P11Module::InitArgs P11Module::replaceInitArgs(CK_C_INITIALIZE_ARGS& foreign)
{
    initArgs_ = &foreign;
    return std::exchange(ownedInitArgs_, nullptr);
}

}  // namespace NV
