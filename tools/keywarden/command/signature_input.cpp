// The options of signatures, and how the data for the provider is made of them.

#include "command/signature_input.h"

#include <CLI/CLI.hpp>

#include "command/options.h"
#include "session.h"
#include "text.h"

namespace NV::tool {

void addSignatureOptions(CLI::App& command, Session& session, SignatureOptions& options)
{
    addKeyOption(command, options.key, "the key");
    addHashOption(command, options.hash, "Hash algorithm");
    addHexOption(command, "--digest", options.digest, "Hash value in place of a file");
    addChoiceOption(command, "--pad", options.pad, {"pkcs1", "pss"}, "Padding for an RSA key");
    command
        .add_option("--salt", options.salt,
                    "Length of the salt of PSS (default: the length of the hash)")
        ->option_text("BYTES")
        ->check(checkWholeNumber);
    addChoiceOption(command, "--ec-format", options.ecFormat, {"der", "raw"},
                    "Format of an ECDSA signature; der is OpenSSL's, raw is r and s");
    addModuleOptions(command, session);
}

void checkSignatureOptions(const CLI::App& command, const SignatureOptions& options)
{
    const size_t size = hashSize(hashNamed(options.hash));
    if (!options.digest.empty() && options.digest.size() != 2 * size)
        throw CLI::ValidationError(
            "--digest", "a hash value of " + options.hash + " has " + std::to_string(2 * size) +
                            " hexadecimal digits, not " + std::to_string(options.digest.size()));
    if (!options.digest.empty() && !isGiven(command, "--hash"))
        throw CLI::ValidationError("--digest", "requires --hash");
    if (options.pad != "pss")
        refuseIfGiven(command, "--salt", "applies only with --pad pss");
}

void checkSignatureOptions(const CLI::App& command, const SignatureOptions& options, const Key& key)
{
    if (!key.isRsa()) {
        refuseIfGiven(command, "--pad", "applies only to an RSA key");
        return;
    }
    refuseIfGiven(command, "--ec-format", "applies only to an elliptic curve key");
    if (options.pad != "pss")
        return;
    // RFC 8017, 9.1.1.
    const size_t encoded = (key.bits() + 6) / 8;
    const size_t taken = hashSize(hashNamed(options.hash)) + 2;
    if (taken + saltSize(options) > encoded)
        throw CLI::ValidationError("--pad",
                                   "PSS with " + options.hash + " and a salt of " +
                                       std::to_string(saltSize(options)) + " bytes takes " +
                                       std::to_string(taken + saltSize(options)) +
                                       " bytes, and this key has " + std::to_string(encoded));
}

size_t saltSize(const SignatureOptions& options)
{
    return options.salt.empty() ? hashSize(hashNamed(options.hash)) : std::stoul(options.salt);
}

Bytes digestOf(const Session& session, const SignatureOptions& options, const std::string& file)
{
    return options.digest.empty() ? hashInput(session.out, file, hashNamed(options.hash))
                                  : hexDecode(options.digest);
}

SignatureInput::SignatureInput(const SignatureOptions& options, const Bytes& digest, bool isRsa)
    : hash_(hashNamed(options.hash)), data_(digest)
{
    if (!isRsa)
        return;
    if (options.pad == "pss") {
        flags_ = BCRYPT_PAD_PSS;
        pss_ = {hash_.name.data(), static_cast<ULONG>(saltSize(options))};
    } else {
        flags_ = BCRYPT_PAD_PKCS1;
        data_ = digestInfo(hash_, data_);
    }
}

void* SignatureInput::padding()
{
    if (flags_ == BCRYPT_PAD_PSS)
        return &pss_;
    return flags_ == BCRYPT_PAD_PKCS1 ? static_cast<void*>(&pkcs1_) : nullptr;
}

}  // namespace NV::tool
