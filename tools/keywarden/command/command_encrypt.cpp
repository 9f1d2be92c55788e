// keywarden encrypt and decrypt: short files, such as keys, with an RSA key.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <utility>

#include "command/commands.h"
#include "command/options.h"
#include "failure.h"
#include "files.h"
#include "formats/hashing.h"
#include "output_file.h"
#include "session.h"
#include "system/key_choice.h"
#include "system/key_storage.h"
#include "system/operation_failure.h"
#include "text.h"

namespace NV::tool {

namespace {

struct CipherOptions {
    std::string file;
    std::string key;
    std::string pad = "pkcs1";
    std::string hash = "sha1";
    std::string output;
    bool force = false;
};

// A length that no result has. 0 is the length of an empty message.
constexpr DWORD notWritten = 0xFFFFFFFF;

// Encrypt and Decrypt have the same signature.
using CipherFn = NCryptEncryptFn;

bool isOaep(const CipherOptions& options)
{
    return options.pad == "oaep";
}

size_t modulusSize(const Key& key)
{
    return (key.bits() + 7) / 8;
}

// In bytes: what the padding takes of the modulus (RFC 8017, 7.1.1 and 7.2.1).
size_t paddingSize(const CipherOptions& options)
{
    return isOaep(options) ? 2 * hashSize(hashNamed(options.hash)) + 2 : 11;
}

// Rejects what cannot work before the user types a PIN.
void checkInput(const CipherOptions& options, const Key& key, size_t size, bool encrypt)
{
    const size_t modulus = modulusSize(key);
    const size_t padding = paddingSize(options);
    if (padding >= modulus)
        throw Failure("OAEP with " + options.hash + " takes " + std::to_string(padding) +
                          " bytes, and the modulus of this key has " + std::to_string(modulus),
                      "Use a shorter hash or a longer key.");
    const std::string length = inputName(options.file) + " has " + std::to_string(size) + " bytes";
    const size_t longest = modulus - padding;
    if (encrypt && (size == 0 || size > longest))
        throw Failure(length + "; 1 to " + std::to_string(longest) +
                          " can be encrypted with this key and padding",
                      "Encrypt the file with a symmetric key, and that key with this command.");
    if (!encrypt && size != modulus)
        throw Failure(length + "; data encrypted with this key has " + std::to_string(modulus));
}

SecretBytes runCipher(const CipherOptions& options, const Key& key, CipherFn cipher,
                      SecretBytes input, bool encrypt)
{
    const KeyStorage& storage = key.storage();
    const std::string what = encrypt ? "encrypting" : "decrypting";
    BCRYPT_OAEP_PADDING_INFO padding{hashNamed(options.hash).name.data(), nullptr, 0};
    // The result is never longer than the modulus. Asking the provider for the length would make it
    // ask for the PIN twice.
    SecretBytes output(modulusSize(key));
    DWORD size = notWritten;
    const SECURITY_STATUS status = cipher(
        storage.handle(), key.handle(), input.data(), static_cast<DWORD>(input.size()),
        isOaep(options) ? &padding : nullptr, output.data(), static_cast<DWORD>(output.size()),
        &size, isOaep(options) ? BCRYPT_PAD_OAEP : BCRYPT_PAD_PKCS1);
    if (encrypt && status == NTE_INTERNAL_ERROR && isOaep(options) && options.hash != "sha1")
        throw Failure(operationFailure(status, what, PinUse::none).what(),
                      "Many tokens support OAEP only with --hash sha1.");
    require(status, what, encrypt ? PinUse::none : PinUse::asks);
    requireResult(size != notWritten, what);
    output.resize(size);
    return output;
}

void run(Session& session, const CipherOptions& options, bool encrypt)
{
    const OutputFile output(session.out, options.output, {options.file},
                            {.force = options.force, .secret = !encrypt});
    const KeyStorage storage(session);
    const std::wstring name = chooseKey(storage, options.key);
    const Key key(storage, name);
    if (!key.isRsa())
        throw Failure("the key \"" + toUtf8(name) + "\" is not an RSA key");
    SecretBytes input = readSecretInput(options.file);
    checkInput(options, key, input.size(), encrypt);
    const SecretBytes result = runCipher(
        options, key, encrypt ? storage->Encrypt : storage->Decrypt, std::move(input), encrypt);
    output.write(result);
    session.out.line((encrypt ? "Encrypted: " : "Decrypted: ") + output.name() + " (" +
                     std::to_string(result.size()) + " bytes)");
    session.out.document({{"file", options.file},
                          {"key", toUtf8(name)},
                          {"output", options.output},
                          {"bytes", result.size()}});
}

void addCommand(CLI::App& program, Session& session, const char* name, const char* help,
                bool encrypt)
{
    const auto options = std::make_shared<CipherOptions>();
    CLI::App& command = *program.add_subcommand(name, help);
    addFileArgument(command, options->file, std::string("File to ") + name);
    addKeyOption(command, options->key, "an RSA key");
    addChoiceOption(command, "--pad", options->pad, {"pkcs1", "oaep"}, "Padding");
    addHashOption(command, options->hash, "Hash algorithm of OAEP");
    addOutputOption(command, options->output, options->force, "OUT", "File for the result");
    addModuleOptions(command, session);
    command.callback([&command, &session, options, encrypt] {
        if (!isOaep(*options))
            refuseIfGiven(command, "--hash", "applies only with --pad oaep");
        run(session, *options, encrypt);
    });
}

}  // namespace

void addEncrypt(CLI::App& program, Session& session)
{
    addCommand(program, session, "encrypt", "Encrypt a short file with an RSA public key", true);
}

void addDecrypt(CLI::App& program, Session& session)
{
    addCommand(program, session, "decrypt", "Decrypt a short file on the token; asks for the PIN",
               false);
}

}  // namespace NV::tool
