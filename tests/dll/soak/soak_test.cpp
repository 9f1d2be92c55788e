// Tens of thousands of operations of every kind in one process, on the scripted token: after a
// warm-up its memory, its handles and its threads stay what they are. memory_test.cpp of the object
// tests counts the blocks of single operations exactly.

#include <windows.h>

#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "logger/logger.h"
#include "nvvtoken/nvvtoken.h"
#include "profile.h"
#include "scripted_work.h"
#include "together.h"
#include "usage.h"

namespace NV::test {

namespace {

// One small block left by one operation in a hundred would be more.
constexpr size_t blockTolerance = 100;
constexpr size_t byteTolerance = size_t{32} * 1024;
constexpr size_t kilobyteTolerance = 2048;
constexpr size_t handleTolerance = 4;

class SoakTest : public testing::Test {
protected:
    explicit SoakTest(bool withLog = false)
    {
        const std::string store = withLog ? "~\\.norvanta-keywarden\\logs" : "";
        profile.writeConfig("logLevel=ERROR\nlogTypes=FILE\nlogStore=" + store +
                            "\nlogRotate=7\np11File=" + narrowPath(ScriptedToken::widePath()) +
                            "\n");
        loggerSettings().types = 0;
        module.emplace();
    }

    struct Growth {
        Usage warm;
        Usage end;
    };

    // Runs the operation, which receives its number, so many times after a tenth of them as warm-up.
    // The token's record of calls is not the module's and is thrown away on the way.
    Growth measure(const std::string& name, int times, const std::function<bool(int)>& operation)
    {
        int wrong = 0;
        const auto run = [&](int count) {
            for (int i = 0; i < count; ++i) {
                wrong += operation(i) ? 0 : 1;
                if (i % 10 == 9)
                    work.token.clearCalls();
            }
            work.token.clearCalls();
        };
        run(std::max(times / 10, 1));
        usage();  // the counters' own warm-up
        const Usage warm = usage();
        run(times);
        const Usage end = usage();
        EXPECT_EQ(wrong, 0) << name;
        std::cout << usageHeading() << "\n"
                  << usageLine(name + ", warm", warm) << "\n"
                  << usageLine("after " + std::to_string(times) + " more", end) << std::endl;
        return {warm, end};
    }

    static void expectFlat(const Growth& growth)
    {
        const auto& [warm, end] = growth;
        EXPECT_LE(end.heapBlocks, warm.heapBlocks + blockTolerance);
        EXPECT_LE(end.heapBytes, warm.heapBytes + byteTolerance);
        EXPECT_LE(end.privateKilobytes, warm.privateKilobytes + kilobyteTolerance);
        EXPECT_LE(end.handles, warm.handles + handleTolerance);
        EXPECT_LE(end.threads, warm.threads);
    }

    ScriptedWork work;
    Profile profile;
    std::optional<ProviderModule> module;
    TokenFacts facts = ScriptedWork::facts();
    std::vector<KnownResults> known = ScriptedWork::known(7);
};

class LoggedSoakTest : public SoakTest {
protected:
    LoggedSoakTest() : SoakTest(true) {}
};

// The kinds of work without PIN that leave nothing, or those that leave names.
std::vector<PublicWork::Kind> kindsLeaving(bool names)
{
    std::vector<PublicWork::Kind> kinds;
    std::ranges::copy_if(
        PublicWork::kinds(), std::back_inserter(kinds),
        [&](const PublicWork::Kind& kind) { return (kind.namesLeft > 0) == names; });
    return kinds;
}

// One operation after the other, each kind with another caller's inputs every time.
template <typename Work, typename Kinds>
std::function<bool(int)> inTurn(Work& work, const Kinds& kinds,
                                const std::vector<KnownResults>& known)
{
    return [&work, kinds, &known](int number) {
        const auto count = static_cast<size_t>(number);
        const auto& kind = kinds[count % kinds.size()];
        return (work.*kind.run)(known[count / kinds.size() % known.size()]);
    };
}

// The calls by which the module publishes a certificate.
bool publish(const Bytes& der)
{
    HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
    PCCERT_CONTEXT context =
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()));
    PCCERT_CONTEXT added = nullptr;
    const BOOL stored =
        CertAddCertificateContextToStore(store, context, CERT_STORE_ADD_REPLACE_EXISTING, &added);
    wchar_t container[] = L"01AB";
    wchar_t provider[] = L"Norvanta Software KeyStore Provider";
    CRYPT_KEY_PROV_INFO information{};
    information.pwszContainerName = container;
    information.pwszProvName = provider;
    information.dwKeySpec = AT_SIGNATURE;
    const BOOL told =
        CertSetCertificateContextProperty(added, CERT_KEY_PROV_INFO_PROP_ID, 0, &information);
    return stored && told && CertFreeCertificateContext(added) &&
           CertFreeCertificateContext(context) && CertCloseStore(store, 0);
}

bool openAndFree(const ProviderModule& module)
{
    NCRYPT_PROV_HANDLE provider = 0;
    return module->OpenProvider(&provider, providerName, 0) == ERROR_SUCCESS &&
           module->FreeProvider(provider) == ERROR_SUCCESS;
}

}  // namespace

