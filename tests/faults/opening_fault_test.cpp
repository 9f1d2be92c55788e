// The fault matrix of opening a provider, of enumerating its keys and of freeing it: every call of
// discovery and of reading the certificates, and the last finalise.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <span>

#include "behaviours.h"
#include "case_count.h"
#include "configured_library.h"
#include "heap_count.h"
#include "log_off.h"
#include "nvvtoken/nvvtoken.h"
#include "opening_oracle.h"
#include "system_store.h"

namespace NV::test {

namespace {

// Modern begins again after it.
constexpr CK_RV lostLibrary = CKR_CRYPTOKI_NOT_INITIALIZED;

// What one opening has given. The provider lives on.
struct Opening {
    std::unique_ptr<Provider> provider;
    bool result = false;
    std::vector<std::string> calls;
    std::string keys;
    bool algorithms = false;
    bool properties = false;
    uint32_t published = 0;
};

// The keys' names in the order of EnumKeys, each with a blank behind it. The blocks are released.
std::string enumerate(Provider& provider)
{
    std::string names;
    NCryptKeyName* record = nullptr;
    void* state = nullptr;
    while (provider.EnumKeys(nullptr, &record, &state, 0) == ERROR_SUCCESS) {
        const std::wstring name = record->pszName;
        names.append(name.begin(), name.end());
        names += ' ';
        if (!mode().listsAlgorithmNames()) {
            std::free(record->pszName);
            std::free(record->pszAlgid);
        }
        std::free(record);
    }
    std::free(state);
    return names;
}

class OpeningFaultTest : public testing::TestWithParam<Behaviour> {
protected:
    OpeningFaultTest()
    {
        configureScriptedToken();
        // What the first run and the first exception of a thread allocate once is no leak.
        fillToken();
        token.throwFrom("C_GetInfo", 1);
        open();
        fillToken();
        const Opening opening = open();
        good = sequenceOf(opening.calls);
        expectGood(opening);
    }

    // A token in each of the two slots, with two certificates.
    void fillToken()
    {
        token.reset();
        token.addSlot(kOtherSlot);
        addKey({0x01, 0xAB}, "rsa2048", 0, kSlot);
        addKey({0x02, 0x56}, "p256", 32, kSlot);
        addKey({0x03, 0x84}, "p384", 48, kOtherSlot);
        addKey({0x05, 0x21}, "p521", 66, kOtherSlot);
        token.clearCalls();
    }

    Opening open()
    {
        token.clearCalls();
        const uint32_t published = systemStoreOpenings();
        Opening opening;
        opening.provider = std::make_unique<Provider>();
        Provider& provider = *opening.provider;
        opening.result = provider.init();
        opening.calls = token.calls();
        opening.published = systemStoreOpenings() - published;
        opening.keys = enumerate(provider);
        opening.algorithms = provider.IsAlgSupported(L"RSA", 0) == ERROR_SUCCESS;
        DWORD length = 0;
        opening.properties =
            provider.GetProviderProperty(L"Name", nullptr, 0, &length, 0) == ERROR_SUCCESS;
        // Nothing of this is asked of the token.
        EXPECT_EQ(opening.calls, token.calls());
        return opening;
    }

    static void expectGood(const Opening& opening)
    {
        EXPECT_TRUE(opening.result);
        EXPECT_EQ("01AB 0256 ", opening.keys);
        EXPECT_TRUE(opening.algorithms);
        EXPECT_EQ(2U, opening.published);
    }

    void expectOpening(const ExpectedOpening& expected, const Opening& opening)
    {
        EXPECT_EQ(expected.result, opening.result);
        EXPECT_EQ(expected.calls, namesOf(sequenceOf(opening.calls)));
        EXPECT_EQ(expected.keys, opening.keys);
        EXPECT_EQ(expected.algorithms, opening.algorithms);
        EXPECT_EQ(expected.result, opening.properties);
        EXPECT_EQ(expected.published, opening.published);
        for (const std::string& call : token.calls("C_OpenSession"))
            EXPECT_EQ("C_OpenSession(slot=" + std::to_string(expected.slot) +
                          ", flags=0x4, application=null, notify=null)",
                      call);
    }

    void expectNothingOpen(const ExpectedOpening& expected)
    {
        EXPECT_EQ(expected.sessionsLeft, token.openSessions());
        EXPECT_FALSE(token.userLoggedIn());
        EXPECT_EQ(expected.sessionsFinalized, token.sessionsFinalized());
        EXPECT_EQ(expected.initialised, token.initialised());
    }

