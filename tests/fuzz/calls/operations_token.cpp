// Signing, verifying, encrypting and decrypting.

#include <algorithm>

#include "operations.h"

namespace NV::fuzz {

namespace {

// The padding of a call, as the model sees it and as the module gets it: a block of exactly the size
// that the flags ask for.
class PaddingArgument {
public:
    PaddingArgument(uint8_t flags, uint8_t form)
    {
        constexpr const wchar_t* hashNames[] = {L"SHA256", L"SHA1",   L"SHA384", L"SHA512",
                                                L"SHA256", L"sha256", L"MD5",    nullptr};
        // Mostly one padding.
        constexpr DWORD paddings[] = {0, BCRYPT_PAD_NONE, BCRYPT_PAD_PKCS1, BCRYPT_PAD_OAEP,
                                      BCRYPT_PAD_PSS};
        model_.flags = flags < 0xD0 ? paddings[flags % std::size(paddings)] : flags % 16;
        model_.infoGiven = form % 8 != 0;
        model_.hashName = hashNames[form / 32];
        if ((model_.flags & BCRYPT_PAD_OAEP) != 0)
            model_.label = someBytes(form % 4, form);
        if (!model_.infoGiven)
            return;
        if ((model_.flags & BCRYPT_PAD_OAEP) != 0)
            set(BCRYPT_OAEP_PADDING_INFO{model_.hashName,
                                         model_.label.empty() ? nullptr : model_.label.data(),
                                         sizeOf(model_.label)});
        else if ((model_.flags & BCRYPT_PAD_PSS) != 0)
            set(BCRYPT_PSS_PADDING_INFO{model_.hashName, form});
        else
            set(BCRYPT_PKCS1_PADDING_INFO{model_.hashName});
    }

    const Padding& model() const { return model_; }
    VOID* block() { return block_.empty() ? nullptr : block_.data(); }

private:
    template <typename Info>
    void set(const Info& info)
    {
        const auto* const begin = reinterpret_cast<const unsigned char*>(&info);
        block_.assign(begin, begin + sizeof info);
    }

