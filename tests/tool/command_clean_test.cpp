// keywarden clean: what it removes from "My", and what it leaves there.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "certified_profile.h"
#include "contains.h"
#include "formats/certificate.h"
#include "published.h"

namespace NV::test {

namespace {

constexpr const wchar_t* provider = L"Norvanta Software KeyStore Provider";

std::string thumbprintOf(const Bytes& der)
{
    return tool::thumbprintOf(*tool::certificateFrom(der));
}

bool isInMy(const Bytes& der)
{
    const auto stored = tool::certificatesInMy();
    return std::ranges::any_of(stored, [&](const tool::StoredCertificate& entry) {
        const CERT_CONTEXT& context = *entry.certificate;
        return Bytes(context.pbCertEncoded, context.pbCertEncoded + context.cbCertEncoded) == der;
    });
}

class CleanCommand : public testing::Test, protected CertifiedProfile {
protected:
    ChildResult run(const std::vector<std::string>& arguments, const char* input = nullptr)
    {
        if (input != nullptr)
            options.input = input;
        return profile.run(arguments, options);
    }

    const Bytes stale = certificateWithSerial("p384", 820);
    const Published staleEntry{stale, provider, L"0820"};
    const Bytes foreign = certificateWithSerial("p384", 821);
    const Published foreignEntry{foreign, L"Odd Key Storage Provider", L"0821"};
    const Published ownEntry{onToken, provider, L"7391"};
};

TEST_F(CleanCommand, ShowsWhatItWouldRemove)
{
    const ChildResult result = run({"clean", "--dry-run"});
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_TRUE(contains(result.output, "In \"My\" for this provider, but on no token:\n  "));
    EXPECT_TRUE(contains(result.output, "  0820  KeyWarden p384, expires ")) << result.output;
    EXPECT_FALSE(contains(result.output, thumbprintOf(foreign))) << result.output;
    EXPECT_FALSE(contains(result.output, thumbprintOf(onToken))) << result.output;
    EXPECT_TRUE(isInMy(stale));
}

TEST_F(CleanCommand, AsksFirst)
{
    ChildResult result = run({"clean"}, "no\n");
    EXPECT_EQ(result.exitCode, 0U);
    EXPECT_TRUE(contains(result.output, "Nothing was removed.")) << result.output;
    EXPECT_TRUE(isInMy(stale));
    EXPECT_EQ(run({"clean"}, "").exitCode, 0U);
    EXPECT_TRUE(isInMy(stale));
    result = run({"clean"}, " YES \r\n");
    EXPECT_TRUE(contains(result.output, "Removed: ")) << result.output;
    EXPECT_FALSE(isInMy(stale));
}

TEST_F(CleanCommand, LeavesCertificatesOfTokensAndOfOtherProviders)
{
    const Json document = profile.json({"clean", "--yes"}, 0, options);
    EXPECT_EQ(document["removed"], document["certificates"].size());
    EXPECT_FALSE(isInMy(stale));
    EXPECT_TRUE(isInMy(foreign));
    EXPECT_TRUE(isInMy(onToken));
    EXPECT_TRUE(contains(run({"clean"}).output, "\"My\" has no certificate to remove."));
}

TEST_F(CleanCommand, LeavesCertificatesOfASecondToken)
{
    setFault(L"second token");
    run({"clean", "--yes"});
    EXPECT_FALSE(isInMy(stale));
    EXPECT_TRUE(isInMy(onToken));
}

TEST_F(CleanCommand, RemovesAllWithoutLookingAtTheTokens)
{
    setFault(L"C_Initialize hang");
    const ChildResult result = run({"clean", "--all", "--yes"});
    EXPECT_EQ(result.exitCode, 0U) << result.output;
    EXPECT_FALSE(isInMy(stale));
    EXPECT_FALSE(isInMy(onToken));
    EXPECT_TRUE(isInMy(foreign));
}

TEST_F(CleanCommand, DoesNotTakeAnUnreadableTokenForAMissingOne)
{
    setFault(L"C_OpenSession refuse");
    const ChildResult result = run({"clean", "--yes"});
    EXPECT_EQ(result.exitCode, 1U);
    EXPECT_TRUE(contains(result.output, "the tokens cannot be read")) << result.output;
    EXPECT_TRUE(isInMy(stale));
    EXPECT_TRUE(isInMy(onToken));
}

TEST_F(CleanCommand, DoesNotAskWithJson)
{
    const Json document = profile.json({"clean"}, 1, options);
    EXPECT_EQ(document["error"], "--json does not ask");
    EXPECT_TRUE(isInMy(stale));
    EXPECT_EQ(run({"clean", "--yes", "--dry-run"}).exitCode, 2U);
}

}  // namespace

}  // namespace NV::test