// Otherwise the others could not fail.
TEST_F(SoakTest, theCountersSeeOneBlockAnOperation)
{
    std::vector<void*> blocks;
    std::vector<HANDLE> events;
    blocks.reserve(10000);
    const Growth growth = measure("one block left", 5000, [&](int) {
        blocks.push_back(std::malloc(16));
        if (blocks.size() % 10 == 0)
            events.push_back(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        return blocks.back() != nullptr;
    });
    EXPECT_GE(growth.end.heapBlocks, growth.warm.heapBlocks + 5000);
    EXPECT_GE(growth.end.heapBytes, growth.warm.heapBytes + size_t{5000} * 16);
    EXPECT_GE(growth.end.handles, growth.warm.handles + 500);
    for (void* block : blocks)
        std::free(block);
    for (HANDLE event : events)
        CloseHandle(event);
}

TEST_F(SoakTest, theCountersSeeMemoryAndThreads)
{
    const Usage before = usage();
    const std::vector<unsigned char> held(16U << 20, 1);
    std::atomic<bool> enough = false;
    const std::jthread thread([&] {
        while (!enough)
            std::this_thread::yield();
    });
    const Usage after = usage();
    enough = true;
    EXPECT_GE(after.privateKilobytes, before.privateKilobytes + (15U << 10)) << held.size();
    EXPECT_EQ(after.threads, before.threads + 1);
}

TEST_F(SoakTest, operationsWithoutPin)
{
    const OpenedProvider provider(*module);
    const AgreedByDialog secret(*module, provider.handle(), facts);
    PublicWork publicWork(*module, provider.handle(), facts, secret.handle());
    expectFlat(
        measure("without PIN", rounds(24000), inTurn(publicWork, kindsLeaving(false), known)));
}

TEST_F(SoakTest, enumerationsLeaveTheirNamesAndNothingElse)
{
    const OpenedProvider provider(*module);
    const PublicWork publicWork(*module, provider.handle(), facts, 0);
    // The records that each of them gets from this token.
    const size_t records[] = {facts.names.size(), 2};
    const int times = rounds(2000);
    const auto kinds = kindsLeaving(true);
    ASSERT_EQ(kinds.size(), std::size(records));
    for (size_t i = 0; i < kinds.size(); ++i) {
        const auto& [warm, end] = measure(
            kinds[i].name, times, [&](int) { return (publicWork.*kinds[i].run)(known.front()); });
        const size_t left =
            records[i] * static_cast<size_t>(kinds[i].namesLeft) * static_cast<size_t>(times);
        EXPECT_GE(end.heapBlocks + blockTolerance, warm.heapBlocks + left);
        EXPECT_LE(end.heapBlocks, warm.heapBlocks + left + blockTolerance);
        EXPECT_LE(end.handles, warm.handles + handleTolerance);
    }
}

TEST_F(SoakTest, operationsWithPin)
{
    PinWork pinWork(ScriptedToken::path(), facts);
    expectFlat(measure("with PIN", rounds(10000), inTurn(pinWork, PinWork::kinds(), known)));
}

TEST_F(SoakTest, operationsWithTheDialog)
{
    const OpenedProvider provider(*module);
    const DialogWork dialogWork(*module, provider.handle(), facts);
    const int times = rounds(300);
    const DialogDriver user(DialogDriver::entering(facts.pin), times + times / 10);
    expectFlat(measure("with the dialog", times, inTurn(dialogWork, DialogWork::kinds(), known)));
}

TEST_F(SoakTest, providersOpenedAndFreed)
{
    work.token.clearObjects();
    expectFlat(measure("open and free", rounds(1000), [&](int) { return openAndFree(*module); }));
}

// Wine keeps something of each certificate that is added to "My": the module leaves no more.
TEST_F(SoakTest, openingPublishesCertificatesAndLeavesOnlyWhatTheSystemLeaves)
{
    const int times = rounds(200);
    const Bytes certificates[] = {ScriptedWork::certificate("rsa2048.der"),
                                  ScriptedWork::certificate("rsa2048.der"),
                                  ScriptedWork::certificate("p256.der")};
    const auto systems = measure("publish without the module", times,
                                 [&](int) { return std::ranges::all_of(certificates, publish); });
    const auto modules = measure("open and free", times, [&](int) { return openAndFree(*module); });
    const auto left = [](const Growth& growth, size_t Usage::*what) {
        return growth.end.*what - growth.warm.*what;
    };
    EXPECT_LE(left(modules, &Usage::heapBlocks),
              left(systems, &Usage::heapBlocks) + blockTolerance);
    EXPECT_LE(left(modules, &Usage::heapBytes), left(systems, &Usage::heapBytes) + byteTolerance);
    EXPECT_LE(left(modules, &Usage::handles), left(systems, &Usage::handles) + handleTolerance);
}

TEST_F(LoggedSoakTest, operationsWithALog)
{
    const OpenedProvider provider(*module);
    const AgreedByDialog secret(*module, provider.handle(), facts);
    PublicWork publicWork(*module, provider.handle(), facts, secret.handle());
    expectFlat(measure("with a log", rounds(200), inTurn(publicWork, kindsLeaving(false), known)));
}

}  // namespace NV::test
