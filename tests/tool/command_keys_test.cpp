// keywarden keys: where its facts come from, and what it says without keys.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "certified_profile.h"
#include "contains.h"
#include "published.h"

namespace NV::test {

namespace {

constexpr const wchar_t* provider = L"Norvanta Software KeyStore Provider";

class KeysCommand : public testing::Test, protected CertifiedProfile {
protected:
    Json keys(unsigned long exitCode = 0) { return profile.json({"keys"}, exitCode, options); }

    // The only key.
    Json key()
    {
        const Json document = keys();
        EXPECT_EQ(document.value("keys", Json::array()).size(), 1U) << document.dump(1);
        return document["keys"].at(0);
    }
};

TEST_F(KeysCommand, DescribesTheCertificateOfTheToken)
{
    const Json row = key();
    EXPECT_EQ(row["name"], "7391");
    EXPECT_EQ(row["algorithm"], "RSA");
    EXPECT_EQ(row["bits"], 2048);
    EXPECT_EQ(row["subject"], "KeyWarden rsa2048");
    EXPECT_EQ(row["published"], true);
    EXPECT_EQ(row["operations"].size(), 4U);
}

// Cards were swapped, or the key was renewed under its name: "My" has another certificate for it.
TEST_F(KeysCommand, NamesEntriesThatDoNotFitTheToken)
{
    const Published other(certificateWithSerial("p384", 816), provider, L"7391");
    const Json document = keys();
    EXPECT_EQ(document["keys"].at(0)["subject"], "KeyWarden rsa2048");
    EXPECT_EQ(document["keys"].at(0)["algorithm"], "RSA");
    bool named = false;
    for (const Json& row : document["stale"])
        named = named || (row["name"] == "7391" && row["subject"] == "KeyWarden p384" &&
                          row["thumbprint"].get<std::string>().size() == 40);
    EXPECT_TRUE(named) << document.dump(1);
    EXPECT_TRUE(contains(profile.run({"keys"}, options).output,
                         "Not on this token, but in \"My\" for this provider:\n  "));
}

TEST_F(KeysCommand, ExportTakesTheCertificateOfTheToken)
{
    const Published other(certificateWithSerial("p384", 819), provider, L"7391");
    const auto file = profile.path() / "exported";
    const ChildResult result = profile.run(
        {"export", "--key", "7391", "--format", "cert-der", "-o", narrowPath(file)}, options);
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    EXPECT_EQ(readFile(file), std::string(onToken.begin(), onToken.end()));
}

// A curve that CNG has no blob for.
TEST_F(KeysCommand, ListsAKeyOnAnotherCurve)
{
    for (const bool modern : {false, true}) {
        for (const char* curve : {"secp256k1", "brainpoolP320r1"}) {
            if (modern)
                setModern();
            setCertificate(certificateWithSerial(curve, 817));
            const Json row = key();
            EXPECT_EQ(row["algorithm"], "ECDSA") << curve;
            EXPECT_EQ(row["subject"], std::string("KeyWarden ") + curve);
            EXPECT_EQ(row["operations"], Json({"sign", "verify"}));
        }
    }
}

TEST_F(KeysCommand, SaysThatThereIsNoToken)
{
    setFault(L"C_GetSlotList none");
    const Json document = keys(7);
    EXPECT_EQ(document["error"], "there is no token: no slot has an initialised one");
}

TEST_F(KeysCommand, DoesNotTakeATokenThatCannotBeReadForAnEmptyOne)
{
    for (const bool modern : {false, true}) {
        if (modern)
            setModern();
        setFault(L"C_OpenSession refuse");
        const Json document = keys(1);
        EXPECT_TRUE(document.contains("error")) << document.dump(1);
        EXPECT_TRUE(contains(document.value("advice", ""), "keywarden check")) << document.dump(1);
    }
}

// The name has as many bytes as the one that it replaces. Nobody checks the signature.
TEST_F(KeysCommand, AlignsAJapaneseSubject)
{
    const std::string old = "KeyWarden rsa2048";
    const std::string name = "\u5c71\u7530\u592a\u90ce\u69d8 A";
    ASSERT_EQ(old.size(), name.size());
    Bytes der = onToken;
    const auto last = std::find_end(der.begin(), der.end(), old.begin(), old.end());
    ASSERT_NE(last, der.end());
    std::ranges::copy(name, last);
    setCertificate(der);
    const std::string text = profile.run({"keys"}, options).output;
    // Each of these characters is as wide as two others.
    EXPECT_TRUE(contains(text, "KEY   ALGORITHM  BITS  SUBJECT       EXPIRES")) << text;
    EXPECT_TRUE(contains(text, "7391  RSA        2048  " + name + "  20")) << text;
}

TEST_F(KeysCommand, RefusesAModuleWithoutATable)
{
    const ChildResult result =
        profile.run({"keys", "--module", narrowPath(oddLibrary(L"no_table.dll"))}, options);
    EXPECT_EQ(result.exitCode, 1U) << result.output;
    EXPECT_TRUE(contains(result.output, "is not this product's provider")) << result.output;
}

}  // namespace

}  // namespace NV::test
