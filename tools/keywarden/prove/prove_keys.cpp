// The steps that use the provider and its keys through NCrypt, judged by BCrypt.

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "exit_code.h"
#include "failure.h"
#include "formats/hashing.h"
#include "prove/bcrypt_key.h"
#include "prove/proving.h"
#include "system/explanation.h"
#include "system/key_choice.h"
#include "system/operation_failure.h"
#include "text.h"

namespace NV::tool {

namespace {

// The name of the key that the user means. A text that stands for no key is taken for a name: then the step
// that opens the key shows what CNG says.
std::wstring wantedName(const KeyStorage& storage, const std::string& wanted)
{
    try {
        return chooseKey(storage, wanted);
    } catch (const Failure& failure) {
        if (failure.exitCode() != ExitCode::noTokenOrKey)
            throw;
        return fromUtf8(wanted);
    }
}

// Nothing for a key that the provider cannot use.
std::optional<bool> isRsaKey(const KeyStorage& storage, const std::wstring& name)
{
    try {
        const Key key(storage, name);
        const std::wstring group = key.text(NCRYPT_ALGORITHM_GROUP_PROPERTY);
        return group.empty() ? std::nullopt : std::optional(group == L"RSA");
    } catch (const Failure&) {
        return std::nullopt;
    }
}

void addKey(Proving& proving, const std::wstring& name, bool isRsa)
{
    ProvedKey& key = proving.keys.emplace_back();
    key.name = name;
    key.isRsa = isRsa;
}

}  // namespace

std::string proveOpening(Proving& proving)
{
    proving.storage = std::make_unique<KeyStorage>(proving.session);
    return "opened";
}

std::string proveKeys(Proving& proving)
{
    if (proving.storage == nullptr)
        throw NotTried("the provider is not open");
    const KeyStorage& storage = *proving.storage;
    proving.names = storage.keyNames();
    if (!proving.options.key.empty()) {
        const std::wstring name = wantedName(storage, proving.options.key);
        addKey(proving, name, isRsaKey(storage, name).value_or(true));
    } else if (proving.names.empty()) {
        throw Failure("there is no key: NCryptEnumKeys gives " + statusText(NTE_NO_MORE_ITEMS),
                      "Run \"keywarden check\", which looks for the token and its certificates.",
                      ExitCode::failed, NTE_NO_MORE_ITEMS);
    }
    std::vector<std::string> missing;
    for (const bool rsa : {true, false}) {
        if (!proving.options.key.empty())
            break;
        const auto name = std::ranges::find_if(
            proving.names, [&](const std::wstring& one) { return isRsaKey(storage, one) == rsa; });
        if (name != proving.names.end())
            addKey(proving, *name, rsa);
        else
            missing.emplace_back(rsa ? "RSA" : "elliptic curve");
    }
    const size_t count = proving.names.size();
    std::string text = std::to_string(count) + (count == 1 ? " key" : " keys");
    for (const std::string& kind : missing)
        text += "; no " + kind + " key, whose steps are left out";
    return text;
}

std::string proveKey(Proving& proving, ProvedKey& key)
{
    key.key = std::make_unique<Key>(*proving.storage, key.name);
    key.isRsa = key.key->isRsa();
    key.publicKey = key.key->publicBlob();
    return toUtf8(key.key->text(NCRYPT_ALGORITHM_PROPERTY)) + ", " +
           std::to_string(key.key->bits()) + " bits, exported";
}

std::string proveSigning(Proving&, ProvedKey& key)
{
    const KeyStorage& storage = key.opened().storage();
    Bytes digest = hashBytes(randomBytes(64), hashNamed("sha256"));
    BCRYPT_PKCS1_PADDING_INFO pkcs1{BCRYPT_SHA256_ALGORITHM};
    DWORD size = 0;
    const auto run = [&](PBYTE buffer, DWORD room) {
        require(storage->SignHash(storage.handle(), key.opened().handle(),
                                  key.isRsa ? &pkcs1 : nullptr, digest.data(),
                                  static_cast<DWORD>(digest.size()), buffer, room, &size,
                                  key.isRsa ? BCRYPT_PAD_PKCS1 : 0),
                "NCryptSignHash", PinUse::asks);
    };
    run(nullptr, 0);
    Bytes signature(size);
    size = 0;
    run(signature.data(), static_cast<DWORD>(signature.size()));
    requireResult(size > 0, "NCryptSignHash");
    signature.resize(size);
    key.digest = digest;
    key.signature = signature;
    return "a SHA-256 hash, " + std::to_string(size) + " bytes";
}

std::string proveVerifying(Proving&, ProvedKey& key)
{
    if (key.signature.empty())
        throw NotTried("there is no signature");
    const VerificationKey publicKey = verificationKey(key);
    requireGoodSignature(publicKey.key.get(), key.isRsa, key.digest, key.signature);
    return "by BCrypt with the exported public key; another hash does not verify";
}

std::string proveDecrypting(Proving&, ProvedKey& key)
{
    const KeyStorage& storage = key.opened().storage();
    const BcryptAlgorithm algorithm = bcryptAlgorithm(BCRYPT_RSA_ALGORITHM);
    const BcryptKey publicKey = bcryptPublicKey(algorithm, BCRYPT_RSAPUBLIC_BLOB, key.publicKey);
    Bytes message = randomBytes(32);
    Bytes cipher((key.opened().bits() + 7) / 8);
    DWORD size = 0;
    requireOfSystem(BCryptEncrypt(publicKey.get(), message.data(),
                                  static_cast<ULONG>(message.size()), nullptr, nullptr, 0,
                                  cipher.data(), static_cast<ULONG>(cipher.size()), &size,
                                  BCRYPT_PAD_PKCS1),
                    "BCryptEncrypt");
    cipher.resize(size);
    // Asking for the length first would make the provider ask for the PIN twice in classic.
    Bytes output(cipher.size());
    size = 0;
    require(storage->Decrypt(storage.handle(), key.opened().handle(), cipher.data(),
                             static_cast<DWORD>(cipher.size()), nullptr, output.data(),
                             static_cast<DWORD>(output.size()), &size, BCRYPT_PAD_PKCS1),
            "NCryptDecrypt", PinUse::asks);
    requireResult(size > 0, "NCryptDecrypt");
    output.resize(size);
    if (output != message)
        throw Failure("what NCryptDecrypt gives is not what BCrypt has encrypted");
    return "what BCrypt has encrypted with the exported public key, " +
           std::to_string(message.size()) + " bytes";
}

}  // namespace NV::tool
