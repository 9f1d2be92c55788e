// keywarden encrypt and decrypt: short messages, such as keys, with an RSA key.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

#include "commands.h"
#include "failure.h"
#include "files.h"
#include "hashing.h"
#include "key_storage.h"
#include "text.h"

namespace NV::tool {

namespace {

struct CipherOptions {
    std::string file;
    std::string key;
    std::string pad = "pkcs1";
    std::string hash = "sha1";
    std::string output;
};

// Encrypt and Decrypt have one shape.
using CipherFn = NCryptEncryptFn;

Bytes runCipher(const CipherOptions& options, const Key& key, CipherFn cipher, Bytes input,
                const char* what)
{
    const KeyStorage& storage = key.storage();
    const bool oaep = options.pad == "oaep";
    BCRYPT_OAEP_PADDING_INFO padding{oaep ? hashNamed(options.hash).name.data() : nullptr, nullptr,
                                     0};
    // Either result is at most as long as the modulus, so there is no need to ask for the length,
    // which would cost a second PIN.
    Bytes output((key.bits() + 7) / 8);
    DWORD size = 0;
    require(cipher(storage.handle(), key.handle(), input.data(), static_cast<DWORD>(input.size()),
                   oaep ? &padding : nullptr, output.data(), static_cast<DWORD>(output.size()),
                   &size, oaep ? BCRYPT_PAD_OAEP : BCRYPT_PAD_PKCS1),
            what);
    output.resize(size);
    return output;
}

void run(Session& session, const CipherOptions& options, bool encrypt)
{
    const KeyStorage storage(session);
    const Key key(storage, toUtf16(options.key));
    if (!key.isRsa())
        throw Failure("the key \"" + options.key + "\" is not an RSA key");
    Bytes input = readFile(toPath(options.file));
    if (input.empty())
        throw Failure(options.file + " is empty");
    const Bytes output = runCipher(options, key, encrypt ? storage->Encrypt : storage->Decrypt,
                                   std::move(input), encrypt ? "encrypting" : "decrypting");
    writeFile(toPath(options.output), output);
    session.out.line((encrypt ? "Encrypted: " : "Decrypted: ") + options.output + " (" +
                     std::to_string(output.size()) + " bytes)");
    session.out.document({{"file", options.file},
                          {"key", options.key},
                          {"output", options.output},
                          {"bytes", output.size()}});
}

void addCommand(CLI::App& program, Session& session, const char* name, const char* help,
                bool encrypt)
{
    const auto options = std::make_shared<CipherOptions>();
    CLI::App& command = *program.add_subcommand(name, help);
    command.add_option("FILE", options->file, "The file")->required();
    command.add_option("--key", options->key, "Name of an RSA key; \"keywarden keys\" lists them")
        ->required()
        ->option_text("NAME");
    command.add_option("--pad", options->pad, "Padding (default: pkcs1)")
        ->option_text("pkcs1|oaep")
        ->check(CLI::IsMember({"pkcs1", "oaep"}));
    command.add_option("--hash", options->hash, "Hash of OAEP (default: sha1)")
        ->option_text("HASH");
    command.add_option("-o,--output", options->output, "Where the result goes")
        ->required()
        ->option_text("OUT");
    addModuleOptions(command, session);
    command.callback([&session, options, encrypt] { run(session, *options, encrypt); });
}

}  // namespace

void addEncrypt(CLI::App& program, Session& session)
{
    addCommand(program, session, "encrypt", "Encrypt a short file with an RSA public key", true);
}

void addDecrypt(CLI::App& program, Session& session)
{
    addCommand(program, session, "decrypt", "Decrypt it on the token; asks for the PIN", false);
}

}  // namespace NV::tool
