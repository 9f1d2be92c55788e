// Token operations with SoftHSM2 and logging off: compares the module with the same PKCS#11 calls
// written bare.
// The Unix environment variable SOFTHSM2_CONF names the configuration of the token that
// tests/support/fixtures/make-token.sh made; scripts/bench.sh sets it.

#include "host.h"
#include "operations.h"
#include "results.h"

namespace {

using namespace NV::bench;

void benchmark(Results& results, const Plan& plan)
{
    const std::filesystem::path library = NV::test::host::winelibPath("p11bridge.dll");
    const std::string pin = "keywarden-pin-4711";
    const LinkedModule module(library, pin);
    const OpenProvider provider(module);
    BareToken bare(library, pin);
    Operations operations(module, provider, &bare, L"01AB", L"0256");
    // An operation takes milliseconds: single runs in turn, and many of them.
    const Plan single{plan.pairs * 10, std::chrono::nanoseconds(1)};
    for (const Operations::Row& row : Operations::rows()) {
        const Comparison comparison = compare(repeated([&] { (operations.*row.throughModule)(); }),
                                              repeated([&] { (operations.*row.bare)(); }), single);
        results.ratio({"operations on SoftHSM2, logging off", row.name, "the same calls, bare"},
                      comparison, atMost(1.03));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
