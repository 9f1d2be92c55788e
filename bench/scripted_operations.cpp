// Token operations with the scripted token, whose calls cost almost nothing: the time that the
// module adds to the same PKCS#11 calls written bare, with logging off and growing numbers of keys,
// open keys and open providers.

#include <algorithm>
#include <list>
#include <stdexcept>

#include "certificate_fixture.h"
#include "operations.h"
#include "results.h"
#include "scripted_token.h"

namespace {

using namespace NV::bench;
using NV::test::ScriptedToken;

constexpr double reachMicroseconds = 15;

struct Extent {
    size_t keys = 2;
    size_t openKeys = 0;
    size_t providers = 1;
};

// The two keys that the operations use come first; the others have identifiers of four bytes.
void fill(ScriptedToken& token, size_t keys)
{
    const NV::Bytes rsa = certificateFixture("rsa2048");
    const NV::Bytes ec = certificateFixture("p256");
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    token.addCertificate(NV::Bytes{0x01, 0xAB}, rsa);
    token.addEcKeyPair({0x02, 0x56}, 32);
    token.addCertificate(NV::Bytes{0x02, 0x56}, ec);
    for (size_t i = 2; i < keys; ++i) {
        const NV::Bytes id{0x7E, 0x11, static_cast<unsigned char>(i >> 8),
                           static_cast<unsigned char>(i)};
        token.addRsaKeyPair(id, 2048);
        token.addCertificate(id, rsa);
    }
}

// Both must make the same calls; otherwise the difference is not the module's cost.
void expectSameCalls(ScriptedToken& token, Operations& operations, const Operations::Row& row)
{
    token.setRecording(true);
    token.clearCalls();
    (operations.*row.throughModule)();
    const std::vector<std::string> throughModule = token.callNames();
    token.clearCalls();
    (operations.*row.bare)();
    const std::vector<std::string> bare = token.callNames();
    token.setRecording(false);
    if (throughModule != bare)
        throw std::runtime_error(std::string(row.name) + ": the bare calls are others");
}

void compareAt(Results& results, const Plan& plan, const Extent& extent, const std::string& group,
               double size)
{
    ScriptedToken token;
    fill(token, extent.keys);
    token.setRecording(false);
    const std::string pin(NV::test::kPin);
    const LinkedModule module(ScriptedToken::widePath(), pin);
    std::list<OpenProvider> providers;
    for (size_t i = 0; i < extent.providers; ++i)
        providers.emplace_back(module);
    // The providers have all keys, the token has two. The token would search the others, which
    // would displace the module from the processor's caches.
    token.clearObjects();
    fill(token, 2);
    const OpenProvider& provider = providers.front();
    for (size_t i = 0; i < extent.openKeys; ++i)
        provider.openKey(L"01AB");
    BareToken bare(ScriptedToken::widePath(), pin);
    {
        Operations operations(module, provider, &bare, L"01AB", L"0256");
        for (const Operations::Row& row : Operations::rows()) {
            expectSameCalls(token, operations, row);
            results.added({group, row.name, "the same calls, bare", size},
                          compare(repeated([&] { (operations.*row.throughModule)(); }),
                                  repeated([&] { (operations.*row.bare)(); }), plan),
                          atMost(reachMicroseconds));
        }
    }
}

void benchmark(Results& results, const Plan& plan)
{
    for (const unsigned keys : {2U, 16U, 128U, 1024U})
        compareAt(results, plan, {.keys = keys}, "added by the module, over keys", keys);
    for (const unsigned open : {1U, 100U, 10000U})
        compareAt(results, plan, {.openKeys = open}, "added by the module, over open keys", open);
    for (const unsigned providers : {1U, 8U, 64U})
        compareAt(results, plan, {.providers = providers}, "added by the module, over providers",
                  providers);
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
