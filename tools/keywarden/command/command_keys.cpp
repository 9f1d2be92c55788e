// keywarden keys: lists the provider's keys.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "command/commands.h"
#include "command/options.h"
#include "command/stale_certificates.h"
#include "exit_code.h"
#include "failure.h"
#include "formats/certificate.h"
#include "session.h"
#include "system/key_storage.h"
#include "system/published.h"
#include "system/token_contents.h"
#include "text.h"

namespace NV::tool {

namespace {

struct KeyRow {
    std::string name;
    std::string algorithm = {};
    DWORD bits = 0;
    std::string subject = {};
    std::string expires = {};
    bool expired = false;
    bool published = false;
    std::vector<std::string> operations = {};
};

struct KeyList {
    std::vector<KeyRow> keys;
    std::vector<StoredCertificate> stored;
    std::vector<const StoredCertificate*> stale;  // of these
};

// The token verifies and encrypts with its public key object. What the private key can do is visible
// only after a login. The operations on a curve that CNG has no blob for end where a peer is needed.
std::vector<std::string> operationsOf(const std::string& algorithm, bool hasPublicKey)
{
    if (algorithm == "RSA" && hasPublicKey)
        return {"sign", "verify", "encrypt", "decrypt"};
    if (algorithm == "RSA")
        return {"sign", "decrypt"};
    if (algorithm.empty())
        return {};
    std::vector<std::string> operations = {"sign"};
    if (hasPublicKey)
        operations.emplace_back("verify");
    if (algorithm != "ECDSA")
        operations.emplace_back("agree");
    return operations;
}

KeyRow describe(const TokenCertificate& certificate, const std::vector<StoredCertificate>& stored)
{
    KeyRow row{.name = toUtf8(certificate.keyName),
               .algorithm = certificate.algorithm(),
               .bits = certificate.bits,
               .published = isPublished(stored, certificate)};
    row.operations = operationsOf(row.algorithm, certificate.publicKey != PublicKeyObject::none);
    if (const Certificate context = certificateFrom(certificate.der)) {
        row.subject = subjectOf(*context);
        row.expires = expiryOf(*context);
        row.expired = isExpired(*context);
    }
    return row;
}

// A key whose certificate could not be read from the token.
KeyRow describe(const KeyStorage& storage, const std::wstring& name)
{
    KeyRow row{.name = toUtf8(name)};
    try {
        const Key key(storage, name);
        row.algorithm = toUtf8(key.text(NCRYPT_ALGORITHM_PROPERTY));
        row.bits = key.bits();
    } catch (const Failure&) {
        // A key that the provider cannot open or export is still listed.
    }
    row.operations = operationsOf(row.algorithm, true);
    return row;
}

// The names come from the provider, and all else from the token: "My" may have another certificate.
KeyList listAll(Session& session)
{
    // First, so that each of the two has the library to itself.
    guardKeyStorage(session);
    const TokenContents token = readToken();
    KeyList list;
    const KeyStorage storage(session);
    const std::vector<std::wstring> names = storage.keyNames();
    if (names.empty() && token.answers && !token.hasToken)
        throw Failure("there is no token: no slot has an initialised one",
                      "Insert the card or connect the token. \"keywarden check\" shows the slots.",
                      ExitCode::noTokenOrKey);
    if (names.empty() && !token.read)
        throw Failure(token.answers ? "the token cannot be read"
                                    : "the token's library cannot be loaded or initialized",
                      "Run \"keywarden check\" to find the reason.");
    // Opening the provider has published the certificates.
    list.stored = certificatesInMy();
    for (const std::wstring& name : names) {
        const TokenCertificate* certificate = token.find(name);
        list.keys.push_back(certificate != nullptr ? describe(*certificate, list.stored)
                                                   : describe(storage, name));
    }
    if (token.read)
        list.stale = staleEntries(list.stored, token.certificates);
    return list;
}

Json toJson(const KeyRow& row)
{
    return {{"name", row.name},           {"algorithm", row.algorithm},  {"bits", row.bits},
            {"subject", row.subject},     {"expires", row.expires},      {"expired", row.expired},
            {"published", row.published}, {"operations", row.operations}};
}

void printStale(Output& out, const std::vector<const StoredCertificate*>& stale)
{
    if (stale.empty())
        return;
    out.line();
    out.line("Not on this token, but in \"My\" for this provider:");
    for (const StoredCertificate* entry : stale)
        out.line("  " + lineOf(*entry));
    out.line("\"keywarden clean\" removes those whose keys are on no token.");
}

void listKeys(Session& session)
{
    const KeyList list = listAll(session);
    Json document = {{"keys", Json::array()}, {"stale", toJson(list.stale)}};
    std::vector<std::vector<std::string>> rows;
    for (const KeyRow& row : list.keys) {
        document["keys"].push_back(toJson(row));
        rows.push_back({row.name, row.algorithm, std::to_string(row.bits), row.subject,
                        row.expired ? row.expires + " (expired)" : row.expires,
                        joined(row.operations)});
    }
    if (rows.empty())
        session.out.line("The token has no certificate of a key, so the provider has no keys. "
                         "\"keywarden check\" shows its certificates.");
    else
        session.out.table({"KEY", "ALGORITHM", "BITS", "SUBJECT", "EXPIRES", "OPERATIONS"}, rows);
    printStale(session.out, list.stale);
    session.out.document(document);
}

}  // namespace

void addKeys(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand("keys", "List the provider's keys");
    addModuleOptions(command, session);
    command.callback([&session] { listKeys(session); });
}

}  // namespace NV::tool
