// Signing and verifying.

#include <algorithm>

#include "padding_argument.h"

namespace NV::fuzz {

namespace {

// A padding that needs information must get it.
bool signaturePaddingValid(const Padding& padding)
{
    return padding.infoGiven || (padding.flags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) == 0;
}

struct SigningArguments {
    const Padding& padding;
    const Bytes& hash;
    const Output& output;
    DWORD flags;
};

// What signing answers behind the key.
Expectation expectInClassic(World& world, const KeyFacts& key, const SigningArguments& call)
{
    Expectation expectation{.told = key.signatureSize()};
    if (call.output.null())
        return expectation;
    const PinOutcome pin = world.pinOutcome();
    if (pin.end) {
        expectation.skipped = true;
        expectation.expected.status = *pin.end;
        return expectation;
    }
    if (!pin.loginFails)
        expectation.result = signature(key, call.padding, call.hash);
    expectation.expected.status = statusOf(expectation.result, call.output);
    return expectation;
}

Expectation expectInModern(World& world, const KeyFacts& key, const SigningArguments& call)
{
    Expectation expectation{.told = key.signatureSize()};
    auto& [expected, result, told, skipped] = expectation;
    expected.status = signatureRefusal(key, call.padding, call.hash);
    if (expected.status != ERROR_SUCCESS || call.output.null())
        return expectation;
    const PinOutcome pin = world.pinOutcome();
    if (call.output.size() < told)
        expected.status = NTE_BUFFER_TOO_SMALL;
    else if (staysSilent(call.flags))
        expected.status = NTE_SILENT_CONTEXT;
    else if (pin.end)
        expected.status = *pin.end;
    else if (pin.loginFails)
        expected.status = rules.wrongPin;
    else if (result = signature(key, call.padding, call.hash); !result)
        expected.status = key.onToken ? NTE_BAD_LEN : NTE_NO_KEY;
    return expectation;
}

// Whether the caller's buffer is refused before the token is asked.
bool isTooShort(const Answer& answer, const Output& output, DWORD needed)
{
    return rules.tellsLengths && answer.status == NTE_BUFFER_TOO_SMALL && !output.null() &&
           output.size() < needed;
}

// What verifying answers behind the arguments.
Expected expectVerification(const ProviderModel& provider, NCRYPT_KEY_HANDLE handle,
                            const Padding& padding, const Bytes& hash, bool right)
{
    const Key* const opened = openedKey(provider, handle);
    const Key* const key = opened != nullptr ? opened : importedRsaKey(provider, handle);
    if (key == nullptr)
        return {NTE_INVALID_HANDLE};
    if (rules.checksHashNames) {
        const SECURITY_STATUS refusal = signatureRefusal(key->facts, padding, hash);
        if (refusal != ERROR_SUCCESS)
            return {refusal};
    }
    // The certificate's key does not know the scripted token's signatures.
    return {.status = right ? ERROR_SUCCESS : rules.badSignature,
            .byCertificate = rules.badSignature};
}

}  // namespace

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

    Expectation expectation;
    auto& [expected, result, told, skipped] = expectation;
    if (provider == nullptr) {
        expected = world.withoutProvider(handle);
    } else if (!signaturePaddingValid(padding.model()) || nullHash || hash.empty() ||
               (!output.null() && output.size() == 0) || length.null()) {
        expected.status = NTE_INVALID_PARAMETER;
    } else if (const Key* const known = openedKey(*provider, key); known == nullptr) {
        expected.status = NTE_INVALID_HANDLE;
    } else {
        const auto expect = rules.tellsLengths ? expectInModern : expectInClassic;
        expectation = expect(world, known->facts, {padding.model(), hash, output, flags});
    }
    const Answer answer = world.call("SignHash", Reach::sequence, [&] {
        return world.table().SignHash(handle, key, padding.block(), nullHash ? nullptr : in(hash),
                                      sizeOf(hash), output.data(), output.size(), length.pointer(),
                                      flags);
    });
    HOLDS(answer.blocks == 0);
    if (claimsSuccess(answer, expected))
        return;
    const bool succeeded = World::judge(answer, expected, Reach::sequence);
    if (World::isUncertain(answer))
        return;
    if (!succeeded && isTooShort(answer, output, told)) {
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
    else
        expected = expectVerification(*provider, key, padding.model(), hash,
                                      right && !nullSignature && given == *right);
    Output exact(given.size(), nullSignature);
    if (!nullSignature)
        std::ranges::copy(given, exact.data());
    const Answer answer = world.call("VerifySignature", Reach::sequence, [&] {
        return world.table().VerifySignature(handle, key, padding.block(),
                                             nullHash ? nullptr : in(hash), sizeOf(hash),
                                             exact.data(), exact.size(), flags);
    });
    World::judge(answer, expected, Reach::sequence);
    HOLDS(answer.blocks == 0 && (nullSignature || exact.holds(given)));
}

}  // namespace NV::fuzz
