// One PKCS#11 library: loading, repair of its function list, and the discovery of its slots,
// tokens and mechanisms. The call layer owns it and makes all later calls.

#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/loaded_library.h"
#include "logger/trace.h"
#include "p11/cryptoki.h"
#include "p11/library_use.h"

namespace NV {

// More slots, mechanisms or objects than this count as a failed call of the list.
inline constexpr CK_ULONG maxListedEntries = 65536;

// A mechanism of a slot, as C_GetMechanismInfo describes it.
class P11Mechanism {
public:
    P11Mechanism(std::string name, CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO& info);
    virtual ~P11Mechanism() = default;
    P11Mechanism(const P11Mechanism&) = default;
    P11Mechanism& operator=(const P11Mechanism&) = default;

    // The CKM_ identifier, or "UNKNOWN".
    const std::string& name() const { return name_; }
    CK_MECHANISM_TYPE type() const { return type_; }
    CK_ULONG minKeySize() const { return ulMinKeySize_; }
    CK_ULONG maxKeySize() const { return ulMaxKeySize_; }
    CK_FLAGS flags() const { return flags_; }

private:
    std::string name_;
    CK_MECHANISM_TYPE type_;
    CK_ULONG ulMinKeySize_;
    CK_ULONG ulMaxKeySize_;
    CK_FLAGS flags_;
};

// A slot with the token in it. The identifier and the information are zero when the token
// information could not be read.
class P11Slot {
public:
    using Mechanisms = std::map<CK_MECHANISM_TYPE, P11Mechanism>;

    P11Slot() = default;
    virtual ~P11Slot() = default;
    P11Slot(const P11Slot&) = delete;
    P11Slot& operator=(const P11Slot&) = delete;

    CK_SLOT_ID id() const { return id_; }
    const CK_SLOT_INFO& slotInfo() const { return slotInfo_; }
    const CK_TOKEN_INFO& tokenInfo() const { return tokenInfo_; }
    const Mechanisms& mechanisms() const { return mechanisms_; }
    // Set by the provider on the slot that it serves.
    bool chosen() const { return chosen_; }

    void setId(CK_SLOT_ID id) { id_ = id; }
    void setSlotInfo(const CK_SLOT_INFO& info) { slotInfo_ = info; }
    void setTokenInfo(const CK_TOKEN_INFO& info) { tokenInfo_ = info; }
    // Ignores a second mechanism of a type.
    void addMechanism(CK_MECHANISM_TYPE type, const CK_MECHANISM_INFO& info);
    void setChosen(bool chosen) { chosen_ = chosen; }

private:
    CK_SLOT_ID id_ = 0;
    CK_SLOT_INFO slotInfo_{};
    CK_TOKEN_INFO tokenInfo_{};
    Mechanisms mechanisms_;
    bool chosen_ = false;
};

// Owns the loaded library. load, init and the destructor run once each and take no lock: nothing
// else in the process may use the library at that time.
class P11Module {
public:
    // The path is UTF-8.
    explicit P11Module(std::string path);
    virtual ~P11Module();
    P11Module(const P11Module&) = delete;
    P11Module& operator=(const P11Module&) = delete;

    // Loads the library, gets its function list, and repairs the list when it does not match the
    // library's exports. True when the list is usable. A second call returns false. Throws
    // std::filesystem::filesystem_error when the file system cannot tell whether the file exists.
    virtual bool load();

    // The discovery: library information, slots with a token, their mechanisms. In the classic
    // behaviour, the library is finalized afterwards; in the modern one, it stays initialized until
    // the module is destroyed. A second call appends the slots again.
    virtual bool init();

    // For an opening in modern that has met CKR_CRYPTOKI_NOT_INITIALIZED: initializes the library again,
    // and repeats the discovery with new slots; the old ones are gone. Works once; init may have used it.
    // False if it cannot, and the library is then left: nothing can be asked of it.
    bool discoverAgain(const Site& site);

    // Finalizes and unloads the library and frees owned init arguments. For the destructor. What is
    // finalized in the modern behaviour: see LibraryLife.
    virtual bool clean();

