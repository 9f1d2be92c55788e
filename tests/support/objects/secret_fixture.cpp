// The fixture's parts.

#include "secret_fixture.h"

#include <algorithm>
#include <stdexcept>

namespace NV::test {

std::string spoken(const LogLines& lines)
{
    std::string text;
    for (const LogLine& line : lines)
        text += line.level + " " + masked(line.message) + "\n";
    return text;
}

NCRYPT_SECRET_HANDLE addToList(const Bytes& bytes)
{
    OwnedSecret secret = makeSecret(static_cast<uint32_t>(bytes.size()));
    std::ranges::copy(bytes, secret->bytes);
    const auto handle = reinterpret_cast<NCRYPT_SECRET_HANDLE>(secret.get());
    SecretList::instance().add(std::move(secret));
    return handle;
}

size_t listSize()
{
    size_t size = 0;
    SecretList::instance().remove(0, size);
    return size;
}

SecretTest::SecretTest()
{
    p256 = token.addEcKeyPair({0x02, 0x56}, 32);
    p384 = token.addEcKeyPair({0x03, 0x84}, 48);
    p521 = token.addEcKeyPair({0x05, 0x21}, 66);
    if (!p11.loadModule(ScriptedToken::path()))
        throw std::runtime_error("the scripted token cannot be loaded");
    forget();
}

void SecretTest::forget()
{
    token.clearCalls();
    log.takeLines();
}

Agreement SecretTest::agree(const wchar_t* keyId, size_t coordinateSize)
{
    P11ECKeyObject key;
    key.setSlotId(kSlot);
    key.setKeyId(keyId);
    Bytes peer = peerPoint(coordinateSize);
    NCRYPT_SECRET_HANDLE handle = untouchedHandle;
    Agreement agreement;
    agreement.status =
        key.secretAgreement(&p11, peer.data(), static_cast<DWORD>(peer.size()), &handle, pin());
    agreement.handleWritten = handle != untouchedHandle;
    if (agreement.status == ERROR_SUCCESS && agreement.handleWritten)
        agreement.secret.reset(reinterpret_cast<AgreedSecret*>(handle));
    return agreement;
}

Derived SecretTest::derive(const DerivationRun& run)
{
    const SecretBytes secret = secretBytes(run.secret);
    const SecretBytes hmacKey = secretBytes(run.hmacKey);
    const SecretBytes prepend = secretBytes(run.prepend);
    const SecretBytes append = secretBytes(run.append);
    Derived derived;
    derived.output.assign(2 * size_t{run.room} + 16, untouchedByte);
    derived.status =
        store.derive({&p11, kSlot, untouchedHandle, secret,
                      run.query ? nullptr : derived.output.data(), run.room, &derived.length,
                      *findHashAlgorithm(run.hash), run.hmac, hmacKey, prepend, append});
    return derived;
}

}  // namespace NV::test
