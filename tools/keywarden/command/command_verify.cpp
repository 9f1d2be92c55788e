// keywarden verify: whether the signature of a file is good, as the token sees it.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>

#include "command/commands.h"
#include "command/options.h"
#include "command/signature_input.h"
#include "config/config.h"
#include "config/mode.h"
#include "exit_code.h"
#include "failure.h"
#include "files.h"
#include "formats/ecdsa_signature.h"
#include "session.h"
#include "system/configuration.h"
#include "system/key_choice.h"
#include "system/software_verification.h"
#include "system/token_contents.h"
#include "text.h"

namespace NV::tool {

namespace {

struct VerifyOptions : SignatureOptions {
    std::string file;
    std::string signature;
};

// Whether the token can be read and has the public key object that it verifies with.
bool hasPublicKeyObject(const std::wstring& keyName)
{
    const TokenContents token = readToken();
    const TokenCertificate* certificate = token.find(keyName);
    return certificate != nullptr && certificate->publicKey != PublicKeyObject::none;
}

// In classic, the provider has one status for a bad signature and for a token that does not answer. So
// the signature is verified again without the token. If the system cannot do that, the token's word
// counts as long as it answers and has the public key.
bool isBad(SECURITY_STATUS status, const Key& key, const std::wstring& name,
           const VerifyOptions& options, const Bytes& digest, const Bytes& signature)
{
    if (status == NTE_BAD_SIGNATURE)
        return true;
    if (status != NTE_INTERNAL_ERROR)
        return false;
    const std::optional<size_t> salt =
        options.pad == "pss" ? std::optional(saltSize(options)) : std::nullopt;
    const std::optional<bool> good = verifiesInSoftware(
        {key.publicBlob(), key.isRsa(), hashNamed(options.hash), salt}, digest, signature);
    if (good)
        return !*good;
    loadConfiguration();
    return Config::instance().mode().behaviour() == Behaviour::classic && hasPublicKeyObject(name);
}

[[noreturn]] void reportBad(Session& session, const VerifyOptions& options, const std::string& key,
                            const std::string& reason)
{
    session.out.line(session.out.coloured(Colour::red, "The signature is bad") + ": " + reason);
    session.out.document(
        {{"file", options.file}, {"key", key}, {"good", false}, {"reason", reason}});
    throw CLI::RuntimeError(static_cast<int>(ExitCode::badSignature));
}

void verify(Session& session, const CLI::App& command, const VerifyOptions& options)
{
    checkSignatureOptions(command, options);
    requireFile(options.file, options.digest);
    requireOneStandardInput("--signature", {options.file, options.signature});
    const KeyStorage storage(session);
    const std::wstring name = chooseKey(storage, options.key);
    const Key key(storage, name);
    checkSignatureOptions(command, options, key);
    const Bytes digest = digestOf(session, options, options.file);
    Bytes signature = readInput(options.signature);
    if (!key.isRsa() && options.ecFormat == "der") {
        try {
            signature = ecdsaFromDer(signature, (key.bits() + 7) / 8);
        } catch (const Failure& failure) {
            reportBad(session, options, toUtf8(name),
                      std::string(failure.what()) + ". " + failure.advice());
        }
    }
    SignatureInput input(options, digest, key.isRsa());
    const SECURITY_STATUS status = storage->VerifySignature(
        storage.handle(), key.handle(), input.padding(), input.data(), input.size(),
        signature.data(), static_cast<DWORD>(signature.size()), input.flags());
    if (status != ERROR_SUCCESS && isBad(status, key, name, options, digest, signature))
        reportBad(session, options, toUtf8(name),
                  "the file, key, hash or padding differs from the one that was used for signing.");
    require(status, "verifying");
    session.out.line("The signature is good.");
    session.out.document({{"file", options.file}, {"key", toUtf8(name)}, {"good", true}});
}

}  // namespace

void addVerify(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App& command =
        *program.add_subcommand("verify", "Verify the signature of a file on the token");
    command
        .add_option("FILE", options->file,
                    "File that was signed; - is standard input; none with --digest")
        ->type_name("");
    addSignatureOptions(command, session, *options);
    command
        .add_option("--signature", options->signature,
                    "File with the signature; - is standard input")
        ->required()
        ->option_text("SIG");
    command.callback([&command, &session, options] { verify(session, command, *options); });
}

}  // namespace NV::tool
