// The world of one program: the scripted token, the user at the PIN dialog, the log, memory, and the
// model, which knows what the module must answer.

#pragma once

#include "base/cng.h"

#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "../target.h"
#include "answer.h"
#include "memory.h"
#include "rules.h"
#include "scripted_token.h"
#include "token_model.h"

namespace NV::fuzz {

// The operands of an instruction. After the last one come zeros.
using Operands = Input;

struct Key {
    KeyFacts facts;
    uint64_t serial = 0;  // in the order of their making, which does not depend on addresses
    // Shared, as by the module in classic: closing one handle of a key empties the values of all.
    std::map<std::wstring, std::shared_ptr<Bytes>> properties;
};

struct Secret {
    Bytes bytes;
    uint64_t serial = 0;
};

// What the module must know of an open provider.
struct ProviderModel {
    NCRYPT_PROV_HANDLE handle = 0;
    bool served = true;  // has a slot, and so algorithms
    // By name. A name that was asked for in vain has an entry without a key.
    std::map<std::wstring, std::optional<Key>> filed;
    std::map<NCRYPT_KEY_HANDLE, Key> opened;
    std::map<NCRYPT_KEY_HANDLE, Key> imported;
    std::map<std::wstring, Bytes> properties;

    Key* openedOrImported(NCRYPT_KEY_HANDLE key);
};

// A buffer of exactly its size for a result, or none.
class Output {
public:
    Output(size_t size, bool null);

    PBYTE data() { return bytes_.get(); }
    DWORD size() const { return size_; }
    bool null() const { return bytes_ == nullptr; }
    bool untouched() const { return holds({}); }
    bool untouchedFrom(size_t place) const;
    // At its beginning; the rest is untouched.
    bool holds(const Bytes& bytes) const;

private:
    static constexpr BYTE filler = 0xEE;

    std::unique_ptr<BYTE[]> bytes_;
    DWORD size_;
};

// A place for a length or a handle, or none.
template <typename Value>
class Place {
public:
    explicit Place(bool null = false) : null_(null) {}

    Value* pointer() { return null_ ? nullptr : &value_; }
    Value value() const { return value_; }
    void set(Value value) { value_ = value; }
    bool null() const { return null_; }
    bool untouched() const { return value_ == filler; }

private:
    static constexpr Value filler = static_cast<Value>(0xEEEEEEEEEEEEEEEE);

    Value value_ = filler;
    bool null_;
};

class World {
public:
    World();
    ~World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Before and after a program. `tokenKind` chooses the keys on the token. `end` frees everything.
    void begin(uint8_t tokenKind);
    void end();

    // Makes a call of the module's table and checks what it leaves on the token.
    template <typename Call>
    Answer call(const char* name, Reach reach, const Call& call);
    // Whether the call succeeded. Ends the run by the rules of the behaviour.
    static bool judge(const Answer& answer, const Expected& expected, Reach reach);
    static bool isUncertain(const Answer& answer)
    {
        return rules.claimsMakeOutputs && answer.by.claim;
    }
    // A call without disturbances whose answer is only used.
    template <typename Call>
    SECURITY_STATUS ask(const Call& call);

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& table() const { return *table_; }
    test::ScriptedToken& token() { return token_; }

    // Handles by an operand: mostly one that is open, sometimes one that was freed, one that never
    // was, a null one, or one of another kind.
    NCRYPT_PROV_HANDLE pickProvider(uint8_t operand) const;
    NCRYPT_KEY_HANDLE pickKey(const ProviderModel* provider, uint8_t operand) const;
    NCRYPT_SECRET_HANDLE pickSecret(uint8_t operand) const;
    // Of any provider, and live: the module looks nothing up. 0: there is none.
    NCRYPT_KEY_HANDLE pickPeer(uint8_t operand) const;

    ProviderModel* find(NCRYPT_PROV_HANDLE handle);
    const Key* findKey(NCRYPT_KEY_HANDLE handle);
    // The answer of every operation to a handle without a provider.
    Expected withoutProvider(NCRYPT_PROV_HANDLE handle) const;

