// keywarden keys: the keys that the provider serves.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "certificate.h"
#include "commands.h"
#include "key_storage.h"
#include "text.h"

namespace NV::tool {

namespace {

struct KeyRow {
    std::string name;
    std::string algorithm;
    DWORD bits = 0;
    std::string subject = {};
    std::string expires = {};
    bool expired = false;
    std::string operations = {};
};

KeyRow describe(const KeyStorage& storage, const std::wstring& name)
{
    const Key key(storage, name);
    KeyRow row{.name = toUtf8(name),
               .algorithm = toUtf8(key.text(NCRYPT_ALGORITHM_PROPERTY)),
               .bits = key.bits(),
               .operations =
                   key.isRsa() ? "sign, verify, encrypt, decrypt" : "sign, verify, agree"};
    if (const Certificate certificate = publishedCertificate(name)) {
        row.subject = subjectOf(*certificate);
        row.expires = expiryOf(*certificate);
        row.expired = isExpired(*certificate);
    }
    return row;
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
    const KeyStorage storage(session);
    Json document = {{"keys", Json::array()}};
    std::vector<std::vector<std::string>> rows;
    for (const std::wstring& name : storage.keyNames()) {
        const KeyRow row = describe(storage, name);
        document["keys"].push_back(toJson(row));
        rows.push_back({row.name, row.algorithm, std::to_string(row.bits), row.subject,
                        row.expired ? row.expires + " (expired)" : row.expires, row.operations});
    }
    if (rows.empty())
        session.out.line("The provider serves no key; \"keywarden check\" says why.");
    else
        session.out.table({"KEY", "ALGORITHM", "BITS", "SUBJECT", "EXPIRES", "OPERATIONS"}, rows);
    session.out.document(document);
}

}  // namespace

void addKeys(CLI::App& program, Session& session)
{
    CLI::App& command = *program.add_subcommand("keys", "List the keys that the provider serves");
    addModuleOptions(command, session);
    command.callback([&session] { listKeys(session); });
}

}  // namespace NV::tool
