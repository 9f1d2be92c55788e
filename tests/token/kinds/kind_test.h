// The base of the suite of behaviours: the module on a token of any kind, with the behaviour that kind.sh
// asks for, and a record of what each operation answers. kind.sh tells these in the environment:
//   KEYWARDEN_TOKEN_FOLDER     the token's folder, with keys/ of certificates.sh
//   KEYWARDEN_TOKEN_BEHAVIOUR  classic or modern
//   KEYWARDEN_TOKEN_RSA_BITS, KEYWARDEN_TOKEN_EC_BITS
//   KEYWARDEN_TOKEN_SETTING    the name of another setting of the library; the records get "@NAME"
// The records are added to results.tsv in that folder, and page.py puts them into docs/tokens.md. A test
// fails if a result is wrong, whatever the token; that a token refuses an operation is a record.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "token_test.h"

namespace NV::test {

class KindTest : public testing::Test {
public:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

protected:
    // One provider for all cases: every operation on the token is complete in itself. Opening may have
    // failed; then only the cases of opening and listing make sense.
    static const ProviderModule& module();
    static NCRYPT_PROV_HANDLE provider();
    static SECURITY_STATUS openingStatus();
    static const OpenSsl& openSsl();

    // Keys by their names in certificates.sh.
    static TokenKey rsa();
    static TokenKey ec();
    static TokenKey lone();
    static OpenedKey open(const TokenKey& key) { return {module(), provider(), key.name}; }

    // Whether OpenSSL has the private key; not if the token made it.
    static bool hasPrivateKeyFile(const TokenKey& key);

    // The names in the order of EnumKeys.
    static std::vector<std::wstring> listed();

    // What an operation answered. The call and the result of the token that made it fail come from the
    // log since the last record.
    static void record(const std::string& operation, SECURITY_STATUS status);
    // The same in words.
    static void record(const std::string& operation, const std::string& answer);
    // What follows is the next operation.
    static void forgetLog();
    // The next record is about the opening.
    static void lookAtWholeLog();

private:
    struct Opened;
    static Opened& opened();
    static std::unique_ptr<Opened> current_;
};

}  // namespace NV::test