    ProviderModel& addProvider(NCRYPT_PROV_HANDLE handle);
    void removeProvider(NCRYPT_PROV_HANDLE handle);
    uint64_t nextSerial() { return ++serial_; }
    // Asks the module for what the model cannot know after a disturbance. The keys of a provider that
    // was just opened, perhaps from a token that lied: false if that is not clear.
    bool learnProvider(ProviderModel& provider, const Disturbance& by);
    // In the order of the enumeration. Nothing for an entry without a key.
    std::vector<std::optional<std::wstring>> keyNames(NCRYPT_PROV_HANDLE provider);
    void learnRegistry(NCRYPT_PROV_HANDLE handle);
    bool isOpenInModule(NCRYPT_PROV_HANDLE handle);

    PinOutcome pinOutcome() const;
    void setPin(Pin pin) { pin_ = pin; }

    void setLog(bool on, uint32_t failingRecord);
    void setFailingAllocation(uint32_t nth) { untilNoMemory_ = nth; }
    // Something that is not the module has used the token.
    void tokenWasUsed() { before_ = token_.state(); }
    const CK_FUNCTION_LIST& library() const { return library_; }
    // Ends what a failed clean-up call has left, and all faults.
    void settleToken();

    size_t secretsInModule() const;

    std::vector<ProviderModel> providers;
    std::set<NCRYPT_PROV_HANDLE> emptyEntries;  // of the registry
    std::map<NCRYPT_SECRET_HANDLE, Secret> secrets;
    std::vector<uint32_t*> enumerations;
    std::vector<NCRYPT_PROV_HANDLE> freedProviders;
    std::vector<NCRYPT_KEY_HANDLE> freedKeys;

private:
    // Lets the disturbances act while it exists.
    class Window {
    public:
        explicit Window(World& world);
        ~Window();
        Window(const Window&) = delete;
        Window& operator=(const Window&) = delete;

    private:
        World& world_;
    };

    template <typename Call>
    static Answer guarded(const Call& call);
    void finishCall(const char* name, Reach reach, Answer& answer);
    void checkToken(Reach reach, const std::vector<test::StruckFault>& struck);
    void makeToken(uint8_t kind);
    void addKey(const char* certificate, const KeyFacts& facts, const Bytes& id, int pairs);

    test::ScriptedToken token_;
    CK_FUNCTION_LIST library_;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table_ = nullptr;
    std::map<std::string, Bytes> fixtures_;
    std::vector<KeyFacts> tokenKeys_;
    std::vector<KeyFacts> authorities_;  // no keys, unless the token tells of public keys
    test::TokenState before_{};
    Pin pin_ = Pin::right;
    uint32_t untilNoMemory_ = 0;
    bool tokenPresent_ = true;
    uint64_t serial_ = 0;
};

// The properties that a key has from the beginning.
void addKeyProperties(Key& key);

// FreeBuffer does not release the names of a record.
void releaseRecord(const NCryptKeyName& record);

// The calls of the table that the run has made, for the report.
uint64_t& callCount();

// Whether to print each call: KEYWARDEN_SHOW_CALLS is set.
bool showsCalls();

template <typename Call>
Answer World::guarded(const Call& call)
{
    Answer answer;
    const long blocks = liveBlocks();
    try {
        answer.status = call();
    } catch (const std::out_of_range&) {
        answer.left = Left::unknownHandle;
    } catch (const std::filesystem::filesystem_error&) {
        answer.left = Left::logError;
    } catch (const std::bad_alloc&) {
        answer.left = Left::noMemory;
    }
    answer.blocks = liveBlocks() - blocks;
    return answer;
}

template <typename Call>
Answer World::call(const char* name, Reach reach, const Call& call)
{
    Answer answer;
    {
        const Window window(*this);
        answer = guarded(call);
    }
    finishCall(name, reach, answer);
    return answer;
}

template <typename Call>
SECURITY_STATUS World::ask(const Call& call)
{
    const Answer answer = guarded(call);
    HOLDS(answer.left == Left::normally);
    return answer.status;
}

}  // namespace NV::fuzz
