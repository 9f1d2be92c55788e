// Verifications on 1, 2, 4 and 8 threads, each with a provider of its own, on a scripted token
// whose C_Verify takes a millisecond, compared with the throughput of one thread.

#include <deque>
#include <thread>
#include <vector>

#include "certificate_fixture.h"
#include "linked_module.h"
#include "results.h"
#include "scripted_token.h"

namespace {

using namespace NV::bench;
using NV::test::ScriptedToken;

constexpr size_t operationsInAll = 40;

class Worker {
public:
    explicit Worker(const LinkedModule& module)
        : module_(module), provider_(module), key_(provider_.openKey(L"0256")), hash_(32, 0x5A),
          signature_(NV::test::signatureOf(CKM_ECDSA, hash_, 64))
    {
    }

    void verify(size_t times)
    {
        for (size_t i = 0; i < times; ++i)
            expectSuccess(module_->VerifySignature(provider_.handle(), key_, nullptr, hash_.data(),
                                                   32, signature_.data(), 64, 0),
                          "VerifySignature");
    }

private:
    const LinkedModule& module_;
    OpenProvider provider_;
    NCRYPT_KEY_HANDLE key_;
    NV::test::Bytes hash_;
    NV::test::Bytes signature_;
};

// The same number of operations, divided among that many threads.
void verifyOn(std::deque<Worker>& workers, size_t threads)
{
    std::vector<std::thread> running;
    for (size_t i = 0; i < threads; ++i)
        running.emplace_back(
            [&worker = workers[i], threads] { worker.verify(operationsInAll / threads); });
    for (std::thread& each : running)
        each.join();
}

void benchmark(Results& results, const Plan& plan)
{
    ScriptedToken token;
    token.addEcKeyPair({0x02, 0x56}, 32);
    token.addCertificate(NV::test::Bytes{0x02, 0x56}, certificateFixture("p256"));
    token.setRecording(false);
    const LinkedModule module(ScriptedToken::widePath(), std::string(NV::test::kPin));
    std::deque<Worker> workers;
    for (size_t i = 0; i < 8; ++i)
        workers.emplace_back(module);
    token.delay("C_Verify", std::chrono::milliseconds(1));
    for (const size_t threads : {size_t{1}, size_t{2}, size_t{4}, size_t{8}}) {
        const Comparison comparison = compare(repeated([&] { verifyOn(workers, threads); }),
                                              repeated([&] { verifyOn(workers, 1); }), plan);
        results.speed({"threads, a provider each", "throughput, C_Verify of 1 ms",
                       "the throughput of one thread", static_cast<double>(threads)},
                      comparison, report);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