    // A lock that uses the callbacks of the init arguments. Without init arguments nothing is
    // locked. Always true. After an exception of lock nothing is locked; unlock does not throw.
    virtual bool lock();
    virtual bool unlock();

    // Null until load succeeded. It belongs to the library, except that modern repairs a copy.
    CK_FUNCTION_LIST* functionList() const { return functionList_; }
    // "UNINITIALIZED", "LOADED" or "INITIALIZED". Informational: nothing depends on it.
    const std::string& state() const { return state_; }
    const std::string& path() const { return path_; }
    // Whether the library stays initialized while the module lives.
    bool joined() const { return joined_; }
    CK_VERSION cryptokiVersion() const { return version_; }
    const CK_INFO& libraryInfo() const { return libraryInfo_; }
    const std::vector<std::unique_ptr<P11Slot>>& slots() const { return slots_; }
    // The slot that the provider serves: the first one with an initialized token in it. Null when
    // there is none. The module owns it.
    P11Slot* firstActiveSlot() const;

    CK_C_INITIALIZE_ARGS* initArgs() const { return initArgs_; }
    bool ownsInitArgs() const { return ownedInitArgs_ != nullptr; }

    using InitArgs = std::unique_ptr<CK_C_INITIALIZE_ARGS>;
    // Replaces the init arguments, by ones that the module owns or by ones of the caller, which must
    // outlive the module. Returns the replaced ones if the module owned them, otherwise null. Keep
    // them until the library has taken the new ones.
    InitArgs replaceInitArgs(InitArgs owned);
    InitArgs replaceInitArgs(CK_C_INITIALIZE_ARGS& foreign);

    void setRepairFunctionList(bool repair) { repairFunctionList_ = repair; }

private:
    // The steps of load and of init. They log under the name of the operation.
    bool checkPath(const Site& load) const;
    bool loadLibrary(const Site& load);
    bool fetchFunctionList(const Site& load);
    void verifyFunctionList(const Site& load);
    // False if the system refuses, which is logged.
    bool repairInPlace(const Site& load);
    void repairCopy();
    void takeExports(CK_FUNCTION_LIST& list) const;

    bool discoverAlone(const Site& init);
    bool discoverShared(const Site& init);
    bool discover(const Site& init);
    bool joinLibrary(const Site& init);
    // Always false.
    bool leaveLibrary(const Site& site);
    // Returns the result of a call of the discovery.
    CK_RV noted(CK_RV rv);
    bool initializeLibrary(const Site& init, LibraryUse& use);
    bool readLibraryInfo(const Site& init);
    bool readSlots(const Site& init);
    std::unique_ptr<P11Slot> readSlot(const Site& init, CK_SLOT_ID slotId, CK_SLOT_INFO& slotInfo);
    void readMechanisms(const Site& init, CK_SLOT_ID slotId, P11Slot& slot);
    bool finalizeLibrary(const Site& init, LibraryUse& use);

    void lockMutex(const Site& lock);

    std::string state_ = "UNINITIALIZED";
    std::string path_;
    LoadedLibrary library_;
    CK_VERSION version_{};
    CK_INFO libraryInfo_{};
    CK_FUNCTION_LIST* functionList_ = nullptr;  // the library's, or ownFunctionList_
    std::unique_ptr<CK_FUNCTION_LIST> ownFunctionList_;
    CK_C_INITIALIZE_ARGS* initArgs_ = nullptr;  // ownedInitArgs_, or the caller's
    InitArgs ownedInitArgs_;
    std::vector<std::unique_ptr<P11Slot>> slots_;
    bool repairFunctionList_ = true;
    bool joined_ = false;
    uint32_t generation_ = 0;  // of the library's life, when it was joined
    bool lost_ = false;        // the discovery has met CKR_CRYPTOKI_NOT_INITIALIZED
    bool begunAgain_ = false;
    CK_VOID_PTR mutexHandle_ = nullptr;
};

}  // namespace NV
