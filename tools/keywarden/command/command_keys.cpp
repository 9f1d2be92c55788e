// keywarden keys: lists the provider's keys.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <optional>

#include "command/commands.h"
#include "command/options.h"
#include "config/config.h"
#include "formats/certificate.h"
#include "p11/p11.h"
#include "session.h"
#include "system/configuration.h"
#include "system/key_storage.h"
#include "system/public_session.h"
#include "text.h"

namespace NV::tool {

namespace {

// The public key objects of the token that the provider uses.
class PublicKeyObjects {
public:
    // A token that cannot be read is no error here: the operations on it report the reason.
    PublicKeyObjects()
    {
        loadConfiguration();
        if (!p11_.loadModule(Config::instance().get("p11File")))
            return;
        if (const P11Slot* slot = p11_.module()->firstActiveSlot())
            session_.emplace(p11_, slot->id());
    }

    bool has(const std::wstring& keyName)
    {
        return !session_ || !session_->isOpen() ||
               session_->hasPublicKey(hexDecode(toUtf8(keyName)));
    }

private:
    Pkcs11 p11_;
    std::optional<PublicSession> session_;
};

struct KeyRow {
    std::string name;
    std::string algorithm;
    DWORD bits = 0;
    std::string subject = {};
    std::string expires = {};
    bool expired = false;
    std::vector<std::string> operations = {};
};

// The token verifies and encrypts with its public key object. What the private key can do is visible
// only after a login.
std::vector<std::string> operationsOf(const Key& key, bool hasPublicKey)
{
    if (key.isRsa() && hasPublicKey)
        return {"sign", "verify", "encrypt", "decrypt"};
    if (key.isRsa())
        return {"sign", "decrypt"};
    if (hasPublicKey)
        return {"sign", "verify", "agree"};
    return {"sign", "agree"};
}

KeyRow describe(const Key& key, const std::wstring& name)
{
    KeyRow row{.name = toUtf8(name),
               .algorithm = toUtf8(key.text(NCRYPT_ALGORITHM_PROPERTY)),
               .bits = key.bits()};
    if (const Certificate certificate = publishedCertificate(name)) {
        row.subject = subjectOf(*certificate);
        row.expires = expiryOf(*certificate);
        row.expired = isExpired(*certificate);
    }
    return row;
}

std::vector<KeyRow> describeAll(Session& session)
{
    const KeyStorage storage(session);
    std::vector<KeyRow> rows;
    PublicKeyObjects objects;
    for (const std::wstring& name : storage.keyNames()) {
        const Key key(storage, name);
        rows.push_back(describe(key, name));
        rows.back().operations = operationsOf(key, objects.has(name));
    }
    return rows;
}

Json toJson(const KeyRow& row)
{
    return {{"name", row.name},
            {"algorithm", row.algorithm},
            {"bits", row.bits},
            {"subject", row.subject},
            {"expires", row.expires},
            {"expired", row.expired},
            {"operations", row.operations}};
}

void listKeys(Session& session)
{
    Json document = {{"keys", Json::array()}};
    std::vector<std::vector<std::string>> rows;
    for (const KeyRow& row : describeAll(session)) {
        document["keys"].push_back(toJson(row));
        rows.push_back({row.name, row.algorithm, std::to_string(row.bits), row.subject,
                        row.expired ? row.expires + " (expired)" : row.expires,
                        joined(row.operations)});
    }
    if (rows.empty())
        session.out.line("The provider has no keys. Run \"keywarden check\" to find the reason.");
    else
        session.out.table({"KEY", "ALGORITHM", "BITS", "SUBJECT", "EXPIRES", "OPERATIONS"}, rows);
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
