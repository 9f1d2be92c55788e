// keywarden sign and verify: standard signatures of files, RSA and ECDSA.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

#include "command/commands.h"
#include "command/options.h"
#include "failure.h"
#include "files.h"
#include "formats/ecdsa_signature.h"
#include "formats/hashing.h"
#include "output_file.h"
#include "session.h"
#include "system/key_storage.h"
#include "text.h"

namespace NV::tool {

namespace {

struct SignOptions {
    std::string file;
    std::string key;
    std::string hash = "sha256";
    std::string pad = "pkcs1";
    std::string ecFormat = "der";
    std::string signature;
    bool force = false;
};

// The data that the provider signs or verifies, and the padding.
//
// For PKCS #1 v1.5 the DigestInfo is built here and the padding names no hash algorithm. If it named
// one, the provider would omit the DigestInfo header for SHA-1, and the token would hash the data
// again when it verifies.
class SignatureInput {
public:
    SignatureInput(const Session& session, const SignOptions& options, const Key& key)
        : hash_(hashNamed(options.hash)), data_(hashInput(session.out, options.file, hash_))
    {
        if (!key.isRsa())
            return;
        if (options.pad == "pss") {
            flags_ = BCRYPT_PAD_PSS;
            pss_ = {hash_.name.data(), static_cast<ULONG>(data_.size())};
        } else {
            flags_ = BCRYPT_PAD_PKCS1;
            data_ = digestInfo(hash_, data_);
        }
    }

    // Null for an EC key.
    void* padding()
    {
        if (flags_ == BCRYPT_PAD_PSS)
            return &pss_;
        return flags_ == BCRYPT_PAD_PKCS1 ? static_cast<void*>(&pkcs1_) : nullptr;
    }
    DWORD flags() const { return flags_; }
    PBYTE data() { return data_.data(); }
    DWORD size() const { return static_cast<DWORD>(data_.size()); }

private:
    const HashAlgorithm& hash_;
    Bytes data_;
    DWORD flags_ = 0;
    BCRYPT_PKCS1_PADDING_INFO pkcs1_{nullptr};
    BCRYPT_PSS_PADDING_INFO pss_{};
};

void sign(Session& session, const SignOptions& options)
{
    const OutputFile output(session.out, options.signature, {options.file},
                            {.force = options.force});
    const KeyStorage storage(session);
    const Key key(storage, fromUtf8(options.key));
    SignatureInput input(session, options, key);
    DWORD size = 0;
    const auto run = [&](PBYTE buffer, DWORD room) {
        require(storage->SignHash(storage.handle(), key.handle(), input.padding(), input.data(),
                                  input.size(), buffer, room, &size, input.flags()),
                "signing");
    };
    run(nullptr, 0);
    Bytes signature(size);
    size = 0;
    run(signature.data(), static_cast<DWORD>(signature.size()));
    requireResult(size > 0, "signing");
    signature.resize(size);
    if (!key.isRsa() && options.ecFormat == "der")
        signature = ecdsaToDer(signature);
    output.write(signature);
    session.out.line("Signed: " + output.name() + " (" + std::to_string(signature.size()) +
                     " bytes)");
    session.out.document({{"file", options.file},
                          {"key", options.key},
                          {"signature", options.signature},
                          {"bytes", signature.size()}});
}

void verify(Session& session, const SignOptions& options)
{
    const KeyStorage storage(session);
    const Key key(storage, fromUtf8(options.key));
    SignatureInput input(session, options, key);
    requireOneStandardInput("--signature", {options.file, options.signature});
    Bytes signature = readInput(options.signature);
    if (!key.isRsa() && options.ecFormat == "der")
        signature = ecdsaFromDer(signature, (key.bits() + 7) / 8);
    const SECURITY_STATUS status = storage->VerifySignature(
        storage.handle(), key.handle(), input.padding(), input.data(), input.size(),
        signature.data(), static_cast<DWORD>(signature.size()), input.flags());
    // The provider returns the same status for a wrong signature and for a token that does not respond.
    if (status != ERROR_SUCCESS)
        throw Failure(
            "the signature does not verify: " + statusText(status),
            "If the token is present, the file, key, hash or padding differs from the one "
            "that was used for signing.");
    session.out.line("The signature is good.");
    session.out.document({{"file", options.file}, {"key", options.key}, {"good", true}});
}

CLI::App& addCommand(CLI::App& program, Session& session, const char* name, const char* help,
                     const char* file, SignOptions& options)
{
    CLI::App& command = *program.add_subcommand(name, help);
    addFileArgument(command, options.file, file);
    addKeyOption(command, options.key, "the key");
    addHashOption(command, options.hash, "Hash algorithm");
    addChoiceOption(command, "--pad", options.pad, {"pkcs1", "pss"}, "Padding for an RSA key");
    addChoiceOption(command, "--ec-format", options.ecFormat, {"der", "raw"},
                    "Format of an ECDSA signature; der is OpenSSL's, raw is r and s");
    addModuleOptions(command, session);
    return command;
}

}  // namespace

void addSign(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<SignOptions>();
    CLI::App& command = addCommand(program, session, "sign", "Sign a file; asks for the PIN",
                                   "File to sign", *options);
    addOutputOption(command, options->signature, options->force, "SIG", "File for the signature");
    command.callback([&session, options] { sign(session, *options); });
}

void addVerify(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<SignOptions>();
    CLI::App& command =
        addCommand(program, session, "verify", "Verify the signature of a file on the token",
                   "File that was signed", *options);
    command.add_option("--signature", options->signature, "File with the signature")
        ->required()
        ->option_text("SIG");
    command.callback([&session, options] { verify(session, *options); });
}

}  // namespace NV::tool
