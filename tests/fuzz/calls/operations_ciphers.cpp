// Encrypting and decrypting.

#include <algorithm>

#include "padding_argument.h"

namespace NV::fuzz {

namespace {

bool cipherPaddingValid(const Padding& padding)
{
    return (padding.flags & BCRYPT_PAD_NONE) != 0 || padding.infoGiven ||
           (padding.flags & BCRYPT_PAD_OAEP) == 0;
}

struct CipherArguments {
    NCRYPT_PROV_HANDLE handle;
    NCRYPT_KEY_HANDLE key;
    PaddingArgument padding;
    Bytes data;
    bool nullData;
    Output output;
    Place<DWORD> length;
    DWORD flags;
};

CipherArguments cipherArguments(World& world, Operands& operands, bool decrypting)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t paddingFlags = operands.byte();
    const uint8_t paddingForm = operands.byte();
    PaddingArgument padding(paddingFlags, paddingForm);
    const uint8_t form = operands.byte();
    Bytes data = someBytes(lengthOf(operands.byte()), form);
    const Key* const known = provider != nullptr ? openedKey(*provider, key) : nullptr;
    // Mostly what the key has encrypted, with this padding or with another one.
    if (decrypting && known != nullptr && known->facts.rsa && form % 8 != 3) {
        const uint8_t flags = form % 8 == 4 ? paddingFlags + 1 : paddingFlags;
        data = encrypted(known->facts, PaddingArgument(flags, paddingForm).model(), data)
                   .value_or(data);
    }
    const uint8_t room = operands.byte();
    return {handle,
            key,
            std::move(padding),
            {data.begin(), data.end()},
            rarely(form),
            Output(roomOf(room), form % 8 == 1),
            Place<DWORD>(form % 32 == 2),
            flagsOf(operands.byte())};
}

// What the operations answer behind the key.
Expectation cipherInClassic(const KeyFacts& key,
                            TokenResult (*cipher)(const KeyFacts&, const Padding&, const Bytes&),
                            const CipherArguments& call)
{
    if (!key.rsa)
        return {.expected = {NTE_NOT_SUPPORTED}};
    Expectation expectation;
    if (!call.nullData || call.data.empty())
        expectation.result = cipher(key, call.padding.model(), call.data);
    expectation.expected.status = statusOf(expectation.result, call.output);
    return expectation;
}

Expectation encryptInClassic(World&, const KeyFacts& key, const CipherArguments& call)
{
    return cipherInClassic(key, &encrypted, call);
}

Expectation decryptInClassic(World& world, const KeyFacts& key, const CipherArguments& call)
{
    const PinOutcome pin = world.pinOutcome();
    if (pin.end)
        return {.expected = {*pin.end}, .skipped = true};
    if (pin.loginFails && key.rsa)
        return {.expected = {NTE_INTERNAL_ERROR}};
    return cipherInClassic(key, &decrypted, call);
}

// Encryption without the token.
SECURITY_STATUS publicKeyStatus(const KeyFacts& key, const CipherArguments& call)
{
    const bool padded = (call.padding.model().flags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_OAEP)) != 0;
    return padded || isBelowModulus(key, call.data) ? ERROR_SUCCESS : NTE_INVALID_PARAMETER;
}

Expectation encryptInModern(World&, const KeyFacts& key, const CipherArguments& call)
{
    Expectation expectation{.told = key.size()};
    auto& [expected, result, told, skipped] = expectation;
    const Padding& padding = call.padding.model();
    expected.status = cipherRefusal(key, padding);
    if (expected.status != ERROR_SUCCESS || call.output.null())
        return expectation;
    if (call.output.size() < told)
        expected.status = NTE_BUFFER_TOO_SMALL;
    else if (call.nullData && !call.data.empty())
        expected.status = NTE_INTERNAL_ERROR;
    else if (isTooLong(key, padding, call.data))
        expected.status = NTE_BAD_LEN;
    else
        result = encrypted(key, padding, call.data);
    if (result)
        expected.byCertificate = publicKeyStatus(key, call);
    return expectation;
}

Expectation decryptInModern(World& world, const KeyFacts& key, const CipherArguments& call)
{
    Expectation expectation{.told = key.size()};
    auto& [expected, result, told, skipped] = expectation;
    const Padding& padding = call.padding.model();
    expected.status = cipherRefusal(key, padding);
    if (expected.status != ERROR_SUCCESS || call.output.null())
        return expectation;
    const PinOutcome pin = world.pinOutcome();
    if (staysSilent(call.flags))
        expected.status = NTE_SILENT_CONTEXT;
    else if (pin.end)
        expected.status = *pin.end;
    else if (pin.loginFails)
        expected.status = rules.wrongPin;
    else if (result = decrypted(key, padding, call.data); !result)
        expected.status = NTE_INTERNAL_ERROR;
    else if (call.output.size() < result->size())
        expected.status = NTE_BUFFER_TOO_SMALL;
    return expectation;
}

