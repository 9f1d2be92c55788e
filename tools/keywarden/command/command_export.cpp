// keywarden export: writes a public key or its certificate to a file.

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
#include "system/key_choice.h"
#include "system/key_storage.h"
#include "system/token_contents.h"
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
// 65537 in classic.
Bytes exported(const Key& key, const std::wstring& name, const std::string& format)
{
    if (format == "blob")
        return key.publicBlob();
    const Certificate certificate = readToken().certificateOf(name);
    if (certificate == nullptr)
        throw Failure("the certificate of the key \"" + toUtf8(name) +
                          "\" cannot be read from the token",
                      "Run \"keywarden check\" to see the certificates of the token.");
    const bool whole = format.starts_with("cert");
    Bytes der = whole ? Bytes(certificate->pbCertEncoded,
                              certificate->pbCertEncoded + certificate->cbCertEncoded)
                      : publicKeyOf(*certificate);
    if (format.ends_with("der"))
        return der;
    const std::string pem = toPem(der, whole ? "CERTIFICATE" : "PUBLIC KEY");
    return {pem.begin(), pem.end()};
}

void exportKey(Session& session, const ExportOptions& options)
{
    const OutputFile output(
        session.out, options.output, {},
        {.force = options.force, .text = options.format == "pem" || options.format == "cert"});
    const KeyStorage storage(session);
    const std::wstring name = chooseKey(storage, options.key);
    const Key key(storage, name);
    const Bytes data = exported(key, name, options.format);
    output.write(data);
    session.out.line("Exported: " + output.name() + " (" + std::to_string(data.size()) + " bytes)");
    session.out.document({{"key", toUtf8(name)},
                          {"format", options.format},
                          {"output", options.output},
                          {"bytes", data.size()}});
}

}  // namespace

void addExport(CLI::App& program, Session& session)
{
    const auto options = std::make_shared<ExportOptions>();
    CLI::App& command =
        *program.add_subcommand("export", "Write the public key or the certificate to a file");
    addKeyOption(command, options->key, "the key");
    addChoiceOption(command, "--format", options->format,
                    {"pem", "der", "blob", "cert", "cert-der"},
                    "Format; blob is CNG's public key blob, cert the certificate as PEM");
    addOutputOption(command, options->output, options->force, "OUT", "File for the result");
    addModuleOptions(command, session);
    command.callback([&session, options] { exportKey(session, *options); });
}

}  // namespace NV::tool