    Padding model_;
    Bytes block_;
};

// A padding that needs information must get it.
bool signaturePaddingValid(const Padding& padding)
{
    return padding.infoGiven || (padding.flags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) == 0;
}

bool cipherPaddingValid(const Padding& padding)
{
    return (padding.flags & BCRYPT_PAD_NONE) != 0 || padding.infoGiven ||
           (padding.flags & BCRYPT_PAD_OAEP) == 0;
}

const Key* openedKey(const ProviderModel& provider, NCRYPT_KEY_HANDLE key)
{
    const auto found = provider.opened.find(key);
    return found != provider.opened.end() ? &found->second : nullptr;
}

// The size of a buffer for a result: mostly enough.
size_t roomOf(uint8_t operand)
{
    return operand < 0xC0 ? 300 : lengthOf(operand);
}

// What the token's result makes of an operation with a buffer.
SECURITY_STATUS statusOf(const TokenResult& result, const Output& output)
{
    return result && (output.null() || output.size() >= result->size()) ? ERROR_SUCCESS
                                                                        : NTE_INTERNAL_ERROR;
}

// Whether the caller's buffer is refused before the token is asked.
bool isTooShort(const Answer& answer, const Output& output, DWORD needed)
{
    return answer.status == NTE_BUFFER_TOO_SMALL && !output.null() && output.size() < needed;
}

bool staysSilent(DWORD flags)
{
    return (flags & NCRYPT_SILENT_FLAG) != 0;
}

// What a signature is in modern, behind the key.
void expectSignature(World& world, const KeyFacts& key, const Padding& padding, const Bytes& hash,
                     const Output& output, DWORD flags, Expected& expected, TokenResult& result)
{
    expected.status = signatureRefusal(key, padding, hash);
    if (expected.status != ERROR_SUCCESS || output.null())
        return;
    const PinOutcome pin = world.pinOutcome();
    if (output.size() < key.signatureSize())
        expected.status = NTE_BUFFER_TOO_SMALL;
    else if (staysSilent(flags))
        expected.status = NTE_SILENT_CONTEXT;
    else if (pin.end)
        expected.status = *pin.end;
    else if (pin.loginFails)
        expected.status = rules.wrongPin;
    else if (result = signature(key, padding, hash); !result)
        expected.status = NTE_BAD_LEN;
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

}  // namespace

bool lengthHolds(DWORD length, size_t trueLength, const Output& output, const Disturbance& by)
{
    if (length == trueLength)
        return true;
    if (by.claim)
        return output.null() || length <= output.size();
    const size_t larger = std::min<size_t>(output.size(), trueLength + test::kLieExcess);
    return by.lie && !output.null() && (length == larger || length == output.size());
}

void signHash(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t paddingFlags = operands.byte();
    PaddingArgument padding(paddingFlags, operands.byte());
    const uint8_t form = operands.byte();
    const Bytes hash = someBytes(lengthOf(operands.byte()), form);
    const bool nullHash = rarely(form);
    Output output(roomOf(operands.byte()), form % 8 == 1);
    Place<DWORD> length(form % 32 == 2);
    const DWORD flags = padding.model().flags | flagsOf(operands.byte());

    Expected expected;
    TokenResult result;
    DWORD told = 0;
    bool skipped = false;
    const Key* known = nullptr;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (!signaturePaddingValid(padding.model()) || nullHash || hash.empty() ||
               (!output.null() && output.size() == 0) || length.null()) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (known = openedKey(*provider, key); known == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (rules.tellsLengths) {
        told = known->facts.signatureSize();
        expectSignature(world, known->facts, padding.model(), hash, output, flags, expected,
                        result);
    } else if (told = known->facts.signatureSize(); !output.null()) {
        const PinOutcome pin = world.pinOutcome();
        if (pin.end) {
            // Compat: an empty PIN is a success without a signature.
            skipped = true;
            expected.status = *pin.end;
        } else {
            result = pin.loginFails ? std::nullopt : signature(known->facts, padding.model(), hash);
            expected.status = statusOf(result, output);
        }
    }
    const Answer answer = world.call("SignHash", Reach::sequence, [&] {
        return world.table().SignHash(handle, key, padding.block(), nullHash ? nullptr : in(hash),
                                      sizeOf(hash), output.data(), output.size(), length.pointer(),
                                      flags);
    });
    HOLDS(answer.blocks == 0);
    if (claimsSuccess(answer, expected))
        return;
    const bool succeeded = world.judge(answer, expected, Reach::sequence);
    if (World::isUncertain(answer))
        return;
    if (!succeeded && rules.tellsLengths && known != nullptr && isTooShort(answer, output, told)) {
        HOLDS(length.value() == told && output.untouched());
    } else if (!succeeded) {
        HOLDS(length.untouched() && untouchedOrHolds(output, result));
    } else if (skipped) {
        HOLDS(length.untouched() && output.untouched());
    } else {
        HOLDS(length.value() == told && (output.null() || output.holds(*result)));
    }
}

void verifySignature(World& world, Operands& operands)
{
    const NCRYPT_PROV_HANDLE handle = world.pickProvider(operands.byte());
    const ProviderModel* const provider = world.find(handle);
    const NCRYPT_KEY_HANDLE key = world.pickKey(provider, operands.byte());
    const uint8_t paddingFlags = operands.byte();
    PaddingArgument padding(paddingFlags, operands.byte());
    const uint8_t form = operands.byte();
    const Bytes hash = someBytes(lengthOf(operands.byte()), form);
    const bool nullHash = rarely(form);
    const uint8_t kind = operands.byte();
    const DWORD flags = padding.model().flags | flagsOf(operands.byte());

    // Mostly the right signature, sometimes one that differs in a bit or in its length.
    const Key* const known = provider != nullptr ? openedKey(*provider, key) : nullptr;
    const TokenResult right = known != nullptr && !hash.empty()
                                  ? verifiedSignature(known->facts, padding.model(), hash)
                                  : std::nullopt;
    Bytes given = right.value_or(someBytes(64, kind));
    if (kind % 8 == 1)
        given.back() ^= 0x80;
    if (kind % 8 == 2)
        given.pop_back();
    if (kind % 32 == 3)
        given.clear();
    const bool nullSignature = kind % 32 == 4;

    Expected expected;
    if (provider == nullptr)
        expected = world.withoutProvider(handle);
    else if (!signaturePaddingValid(padding.model()) || nullHash || hash.empty() ||
             (!nullSignature && given.empty()))
        expected.status = NTE_INVALID_PARAMETER;
    else if (known == nullptr)
        expected.status = NTE_INVALID_HANDLE;
    else if (rules.checksHashNames &&
             signatureRefusal(known->facts, padding.model(), hash) != ERROR_SUCCESS)
        expected.status = signatureRefusal(known->facts, padding.model(), hash);
    else if (!right || nullSignature || given != *right)
        expected.status = rules.badSignature;
    Output exact(given.size(), nullSignature);
    if (!nullSignature)
        std::ranges::copy(given, exact.data());
    const Answer answer = world.call("VerifySignature", Reach::sequence, [&] {
        return world.table().VerifySignature(handle, key, padding.block(),
                                             nullHash ? nullptr : in(hash), sizeOf(hash),
                                             exact.data(), exact.size(), flags);
    });
    world.judge(answer, expected, Reach::sequence);
    HOLDS(answer.blocks == 0 && (nullSignature || exact.holds(given)));
}

namespace {

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

// What the two have in common behind the PIN.
void expectCipher(const Key& key,
                  TokenResult (*cipher)(const KeyFacts&, const Padding&, const Bytes&),
                  const CipherArguments& arguments, Expected& expected, TokenResult& result)
{
    if (!key.facts.rsa) {
        expected.status = NTE_NOT_SUPPORTED;
        return;
    }
    if (!arguments.nullData || arguments.data.empty())
        result = cipher(key.facts, arguments.padding.model(), arguments.data);
    expected.status = statusOf(result, arguments.output);
}

// What encryption and decryption are in modern, behind the key.
void expectEncryption(const KeyFacts& key, const CipherArguments& arguments, Expected& expected,
                      TokenResult& result)
{
    const Padding& padding = arguments.padding.model();
    expected.status = cipherRefusal(key, padding);
    if (expected.status != ERROR_SUCCESS || arguments.output.null())
        return;
    if (arguments.output.size() < key.size())
        expected.status = NTE_BUFFER_TOO_SMALL;
    else if (arguments.nullData && !arguments.data.empty())
        expected.status = NTE_INTERNAL_ERROR;
    else if (isTooLong(key, padding, arguments.data))
        expected.status = NTE_BAD_LEN;
    else
        result = encrypted(key, padding, arguments.data);
}

void expectDecryption(World& world, const KeyFacts& key, const CipherArguments& arguments,
                      Expected& expected, TokenResult& result)
{
    const Padding& padding = arguments.padding.model();
    expected.status = cipherRefusal(key, padding);
    if (expected.status != ERROR_SUCCESS || arguments.output.null())
        return;
    const PinOutcome pin = world.pinOutcome();
    if (staysSilent(arguments.flags))
        expected.status = NTE_SILENT_CONTEXT;
    else if (pin.end)
        expected.status = *pin.end;
    else if (pin.loginFails)
        expected.status = rules.wrongPin;
    else if (result = decrypted(key, padding, arguments.data); !result)
        expected.status = NTE_INTERNAL_ERROR;
    else if (arguments.output.size() < result->size())
        expected.status = NTE_BUFFER_TOO_SMALL;
}

// In modern, a query and a buffer that is too short are told the length, the latter by a failure.
// `needed` is what the buffer must have.
void checkModernCipher(const CipherArguments& arguments, const Answer& answer, bool succeeded,
                       DWORD modulus, const TokenResult& result)
{
    const Output& output = arguments.output;
    const DWORD length = arguments.length.value();
    // A length that is not true is that of the module's own buffer, and zeros are behind the text.
    if (answer.by.lie)
        return;
    if (succeeded && output.null()) {
        HOLDS(length == modulus);
    } else if (succeeded) {
        HOLDS(length == result->size() && output.holds(*result));
    } else if (answer.status == NTE_BUFFER_TOO_SMALL && !answer.by.token) {
        HOLDS(length == (result ? result->size() : modulus) && output.untouched());
    } else {
        HOLDS(arguments.length.untouched() && untouchedOrHolds(output, result));
    }
}

// `run` is the operation's entry of the table.
template <typename Run>
void runCipher(World& world, const char* name, CipherArguments& arguments, const Expected& expected,
               const TokenResult& result, bool skipped, const Run& run)
{
    Output& output = arguments.output;
    const Answer answer = world.call(name, Reach::sequence, [&] {
        return run(arguments.handle, arguments.key,
                   arguments.nullData ? nullptr : in(arguments.data), sizeOf(arguments.data),
                   arguments.padding.block(), output.data(), output.size(),
                   arguments.length.pointer(), arguments.padding.model().flags | arguments.flags);
    });
    HOLDS(answer.blocks == 0);
    if (claimsSuccess(answer, expected))
        return;
    const bool succeeded = world.judge(answer, expected, Reach::sequence);
    if (World::isUncertain(answer))
        return;
    if (rules.tellsLengths) {
        const Key* const key = world.findKey(arguments.key);
        checkModernCipher(arguments, answer, succeeded, key != nullptr ? key->facts.size() : 0,
                          result);
    } else if (!succeeded) {
        HOLDS(arguments.length.untouched() && untouchedOrHolds(output, result));
    } else if (skipped) {
        HOLDS(arguments.length.untouched() && output.untouched());
    } else {
        HOLDS(lengthHolds(arguments.length.value(), result->size(), output, answer.by));
        HOLDS(output.null() || output.holds(*result));
    }
}

}  // namespace

void encrypt(World& world, Operands& operands)
{
    CipherArguments arguments = cipherArguments(world, operands, false);
    const ProviderModel* const provider = world.find(arguments.handle);
    const Output& output = arguments.output;
    Expected expected;
    TokenResult result;
    if (provider == nullptr) {
        expected = world.withoutProvider(arguments.handle);
    } else if (!cipherPaddingValid(arguments.padding.model()) ||
               (!output.null() && output.size() == 0) || arguments.length.null()) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (const Key* const known = openedKey(*provider, arguments.key); known == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (rules.tellsLengths) {
        expectEncryption(known->facts, arguments, expected, result);
    } else {
        expectCipher(*known, &encrypted, arguments, expected, result);
    }
    runCipher(world, "Encrypt", arguments, expected, result, false, world.table().Encrypt);
}

void decrypt(World& world, Operands& operands)
{
    CipherArguments arguments = cipherArguments(world, operands, true);
    const ProviderModel* const provider = world.find(arguments.handle);
    const Output& output = arguments.output;
    Expected expected;
    TokenResult result;
    bool skipped = false;
    if (provider == nullptr) {
        expected = world.withoutProvider(arguments.handle);
    } else if (!cipherPaddingValid(arguments.padding.model()) || arguments.nullData ||
               arguments.data.empty() || (!output.null() && output.size() == 0) ||
               arguments.length.null()) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (const Key* const known = openedKey(*provider, arguments.key); known == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
    } else if (rules.tellsLengths) {
        expectDecryption(world, known->facts, arguments, expected, result);
    } else if (const PinOutcome pin = world.pinOutcome(); pin.end) {
        skipped = true;
        expected.status = *pin.end;
    } else {
        expectCipher(*known, &decrypted, arguments, expected, result);
        if (pin.loginFails && known->facts.rsa) {
            expected.status = NTE_INTERNAL_ERROR;
            result.reset();
        }
    }
    runCipher(world, "Decrypt", arguments, expected, result, skipped, world.table().Decrypt);
}

}  // namespace NV::fuzz