// Encryption with an imported key. What the padding adds is by chance, so that there is no result to
// compare with.
Expectation encryptByImportedKey(const KeyFacts& key, const CipherArguments& call)
{
    Expectation expectation{.told = key.size()};
    auto& [expected, result, told, skipped] = expectation;
    const Padding& padding = call.padding.model();
    expected.status = cipherRefusal(key, padding);
    if (expected.status != ERROR_SUCCESS || call.output.null())
        return expectation;
    if (call.output.size() < told)
        expected.status = NTE_BUFFER_TOO_SMALL;
    else if (call.nullData && !call.data.empty())
        expected.status = NTE_INVALID_PARAMETER;
    else if (isTooLong(key, padding, call.data))
        expected.status = NTE_BAD_LEN;
    else
        expected.status = publicKeyStatus(key, call);
    return expectation;
}

void checkInClassic(const CipherArguments& call, const Answer& answer, bool succeeded,
                    const Expectation& expectation)
{
    const TokenResult& result = expectation.result;
    if (!succeeded) {
        HOLDS(call.length.untouched() && untouchedOrHolds(call.output, result));
    } else if (expectation.skipped) {
        HOLDS(call.length.untouched() && call.output.untouched());
    } else {
        HOLDS(lengthHolds(call.length.value(), result->size(), call.output, answer.by));
        HOLDS(call.output.null() || call.output.holds(*result));
    }
}

// A query and a buffer that is too short are told the length, the latter by a failure.
void checkInModern(const CipherArguments& call, const Answer& answer, bool succeeded,
                   const Expectation& expectation)
{
    const Output& output = call.output;
    const TokenResult& result = expectation.result;
    const DWORD length = call.length.value();
    // A length that is not true is that of the module's own buffer, and zeros are behind the text.
    if (answer.by.lie)
        return;
    if (succeeded && output.null()) {
        HOLDS(length == expectation.told);
    } else if (succeeded && (!result || answer.by.wantsLogin)) {
        HOLDS(length == expectation.told && output.untouchedFrom(length));
    } else if (succeeded) {
        HOLDS(length == result->size() && output.holds(*result));
    } else if (answer.status == NTE_BUFFER_TOO_SMALL && !answer.by.token) {
        HOLDS(length == (result ? result->size() : expectation.told) && output.untouched());
    } else {
        HOLDS(call.length.untouched() && untouchedOrHolds(output, result));
    }
}

// How a behaviour encrypts and decrypts.
struct CipherWays {
    Expectation (*encrypt)(World& world, const KeyFacts& key, const CipherArguments& call);
    Expectation (*decrypt)(World& world, const KeyFacts& key, const CipherArguments& call);
    void (*check)(const CipherArguments& call, const Answer& answer, bool succeeded,
                  const Expectation& expectation);
};

const CipherWays& ways()
{
    static constexpr CipherWays classic{encryptInClassic, decryptInClassic, checkInClassic};
    static constexpr CipherWays modern{encryptInModern, decryptInModern, checkInModern};
    return rules.tellsLengths ? modern : classic;
}

// `run` is the operation's entry of the table.
template <typename Run>
void runCipher(World& world, const char* name, CipherArguments& call,
               const Expectation& expectation, const Run& run)
{
    const Answer answer = world.call(name, Reach::sequence, [&] {
        return run(call.handle, call.key, call.nullData ? nullptr : in(call.data),
                   sizeOf(call.data), call.padding.block(), call.output.data(), call.output.size(),
                   call.length.pointer(), call.padding.model().flags | call.flags);
    });
    HOLDS(answer.blocks == 0);
    if (claimsSuccess(answer, expectation.expected))
        return;
    const bool succeeded = World::judge(answer, expectation.expected, Reach::sequence);
    if (!World::isUncertain(answer))
        ways().check(call, answer, succeeded, expectation);
}

}  // namespace

void encrypt(World& world, Operands& operands)
{
    CipherArguments call = cipherArguments(world, operands, false);
    const ProviderModel* const provider = world.find(call.handle);
    Expectation expectation;
    if (provider == nullptr)
        expectation.expected = world.withoutProvider(call.handle);
    else if (!cipherPaddingValid(call.padding.model()) ||
             (!call.output.null() && call.output.size() == 0) || call.length.null())
        expectation.expected.status = NTE_INVALID_PARAMETER;
    else if (const Key* const opened = openedKey(*provider, call.key))
        expectation = ways().encrypt(world, opened->facts, call);
    else if (const Key* const imported = importedRsaKey(*provider, call.key))
        expectation = encryptByImportedKey(imported->facts, call);
    else
        expectation.expected.status = NTE_INVALID_HANDLE;
    runCipher(world, "Encrypt", call, expectation, world.table().Encrypt);
}

void decrypt(World& world, Operands& operands)
{
    CipherArguments call = cipherArguments(world, operands, true);
    const ProviderModel* const provider = world.find(call.handle);
    Expectation expectation;
    if (provider == nullptr)
        expectation.expected = world.withoutProvider(call.handle);
    else if (!cipherPaddingValid(call.padding.model()) || call.nullData || call.data.empty() ||
             (!call.output.null() && call.output.size() == 0) || call.length.null())
        expectation.expected.status = NTE_INVALID_PARAMETER;
    else if (const Key* const opened = openedKey(*provider, call.key))
        expectation = ways().decrypt(world, opened->facts, call);
    else
        expectation.expected.status = NTE_INVALID_HANDLE;
    runCipher(world, "Decrypt", call, expectation, world.table().Decrypt);
}

}  // namespace NV::fuzz
