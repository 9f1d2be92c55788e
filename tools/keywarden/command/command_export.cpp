// keywarden export: writes a public key to a file.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

#include "command/commands.h"
#include "command/options.h"
#include "failure.h"
#include "formats/certificate.h"
#include "formats/public_key.h"
#include "output_file.h"
#include "session.h"
#include "system/key_storage.h"
#include "text.h"

namespace NV::tool {

namespace {

struct ExportOptions {
    std::string key;
    std::string format = "pem";
    std::string output;
    bool force = false;
};

// PEM and DER come from the certificate, because the provider's blob always states the exponent
// 65537.
Bytes publicKey(const Key& key, const ExportOptions& options)
{
    if (options.format == "blob")
        return key.publicBlob();
    const Certificate certificate = publishedCertificate(fromUtf8(options.key));
    if (certificate == nullptr)
        throw Failure("\"My\" contains no certificate for the key \"" + options.key + "\"",
                      "Run \"keywarden check\" to see whether it was published.");
    Bytes der = publicKeyOf(*certificate);
    if (options.format == "der")
        return der;
    const std::string pem = toPem(der);
    return {pem.begin(), pem.end()};
}

void exportKey(Session& session, const ExportOptions& options)
{
    const OutputFile output(session.out, options.output, {},
                            {.force = options.force, .text = options.format == "pem"});
    const KeyStorage storage(session);
    const Key key(storage, fromUtf8(options.key));
    const Bytes data = publicKey(key, options);
    output.write(data);
    session.out.line("Exported: " + output.name() + " (" + std::to_string(data.size()) + " bytes)");
    session.out.document({{"key", options.key},
                          {"format", options.format},
                          {"output", options.output},
                          {"bytes", data.size()}});
}

}  // namespace

void addExport(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<ExportOptions>();
    CLI::App& command = *program.add_subcommand("export", "Write the public key to a file");
    addKeyOption(command, options->key, "the key");
    addChoiceOption(command, "--format", options->format, {"pem", "der", "blob"},
                    "Format; blob is CNG's public key blob");
    addOutputOption(command, options->output, options->force, "OUT", "File for the public key");
    addModuleOptions(command, session);
    command.callback([&session, options] { exportKey(session, *options); });
}

}  // namespace NV::tool
