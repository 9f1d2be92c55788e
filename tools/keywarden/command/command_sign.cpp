// keywarden sign: signatures of files, on their own or as CMS or JWS.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <array>
#include <functional>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "command/commands.h"
#include "command/options.h"
#include "command/signature_input.h"
#include "failure.h"
#include "files.h"
#include "formats/cms.h"
#include "formats/ecdsa_signature.h"
#include "formats/jws.h"
#include "formats/public_key.h"
#include "output_file.h"
#include "session.h"
#include "system/explanation.h"
#include "system/key_choice.h"
#include "system/key_storage.h"
#include "system/operation_failure.h"
#include "system/token_contents.h"
#include "text.h"

namespace NV::tool {

namespace {

struct SignOptions : SignatureOptions {
    std::vector<std::string> files;
    std::string format = "signature";
    std::string output;
    bool force = false;
};

struct Format {
    std::string_view name;
    std::string_view extension;
    bool isText;
};
constexpr std::array formats = {
    Format{"signature", ".sig", false},   Format{"cms", ".p7s", false},
    Format{"cms-pem", ".p7s", true},      Format{"jws", ".jws", true},
    Format{"jws-detached", ".jws", true},
};

const Format& formatOf(const SignOptions& options)
{
    return *std::ranges::find(formats, std::string_view(options.format), &Format::name);
}

bool isCms(const SignOptions& options)
{
    return options.format.starts_with("cms");
}

bool isJws(const SignOptions& options)
{
    return options.format.starts_with("jws");
}

// A file that will be signed.
struct Job {
    std::string file;  // empty for --digest
    std::string output;
    OutputFile target;
};

// What the key signs for a file, and how the result is made of the signature.
struct Work {
    Bytes digest;
    std::function<Bytes(const Bytes& signature)> result;
};

Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

// Where the result for a file goes: -o, a file in the folder -o, or beside the file.
std::string outputOf(const SignOptions& options, const std::string& file)
{
    const std::filesystem::path folder = toPath(options.output);
    std::error_code error;
    const bool intoFolder = !options.output.empty() && std::filesystem::is_directory(folder, error);
    if (!options.output.empty() && !intoFolder) {
        if (options.files.size() > 1)
            throw CLI::ValidationError("--output",
                                       "for several files it must be an existing folder");
        return options.output;
    }
    if (file.empty() || isStandardStream(file))
        throw CLI::ValidationError("--output", "is required without the name of a file");
    const std::string name = file + std::string(formatOf(options).extension);
    return intoFolder ? toUtf8(folder / toPath(name).filename()) : name;
}

std::vector<Job> planned(Session& session, const SignOptions& options)
{
    const std::vector<std::string> files =
        options.digest.empty() ? options.files : std::vector<std::string>{""};
    std::vector<Job> jobs;
    std::set<std::wstring> names;
    for (const std::string& file : files) {
        const std::string output = outputOf(options, file);
        std::wstring name = std::filesystem::absolute(toPath(output)).native();
        CharUpperBuffW(name.data(), static_cast<DWORD>(name.size()));
        if (!names.insert(name).second)
            throw CLI::ValidationError("--output", "two results would be " + output);
        jobs.push_back({file, output,
                        OutputFile(session.out, output, options.files,
                                   {.force = options.force, .text = formatOf(options).isText})});
    }
    return jobs;
}

void checkTogether(const CLI::App& command, const SignOptions& options)
{
    checkSignatureOptions(command, options);
    requireFile(options.files.empty() ? "" : options.files.front(), options.digest);
    requireOneStandardInput("FILE", options.files);
    if (options.format != "signature")
        refuseIfGiven(command, "--ec-format", "applies only with --format signature");
    if (!isJws(options))
        return;
    refuseIfGiven(command, "--digest", "does not apply to a JWS, which is signed with its header");
    refuseIfGiven(command, "--salt", "does not apply to a JWS: its salt is as long as the hash");
    if (hashSize(hashNamed(options.hash)) == 20)
        throw CLI::ValidationError("--hash", "a JWS has no sha1");
}

// The hash of a JWS follows from the curve.
void fitHash(const CLI::App& command, SignOptions& options, const Key& key)
{
    if (!isJws(options) || key.isRsa())
        return;
    const std::string hash = "sha" + std::to_string(8 * jwsHashSize(key.bits()));
    if (isGiven(command, "--hash") && hashSize(hashNamed(options.hash)) != jwsHashSize(key.bits()))
        throw CLI::ValidationError("--hash", "a JWS by this key requires " + hash);
    options.hash = hash;
}

// The signature in the format of other programs.
Bytes encoded(const SignOptions& options, const Key& key, const Bytes& signature)
{
    const bool raw = key.isRsa() || isJws(options) || options.ecFormat == "raw";
    return raw ? signature : ecdsaToDer(signature);
}

Certificate requiredCertificate(const std::wstring& keyName)
{
    Certificate certificate = readToken().certificateOf(keyName);
    if (certificate == nullptr)
        throw Failure("the key \"" + toUtf8(keyName) + "\" has no certificate, which CMS requires",
                      "Run \"keywarden check\" to see the certificates of the token.");
    return certificate;
}

Work cmsWork(const SignOptions& options, const Key& key, const CERT_CONTEXT& certificate,
             const Bytes& digest)
{
    SYSTEMTIME now{};
    GetSystemTime(&now);
    const Bytes attributes = cmsAttributes(digest, now);
    SignatureAlgorithm algorithm = SignatureAlgorithm::ecdsa;
    if (key.isRsa())
        algorithm =
            options.pad == "pss" ? SignatureAlgorithm::rsaPss : SignatureAlgorithm::rsaPkcs1;
    const HashAlgorithm& hash = hashNamed(options.hash);
    const CmsSigner signer{certificate, hash, algorithm, saltSize(options)};
    const bool pem = formatOf(options).isText;
    return {hashBytes(attributes, hash), [signer, attributes, pem](const Bytes& signature) {
                const Bytes der = cmsSignature(signer, attributes, signature);
                return pem ? bytesOf(toPem(der, "CMS")) : der;
            }};
}

Work jwsWork(const SignOptions& options, const Key& key, const std::wstring& keyName,
             const std::string& file)
{
    const HashAlgorithm& hash = hashNamed(options.hash);
    const std::string algorithm = jwsAlgorithm(key.isRsa(), options.pad == "pss", hashSize(hash));
    const std::string input = jwsSigningInput(algorithm, toUtf8(keyName), readInput(file));
    const bool detached = options.format == "jws-detached";
    return {hashBytes(bytesOf(input), hash), [input, detached](const Bytes& signature) {
                return bytesOf(jwsCompact(input, signature, detached));
            }};
}

// All that can be done before the first PIN is asked for. `certificate` is null unless it is for CMS.
std::vector<Work> prepared(const Session& session, const SignOptions& options, const Key& key,
                           const std::wstring& keyName, const CERT_CONTEXT* certificate,
                           const std::vector<Job>& jobs)
{
    std::vector<Work> all;
    for (const Job& job : jobs) {
        if (isJws(options))
            all.push_back(jwsWork(options, key, keyName, job.file));
        else if (const Bytes digest = digestOf(session, options, job.file); certificate != nullptr)
            all.push_back(cmsWork(options, key, *certificate, digest));
        else
            all.push_back({digest, [](const Bytes& signature) { return signature; }});
    }
    return all;
}

Bytes signedBy(const Key& key, SignatureInput input)
{
    const KeyStorage& storage = key.storage();
    DWORD size = 0;
    const auto run = [&](PBYTE buffer, DWORD room) {
        require(storage->SignHash(storage.handle(), key.handle(), input.padding(), input.data(),
                                  input.size(), buffer, room, &size, input.flags()),
                "signing", PinUse::asks);
    };
    run(nullptr, 0);
    Bytes signature(size);
    size = 0;
    run(signature.data(), static_cast<DWORD>(signature.size()));
    requireResult(size > 0, "signing");
    signature.resize(size);
    return signature;
}

Json signJob(Session& session, const SignOptions& options, const Key& key, const Job& job,
             const Work& work)
{
    const Bytes signature = signedBy(key, SignatureInput(options, work.digest, key.isRsa()));
    const Bytes result = work.result(encoded(options, key, signature));
    job.target.write(result);
    session.out.line("Signed: " + job.target.name() + " (" + std::to_string(result.size()) +
                     " bytes)");
    return {{"file", job.file}, {"signature", job.output}, {"bytes", result.size()}};
}

// Says which files are signed already when one fails.
Json signEach(Session& session, const SignOptions& options, const Key& key,
              const std::vector<Job>& jobs, const std::vector<Work>& works)
{
    Json results = Json::array();
    for (size_t i = 0; i < jobs.size(); ++i) {
        try {
            results.push_back(signJob(session, options, key, jobs[i], works[i]));
        } catch (const Failure& failure) {
            if (jobs.size() == 1)
                throw;
            throw Failure(inputName(jobs[i].file) + ": " + failure.what() + "; " +
                              std::to_string(i) + " of " + std::to_string(jobs.size()) +
                              " files are signed",
                          failure.advice(), failure.exitCode());
        }
    }
    return results;
}

void sign(Session& session, const CLI::App& command, SignOptions& options)
{
    checkTogether(command, options);
    const std::vector<Job> jobs = planned(session, options);
    const KeyStorage storage(session);
    const std::wstring keyName = chooseKey(storage, options.key);
    const Key key(storage, keyName);
    fitHash(command, options, key);
    checkSignatureOptions(command, options, key);
    const Certificate certificate = isCms(options) ? requiredCertificate(keyName) : nullptr;
    const std::vector<Work> works =
        prepared(session, options, key, keyName, certificate.get(), jobs);
    if (jobs.size() > 1)
        session.out.line("The PIN dialog appears once for each of the " +
                         std::to_string(jobs.size()) + " files.");
    const Json results = signEach(session, options, key, jobs, works);
    Json document = {{"key", toUtf8(keyName)}};
    if (results.size() == 1)
        document.update(results.front());
    else
        document["signatures"] = results;
    session.out.document(document);
}

}  // namespace

void addSign(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<SignOptions>();
    CLI::App& command = *program.add_subcommand("sign", "Sign files; asks for the PIN");
    command
        .add_option("FILE", options->files,
                    "Files to sign; - is standard input; none with --digest")
        ->type_name("");
    addSignatureOptions(command, session, *options);
    addChoiceOption(command, "--format", options->format,
                    {"signature", "cms", "cms-pem", "jws", "jws-detached"}, "Format of the result");
    command
        .add_option("-o,--output", options->output,
                    "File for the signature, or folder for those of several files; - is standard "
                    "output (default: beside the file)")
        ->option_text("SIG");
    addForceOption(command, options->force);
    command.callback([&command, &session, options] { sign(session, command, *options); });
}

}  // namespace NV::tool
