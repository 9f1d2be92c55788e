// keywarden derive: agrees on a secret with a peer's public key and derives a key from the secret.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>
#include <utility>
#include <vector>

#include "command/commands.h"
#include "command/options.h"
#include "failure.h"
#include "files.h"
#include "formats/hashing.h"
#include "formats/public_key.h"
#include "output_file.h"
#include "session.h"
#include "system/key_choice.h"
#include "system/key_storage.h"
#include "system/operation_failure.h"
#include "text.h"

namespace NV::tool {

namespace {

struct DeriveOptions {
    std::string key;
    std::string peer;
    std::string kdf = "hash";
    std::string hash = "sha256";
    std::string hmacKeyFile;
    std::string prepend;
    std::string append;
    std::string output;
    bool force = false;
};

// The parameter list of DeriveKey. It contains pointers to its own members.
class Parameters {
public:
    Parameters(const DeriveOptions& options, SecretBytes hmacKey)
        : hashName_(hashNamed(options.hash).name), hmacKey_(std::move(hmacKey)),
          prepend_(hexDecode(options.prepend)), append_(hexDecode(options.append))
    {
        add(KDF_HASH_ALGORITHM, hashName_.data(), (hashName_.size() + 1) * sizeof(wchar_t));
        addBytes(KDF_HMAC_KEY, hmacKey_);
        addBytes(KDF_SECRET_PREPEND, prepend_);
        addBytes(KDF_SECRET_APPEND, append_);
        list_ = {NCRYPTBUFFER_VERSION, static_cast<ULONG>(buffers_.size()), buffers_.data()};
    }
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;
    ~Parameters() = default;

    NCryptBufferDesc* list() { return &list_; }

private:
    void add(ULONG type, void* data, size_t size)
    {
        buffers_.push_back({static_cast<ULONG>(size), type, data});
    }
    void addBytes(ULONG type, auto& bytes)
    {
        if (!bytes.empty())
            add(type, bytes.data(), bytes.size());
    }

    std::wstring hashName_;
    SecretBytes hmacKey_;
    Bytes prepend_;
    Bytes append_;
    std::vector<BCryptBuffer> buffers_;
    NCryptBufferDesc list_{};
};

// An agreed secret; the destructor releases it.
class Secret {
public:
    Secret(const Key& key, const Key& peer) : storage_(key.storage())
    {
        require(
            storage_->SecretAgreement(storage_.handle(), key.handle(), peer.handle(), &handle_, 0),
            "agreeing on the secret", PinUse::asks);
        requireResult(handle_ != 0, "agreeing on the secret");
    }
    ~Secret()
    {
        if (handle_ != 0)
            atEnd([this] { storage_->FreeSecret(storage_.handle(), handle_); });
    }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    SecretBytes derive(const wchar_t* kdf, Parameters& parameters) const
    {
        DWORD size = 0;
        const auto run = [&](PBYTE buffer, DWORD room) {
            require(storage_->DeriveKey(storage_.handle(), handle_, kdf, parameters.list(), buffer,
                                        room, &size, 0),
                    "deriving the key");
        };
        run(nullptr, 0);
        SecretBytes key(size);
        run(key.data(), size);
        key.resize(size);
        return key;
    }

private:
    const KeyStorage& storage_;
    NCRYPT_SECRET_HANDLE handle_ = 0;
};

// The token would reject the point too, but only after the PIN was entered, and without a reason.
void requireSameCurve(const Key& key, const Bytes& peerBlob)
{
    const DWORD own = key.bits();
    const DWORD peer = bitsOfEcBlob(peerBlob);
    if (own != peer)
        throw Failure("the peer's key is on P-" + std::to_string(peer) + ", the token's on P-" +
                      std::to_string(own));
}

// Options that are valid on their own can contradict each other.
void checkTogether(const DeriveOptions& options)
{
    if (options.kdf == "hmac" && options.hmacKeyFile.empty())
        throw CLI::ValidationError("--kdf", "hmac requires --hmac-key-file");
    if (options.kdf != "hmac" && !options.hmacKeyFile.empty())
        throw CLI::ValidationError("--hmac-key-file", "applies only with --kdf hmac");
    requireOneStandardInput("--hmac-key-file", {options.peer, options.hmacKeyFile});
}

SecretBytes readHmacKey(const DeriveOptions& options)
{
    if (options.hmacKeyFile.empty())
        return {};
    SecretBytes key = readSecretInput(options.hmacKeyFile);
    if (key.empty())
        throw Failure(inputName(options.hmacKeyFile) + " is empty; it must contain the HMAC key");
    return key;
}

void derive(Session& session, const DeriveOptions& options)
{
    checkTogether(options);
    std::vector<std::string> inputs = {options.peer};
    if (!options.hmacKeyFile.empty())
        inputs.push_back(options.hmacKeyFile);
    const OutputFile output(session.out, options.output, inputs,
                            {.force = options.force, .secret = true});
    const Bytes peerBlob = ecdhBlob(publicKeyFromFile(readInput(options.peer)));
    Parameters parameters(options, readHmacKey(options));
    const KeyStorage storage(session);
    const std::wstring name = chooseKey(storage, options.key);
    const Key key(storage, name);
    if (key.isRsa())
        throw Failure("the key \"" + toUtf8(name) + "\" is not an elliptic curve key");
    requireSameCurve(key, peerBlob);
    const Key peer(storage, BCRYPT_ECCPUBLIC_BLOB, peerBlob);
    const Secret secret(key, peer);
    const SecretBytes derived =
        secret.derive(options.kdf == "hmac" ? BCRYPT_KDF_HMAC : BCRYPT_KDF_HASH, parameters);
    output.write(derived);
    session.out.line("Derived: " + output.name() + " (" + std::to_string(derived.size()) +
                     " bytes)");
    session.out.document(
        {{"key", toUtf8(name)}, {"output", options.output}, {"bytes", derived.size()}});
}

// Other processes can read command lines, and shells keep them. The option is known only to say so.
void refuseHmacKey(CLI::App& command)
{
    command
        .add_option_function<std::string>(
            "--hmac-key",
            [](const std::string&) {
                throw CLI::ValidationError(
                    "--hmac-key",
                    "a key on the command line is visible to others; put its bytes "
                    "into a file and use --hmac-key-file FILE, or - for standard input");
            })
        ->group("");
}

}  // namespace

void addDerive(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<DeriveOptions>();
    CLI::App& command = *program.add_subcommand(
        "derive", "Agree on a secret with a peer and derive a key from it; asks for the PIN");
    addKeyOption(command, options->key, "an elliptic curve key");
    command
        .add_option("--peer", options->peer,
                    "The peer's public key, PEM or DER; - is standard input")
        ->required()
        ->option_text("FILE");
    addChoiceOption(command, "--kdf", options->kdf, {"hash", "hmac"}, "Key derivation function");
    addHashOption(command, options->hash, "Hash algorithm of the key derivation function");
    command
        .add_option("--hmac-key-file", options->hmacKeyFile,
                    "File with the bytes of the HMAC key, for --kdf hmac; - is standard input")
        ->option_text("FILE");
    refuseHmacKey(command);
    addHexOption(command, "--prepend", options->prepend, "Bytes to put before the secret");
    addHexOption(command, "--append", options->append, "Bytes to put after the secret");
    addOutputOption(command, options->output, options->force, "OUT", "File for the derived key");
    addModuleOptions(command, session);
    command.callback([&session, options] { derive(session, *options); });
}

}  // namespace NV::tool
