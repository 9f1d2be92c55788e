// The rows.

#include "provider_cases.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace NV::test {

namespace {

using World = ProviderWorld;

constexpr DWORD room = ProviderWorld::room;
constexpr DWORD everyOperation = 0x3F;

BYTE oldValue[] = {1, 2, 3, 4, 5};
BYTE newValue[] = {6, 7, 8, 9, 10};

#define NV_CALL(world, name) (world).call(&Provider::name, &ProviderWorld::Table::name)

DWORD sizeOf(const Bytes& bytes)
{
    return static_cast<DWORD>(bytes.size());
}

std::string nothing(World&, bool)
{
    return {};
}

// A value that was set is there whole, or it is not there at all.
template <typename Get>
std::string settleValue(bool done, bool hadOld, const Get& get)
{
    BYTE value[8] = {};
    DWORD length = 0;
    const SECURITY_STATUS status = get(value, &length);
    const bool isNew =
        status == ERROR_SUCCESS && length == 5 && std::equal(value, value + 5, newValue);
    const bool isOld =
        hadOld ? status == ERROR_SUCCESS && length == 5 && std::equal(value, value + 5, oldValue)
               : status == NTE_NOT_SUPPORTED;
    return isNew || (!done && isOld) ? "" : "the property is neither as before nor as set; ";
}

std::string settleProviderValue(World& world, bool done, bool hadOld)
{
    return settleValue(done, hadOld, [&](BYTE* value, DWORD* length) {
        return world.provider->GetProviderProperty(L"Note", value, 8, length, 0);
    });
}

std::string settleKeyValue(World& world, bool done)
{
    return settleValue(done, false, [&](BYTE* value, DWORD* length) {
        return world.provider->GetKeyProperty(world.rsa, L"Note", value, 8, length, 0);
    });
}

// A key handle that was written is one that can be freed.
std::string settleKeyHandle(World& world, bool done)
{
    if (world.out.handle == unwrittenHandle)
        return done ? "success without a handle; " : "";
    const bool freed = world.provider->FreeKey(world.out.handle) == ERROR_SUCCESS;
    return freed ? "" : "the handle is that of no key; ";
}

bool isOpen(World& world, NCRYPT_KEY_HANDLE key)
{
    DWORD length = 0;
    return world.provider->GetKeyProperty(key, NCRYPT_NAME_PROPERTY, nullptr, 0, &length, 0) !=
           NTE_INVALID_HANDLE;
}

std::string settleFreedKey(World& world, bool done)
{
    if (!isOpen(world, world.out.handle))
        return "";
    const bool freed = world.provider->FreeKey(world.out.handle) == ERROR_SUCCESS;
    return done || !freed ? "the key is still open; " : "";
}

size_t listedAlgorithms()
{
    return mode().listsKeyAlgorithms() ? 7 : 17;
}

// Compat: in classic, FreeBuffer releases the list and not the names, so the test does.
std::string settleAlgorithms(World& world, bool done)
{
    Outputs& out = world.out;
    const bool given = out.algorithms != nullptr;
    const bool whole = given ? out.length == listedAlgorithms() : out.length == unwrittenNumber;
    const bool ownNames = given && whole && !mode().listsKeyAlgorithms();
    for (DWORD i = 0; ownNames && i < out.length; ++i)
        std::free(out.algorithms[i].pszName);
    std::free(out.algorithms);
    if (!whole)
        return "the list of algorithms is not whole; ";
    return done && !given ? "success without a list; " : "";
}

void freeRecord(NCryptKeyName* record)
{
    if (!mode().listsAlgorithmNames()) {
        std::free(record->pszName);
        std::free(record->pszAlgid);
    }
    std::free(record);
}

std::string settleKeyRecord(World& world, bool done)
{
    Outputs& out = world.out;
    const bool given = out.record != nullptr;
    const bool stateGiven = out.state != nullptr;
    std::string wrong;
    if (given) {
        const bool right = out.record->pszName != nullptr && out.record->pszAlgid != nullptr;
        wrong = right ? "" : "the record is not whole; ";
        freeRecord(out.record);
    }
    std::free(out.state);
    if (given != stateGiven)
        wrong += "a record without a state, or a state without a record; ";
    return wrong + (done && !given ? "success without a record; " : "");
}

// The second key of a list: its state came with the first.
std::string settleNextKeyRecord(World& world, bool done)
{
    const uint32_t index = *static_cast<uint32_t*>(world.out.state);
    const bool given = world.out.record != nullptr;
    std::string wrong = index == (given ? 2U : 1U) ? "" : "the state does not say what was given; ";
    if (!given) {
        std::free(std::exchange(world.out.state, nullptr));
        return wrong + (done ? "success without a record; " : "");
    }
    return wrong + settleKeyRecord(world, done);
}

// A secret is listed under the handle that the caller has, or it is not listed.
std::string settleAgreedSecret(World& world, bool done)
{
    const bool given = world.out.handle != unwrittenHandle;
    if (given)
        world.provider->FreeSecret(world.out.handle);
    if (world.secretsAdded() != 0)
        return "a secret is in the list that nobody has the handle of; ";
    return done && !given ? "success without a secret; " : "";
}

std::string settleFreedSecret(World& world, bool done)
{
    const bool listed = world.secretsAdded() == 1;
    world.provider->FreeSecret(world.out.handle);
    if (world.secretsAdded() != 0)
        return "the secret cannot be freed any more; ";
    return done && listed ? "the secret is still listed; " : "";
}

// --- the registry and the object of a provider ---

// Another part of the process has the library initialised, so that the last C_Finalize shows.
void initialise(World& world)
{
    world.token.exports().C_Initialize(nullptr);
}

void openOne(World& world)
{
    world.openRegistered(&world.registered[0]);
    initialise(world);
}

void openTwo(World& world)
{
    world.openRegistered(&world.registered[0]);
    world.openRegistered(&world.registered[1]);
    initialise(world);
}

std::string settleOpened(World& world, bool done)
{
    const bool given = world.out.handle != 0 && world.out.handle != unwrittenHandle;
    if (!given)
        return done ? "success without a provider; " : "";
    const bool freed = ProviderManager::instance().FreeProvider(world.out.handle) == ERROR_SUCCESS;
    return freed ? "" : "the handle is that of no provider; ";
}

// It is open or it is freed: the answer to freeing it again may be both.
std::string settleFreedProvider(World& world, bool done)
{
    const SECURITY_STATUS again = ProviderManager::instance().FreeProvider(world.registered[0]);
    ProviderManager::instance().clear();
    if (again != ERROR_SUCCESS && again != NTE_INVALID_HANDLE)
        return "the provider cannot be freed any more; ";
    return done && again == ERROR_SUCCESS ? "the provider is still open; " : "";
}

std::string settleCleared(World& world, bool done)
{
    if (!done)
        return "detaching does not end; ";
    const bool freed =
        ProviderManager::instance().FreeProvider(world.registered[0]) == NTE_INVALID_HANDLE;
    ProviderManager::instance().clear();
    return freed ? "" : "a provider is still registered; ";
}

constexpr std::array cases = {
    ProviderCase{"init", Start::closed, MemoryRule::opening, 0, nullptr,
                 [](World& w) -> SECURITY_STATUS {
                     w.provider = std::make_unique<Provider>();
                     return w.provider->init() ? ERROR_SUCCESS : NTE_INTERNAL_ERROR;
                 },
                 [](World& w, bool) -> std::string {
                     w.provider.reset();
                     return "";
                 }},
    ProviderCase{"OpenProvider", Start::closed, MemoryRule::opening, 0, nullptr,
                 [](World& w) { return w.openRegistered(&w.out.handle); }, settleOpened,
                 OnFailure::keepsProvider},
    ProviderCase{"FreeProvider", Start::registered, MemoryRule::plain, 0, openOne,
                 [](World& w) {
                     return w.freeRegistered(w.registered[0]);
                 },
                 settleFreedProvider},
    ProviderCase{"clear", Start::registered, MemoryRule::plain, 0, openTwo,
                 [](World&) -> SECURITY_STATUS {
                     ProviderManager::instance().clear();
                     return ERROR_SUCCESS;
                 },
                 settleCleared},

    ProviderCase{"GetProviderProperty", Start::open, MemoryRule::plain, 36 * sizeof(wchar_t), nullptr,
                 [](World& w) {
                     return NV_CALL(w, GetProviderProperty)(NCRYPT_NAME_PROPERTY,
                                                            w.out.buffer.data(), room,
                                                            &w.out.length, 0);
                 },
                 nothing},
    ProviderCase{"GetKeyProperty", Start::open, MemoryRule::plain, sizeof L"RSA", nullptr,
                 [](World& w) {
                     return NV_CALL(w, GetKeyProperty)(w.rsa, NCRYPT_ALGORITHM_GROUP_PROPERTY,
                                                       w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing},
    ProviderCase{"SetProviderProperty", Start::fresh, MemoryRule::plain, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SetProviderProperty)(L"Note", newValue, 5, 0);
                 },
                 [](World& w, bool done) { return settleProviderValue(w, done, false); },
                 OnFailure::leavesNothing, Stays::value},
    ProviderCase{"SetProviderProperty_again", Start::open, MemoryRule::plain, 0,
                 [](World& w) { NV_CALL(w, SetProviderProperty)(L"Note", oldValue, 5, 0); },
                 [](World& w) {
                     return NV_CALL(w, SetProviderProperty)(L"Note", newValue, 5, 0);
                 },
                 [](World& w, bool done) { return settleProviderValue(w, done, true); }},
    ProviderCase{"SetKeyProperty", Start::fresh, MemoryRule::plain, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SetKeyProperty)(w.rsa, L"Note", newValue, 5, 0);
                 },
                 settleKeyValue, OnFailure::leavesNothing, Stays::value},
    ProviderCase{"IsAlgSupported", Start::open, MemoryRule::plain, 0, nullptr,
                 [](World& w) { return NV_CALL(w, IsAlgSupported)(L"RSA", 0); }, nothing},
    ProviderCase{"EnumAlgorithms", Start::open, MemoryRule::block, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, EnumAlgorithms)(everyOperation, &w.out.length,
                                                       &w.out.algorithms, 0);
                 },
                 settleAlgorithms},

    ProviderCase{"OpenKey_RSA", Start::fresh, MemoryRule::plain, 0, nullptr,
                 [](World& w) { return NV_CALL(w, OpenKey)(&w.out.handle, L"01AB", 0, 0); },
                 settleKeyHandle},
    ProviderCase{"OpenKey_EC", Start::fresh, MemoryRule::plain, 0, nullptr,
                 [](World& w) { return NV_CALL(w, OpenKey)(&w.out.handle, L"0256", 0, 0); },
                 settleKeyHandle},
    ProviderCase{"FreeKey", Start::fresh, MemoryRule::plain, 0,
                 [](World& w) {
                     NV_CALL(w, OpenKey)(&w.out.handle, L"01AB", 0, 0);
                     w.rsaKeyFreed = true;
                 },
                 [](World& w) { return NV_CALL(w, FreeKey)(w.out.handle); }, settleFreedKey},
    ProviderCase{"EnumKeys", Start::open, MemoryRule::block, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, EnumKeys)(nullptr, &w.out.record, &w.out.state, 0);
                 },
                 settleKeyRecord},
    ProviderCase{"EnumKeys_next", Start::open, MemoryRule::block, 0,
                 [](World& w) {
                     NV_CALL(w, EnumKeys)(nullptr, &w.out.record, &w.out.state, 0);
                     freeRecord(std::exchange(w.out.record, nullptr));
                 },
                 [](World& w) {
                     return NV_CALL(w, EnumKeys)(nullptr, &w.out.record, &w.out.state, 0);
                 },
                 settleNextKeyRecord},
    ProviderCase{"ImportKey", Start::open, MemoryRule::plain, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, ImportKey)(0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &w.out.handle,
                                                  w.blob.data(), sizeOf(w.blob), 0);
                 },
                 settleKeyHandle},
    ProviderCase{"ExportKey_RSA", Start::open, MemoryRule::plain, 24 + 3 + 256, nullptr,
                 [](World& w) {
                     return NV_CALL(w, ExportKey)(w.rsa, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr,
                                                  w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing},
    ProviderCase{"ExportKey_EC", Start::open, MemoryRule::plain, 8 + 64, nullptr,
                 [](World& w) {
                     return NV_CALL(w, ExportKey)(w.ec, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr,
                                                  w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing},

    ProviderCase{"SignHash_PKCS1", Start::open, MemoryRule::token, 256, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SignHash)(w.rsa, &w.pkcs1, w.hash.data(), 32,
                                                 w.out.buffer.data(), room, &w.out.length,
                                                 BCRYPT_PAD_PKCS1);
                 },
                 nothing},
    ProviderCase{"SignHash_PSS", Start::open, MemoryRule::token, 256, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SignHash)(w.rsa, &w.pss, w.hash.data(), 32,
                                                 w.out.buffer.data(), room, &w.out.length,
                                                 BCRYPT_PAD_PSS);
                 },
                 nothing},
    ProviderCase{"SignHash_EC", Start::open, MemoryRule::token, 64, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SignHash)(w.ec, nullptr, w.hash.data(), 32,
                                                 w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing},
    ProviderCase{"VerifySignature_PSS", Start::open, MemoryRule::token, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, VerifySignature)(w.rsa, &w.pss, w.hash.data(), 32,
                                                        w.pssSignature.data(),
                                                        sizeOf(w.pssSignature), BCRYPT_PAD_PSS);
                 },
                 nothing},
    ProviderCase{"VerifySignature_EC", Start::open, MemoryRule::token, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, VerifySignature)(w.ec, nullptr, w.hash.data(), 32,
                                                        w.ecSignature.data(),
                                                        sizeOf(w.ecSignature), 0);
                 },
                 nothing},
    ProviderCase{"Encrypt", Start::open, MemoryRule::token, 256, nullptr,
                 [](World& w) {
                     return NV_CALL(w, Encrypt)(w.rsa, w.hash.data(), 32, &w.oaep,
                                                w.out.buffer.data(), room, &w.out.length,
                                                BCRYPT_PAD_OAEP);
                 },
                 nothing},
    ProviderCase{"Decrypt", Start::open, MemoryRule::token, 32, nullptr,
                 [](World& w) {
                     return NV_CALL(w, Decrypt)(w.rsa, w.cipherText.data(), sizeOf(w.cipherText),
                                                &w.oaep, w.out.buffer.data(), room, &w.out.length,
                                                BCRYPT_PAD_OAEP);
                 },
                 nothing},
    ProviderCase{"SecretAgreement", Start::open, MemoryRule::token, 0, nullptr,
                 [](World& w) {
                     return NV_CALL(w, SecretAgreement)(w.ec, w.peer, &w.out.handle, 0);
                 },
                 settleAgreedSecret},
    ProviderCase{"DeriveKey_hash", Start::open, MemoryRule::token, 32, nullptr,
                 [](World& w) {
                     return NV_CALL(w, DeriveKey)(w.secret, BCRYPT_KDF_HASH, w.hashParameters(),
                                                  w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing, OnFailure::leavesNothing, Stays::nothing, LengthTold::withTheOutput},
    ProviderCase{"DeriveKey_HMAC", Start::open, MemoryRule::token, 32, nullptr,
                 [](World& w) {
                     return NV_CALL(w, DeriveKey)(w.secret, BCRYPT_KDF_HMAC, w.hmacParameters(),
                                                  w.out.buffer.data(), room, &w.out.length, 0);
                 },
                 nothing, OnFailure::leavesNothing, Stays::nothing, LengthTold::withTheOutput},
    ProviderCase{"FreeSecret", Start::open, MemoryRule::plain, 0,
                 [](World& w) { w.out.handle = World::listSecret(); },
                 [](World& w) { return NV_CALL(w, FreeSecret)(w.out.handle); },
                 settleFreedSecret},
};

}  // namespace

std::span<const ProviderCase> providerCases()
{
    return cases;
}

std::vector<ProviderCase> providerCasesNamed(std::initializer_list<std::string_view> names)
{
    std::vector<ProviderCase> chosen;
    for (const std::string_view name : names) {
        const auto* const row = std::ranges::find(cases, name, &ProviderCase::name);
        if (row == cases.end())
            throw std::invalid_argument("no case has this name");
        chosen.push_back(*row);
    }
    return chosen;
}

}  // namespace NV::test