    void expectFree(const ExpectedOpening& expected, Opening& opening)
    {
        token.clearCalls();
        opening.provider.reset();
        EXPECT_EQ(expected.finalizedAtTheEnd ? "C_Finalize" : "",
                  namesOf(sequenceOf(token.calls())));
        EXPECT_EQ(expected.initialisedAtTheEnd, token.initialised());
    }

    void strike(const FaultCase& fault)
    {
        fillToken();
        arm(token, fault);
        {
            const ExpectedOpening expected = expectedOpening(behaviour, steps, fault);
            Opening opening = open();
            expectOpening(expected, opening);
            expectNothingOpen(expected);
            expectFree(expected, opening);
        }
        // A list is whole again when it is fetched without null entries.
        if (fault.kind == FaultKind::nullEntry)
            fillToken();
        token.clearFaults();
        expectGood(open());
        countCase();
    }

    const Behaviour behaviour = GetParam();
    const ModeOf mode{behaviour};
    LogOff logOff;
    ScriptedToken token;
    const std::vector<Step> steps = openingSteps(behaviour);
    Sequence good;

private:
    // Modern asks for the public key of these certificates, which are self-signed.
    void addKey(const Bytes& id, const std::string& certificate, CK_ULONG coordinate,
                CK_SLOT_ID slot)
    {
        token.addCertificate(id, fixtureCertificate(certificate), slot);
        if (behaviour == Behaviour::modern)
            coordinate == 0 ? token.addRsaKeyPair(id, 2048, slot)
                            : token.addEcKeyPair(id, coordinate, slot);
    }
};

}  // namespace

TEST_P(OpeningFaultTest, theStepsAreTheCallsOfAGoodOpening)
{
    std::string names;
    for (const Step& step : steps)
        names += (names.empty() ? "" : " ") + std::string(step.function);
    EXPECT_EQ(names, namesOf(good));
    EXPECT_EQ(behaviour == Behaviour::modern ? 74U : 72U, good.size());
    EXPECT_FALSE(token.initialised());
    EXPECT_EQ(0U, token.sessionsFinalized());
}

TEST_P(OpeningFaultTest, everyFaultOfEveryCall)
{
    ASSERT_EQ(steps.size(), good.size());
    for (const FaultCase& fault : casesOf(good, std::span(&lostLibrary, 1))) {
        SCOPED_TRACE("open, " + fault.name());
        const long before = liveHeapBlocks();
        strike(fault);
        EXPECT_EQ(0, liveHeapBlocks() - before);
    }
}

// Enumerating makes no call, and so meets no fault.
TEST_P(OpeningFaultTest, enumeratingAsksNothingOfTheToken)
{
    fillToken();
    const Opening opening = open();
    token.clearCalls();
#define NV_FAIL(name, parameters) token.throwFrom(#name);
    NV_CK_FUNCTIONS(NV_FAIL)
#undef NV_FAIL
    EXPECT_EQ("01AB 0256 ", enumerate(*opening.provider));
    EXPECT_TRUE(token.calls().empty());
    token.clearFaults();
}

// Another part of the process has the library initialised while the provider is freed; what the
// last finalise answers does not matter.
TEST_P(OpeningFaultTest, everyFaultOfTheLastFinalize)
{
    const Sequence last = {{"C_Finalize", 1, 0}};
    for (const FaultCase& fault : casesOf(last)) {
        SCOPED_TRACE("free, " + fault.name());
        fillToken();
        Opening opening = open();
        token.exports().C_Initialize(nullptr);
        arm(token, fault);
        remadeFunctionList(token);
        token.clearCalls();
        EXPECT_NO_THROW(opening.provider.reset());
        const bool missing = fault.kind == FaultKind::nullEntry;
        EXPECT_EQ(missing ? "" : "C_Finalize", namesOf(sequenceOf(token.calls())));
        EXPECT_TRUE(token.initialised());
        if (missing)
            fillToken();
        token.clearFaults();
        expectGood(open());
        countCase();
    }
}

INSTANTIATE_TEST_SUITE_P(Behaviours, OpeningFaultTest, testing::ValuesIn(behaviours),
                         [](const auto& tested) { return nameOf(tested.param); });

}  // namespace NV::test
