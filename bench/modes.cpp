// The modern behaviour compared with the classic one, in turn in one process: each operation on SoftHSM2
// and on the scripted token, on a library that takes long to initialize, on eight threads, and with a log.
// The Unix environment variable SOFTHSM2_CONF names the configuration of the token that
// tests/support/fixtures/make-token.sh made; scripts/bench.sh sets it.

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bare_token.h"
#include "certificate_fixture.h"
#include "config/mode.h"
#include "folder.h"
#include "host.h"
#include "logger/logger.h"
#include "operations.h"
#include "results.h"
#include "scripted_token.h"

namespace {

using namespace NV::bench;
using NV::Behaviour;
using NV::Mode;
using NV::test::ScriptedToken;

constexpr const wchar_t* rsaName = L"01AB";
constexpr const wchar_t* ecName = L"0256";
const NV::Bytes ecId{0x02, 0x56};
constexpr double nanosecondsInMillisecond = 1e6;
constexpr auto slowInitialization = std::chrono::milliseconds(200);

// The log as a configuration with this behaviour and level sets it.
void setLog(Behaviour behaviour, uint32_t types, uint32_t mask, const std::string& folder)
{
    NV::LoggerSettings& settings = NV::loggerSettings();
    settings.types = types;
    settings.levelMask = mask;
    settings.store = folder;
    settings.gatesAllLevels = Mode(behaviour).logsByLevel();
    settings.survivesFailures = Mode(behaviour).survivesLogFailures();
}

// A provider with its keys, in one behaviour at a time: a classic provider would finalize the library of
// a modern one, which is initialized as long as it lives. Opening is never timed.
class Subject {
public:
    explicit Subject(const LinkedModule& module) : module_(module) {}
    ~Subject() { close(); }
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    void open(Behaviour behaviour)
    {
        close();
        NV::setMode(Mode(behaviour));
        opened_.emplace(module_);
    }
    void close()
    {
        opened_.reset();
        setLog(Behaviour::classic, 0, NV::logMaskTrace, "");
        NV::setMode(Mode());
    }
    Operations& operations() { return opened_->operations; }

private:
    struct Opened {
        explicit Opened(const LinkedModule& module)
            : provider(module), operations(module, provider, nullptr, rsaName, ecName)
        {
        }
        OpenProvider provider;
        Operations operations;
    };

    const LinkedModule& module_;
    std::optional<Opened> opened_;
};

// The batches of two works, each prepared without being timed, as a comparison.
Comparison comparePrepared(const Work& subject, const Work& reference, const Plan& plan)
{
    const std::vector<Rounds> rounds = inTurn({subject, reference}, plan);
    std::vector<double> ratios;
    std::vector<double> differences;
    for (size_t i = 0; i < plan.pairs; ++i) {
        ratios.push_back(rounds[0][i] / rounds[1][i]);
        differences.push_back(rounds[0][i] - rounds[1][i]);
    }
    return {figureOf(rounds[0]),   figureOf(rounds[1]), figureOf(std::move(ratios)),
            figureOf(differences), plan.pairs,          0};
}

using Operation = void (Operations::*)();
using Prepare = std::function<void()>;

// Modern against classic. `opened` runs after a provider was opened.
Comparison compareModes(
    Subject& subject, Operation operation, const Plan& plan, const Prepare& opened = [] {},
    const Prepare& opening = [] {})
{
    const auto work = [&](Behaviour behaviour) {
        return Work{repeated([&subject, operation] { (subject.operations().*operation)(); }),
                    [&subject, &opened, &opening, behaviour] {
                        opening();
                        subject.open(behaviour);
                        opened();
                    }};
    };  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): std::function releases what it holds
    return comparePrepared(work(Behaviour::modern), work(Behaviour::classic), plan);
}

bool isVerification(const Operations::Row& row)
{
    return std::string_view(row.name).ends_with(" verify");
}

Operation operationOf(const char* name)
{
    for (const Operations::Row& row : Operations::rows()) {
        if (std::string_view(row.name) == name)
            return row.throughModule;
    }
    throw std::runtime_error(std::string("no operation ") + name);
}

// On a real token, no operation is slower.
void compareSpeeds(Results& results, const Plan& plan, Subject& subject)
{
    const std::string group = "modern, SoftHSM2, logging off";
    for (const Operations::Row& row : Operations::rows())
        results.speed({group, row.name, "classic"}, compareModes(subject, row.throughModule, plan),
                      atLeast(isVerification(row) ? 1.5 : 1));
    results.speed({group, "RSA-2048 decrypt, length only", "classic"},
                  compareModes(subject, &Operations::decryptedLength, plan), atLeast(1));
}

// On a token that costs almost nothing: what modern does more or less itself. With a PIN, it is more: the
// dialog names the token and the key.
void compareCosts(Results& results, const Plan& plan, Subject& subject)
{
    for (const Operations::Row& row : Operations::rows())
        results.added({"modern, scripted token, logging off", row.name, "classic"},
                      compareModes(subject, row.throughModule, plan), atMost(0));
}

// With the log, against the same without it.
void compareLog(Results& results, const Plan& plan, Subject& subject, Behaviour behaviour,
                const Measure& measure, uint32_t mask, Reach reach)
{
    const NV::test::TemporaryFolder folder;
    const std::string store = NV::test::narrowPath(folder.path());
    const Operation sign = operationOf("RSA-2048 sign");
    const auto work = [&](uint32_t types) {
        return Work{repeated([&subject, sign] { (subject.operations().*sign)(); }),
                    [&subject, &store, behaviour, types, mask] {
                        subject.open(behaviour);
                        setLog(behaviour, types, mask, store);
                    }};
    };  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): std::function releases what it holds
    results.ratio(measure, comparePrepared(work(NV::logToFile), work(0), plan), reach);
    subject.close();
}

// The same number of operations, divided among that many threads. `operation` gets the thread's number.
void runOn(size_t threads, size_t operations, const std::function<void(size_t)>& operation)
{
    std::vector<std::thread> running;
    for (size_t i = 0; i < threads; ++i)
        running.emplace_back([&operation, i, times = operations / threads] {
            for (size_t time = 0; time < times; ++time)
                operation(i);
        });
    for (std::thread& each : running)
        each.join();
}

// Verifications on threads, each with a provider of its own.
class Verifiers {
public:
    Verifiers(const LinkedModule& module, size_t threads) : module_(module)
    {
        for (size_t i = 0; i < threads; ++i) {
            providers_.emplace_back(module);
            keys_.push_back(providers_.back().openKey(ecName));
        }
        DWORD length = 0;
        expectSuccess(module->SignHash(providers_.front().handle(), keys_.front(), nullptr,
                                       hash_.data(), 32, signature_.data(), 64, &length, 0),
                      "SignHash");
    }

    void verify(size_t thread)
    {
        expectSuccess(module_->VerifySignature(providers_[thread].handle(), keys_[thread], nullptr,
                                               hash_.data(), 32, signature_.data(), 64, 0),
                      "VerifySignature");
    }
    const NV::Bytes& hash() const { return hash_; }
    const NV::Bytes& signature() const { return signature_; }

private:
    const LinkedModule& module_;
    std::deque<OpenProvider> providers_;
    std::vector<NCRYPT_KEY_HANDLE> keys_;
    NV::Bytes hash_ = NV::Bytes(32, 0x5A);
    NV::Bytes signature_ = NV::Bytes(64);
};

// Eight threads against one: in modern, in classic, and the token's calls of modern, bare, which show
// what the token itself allows.
void compareThreads(
    Results& results, const Plan& plan, const LinkedModule& module, BareToken& bare,
    const std::string& group, const Prepare& opened = [] {})
{
    constexpr size_t threads = 8;
    constexpr size_t operations = 240;
    const auto compareWith = [&](const char* name, Reach reach,
                                 const std::function<void(size_t)>& operation) {
        results.speed({group, name, "one thread"},
                      compare(repeated([&] { runOn(threads, operations, operation); }),
                              repeated([&] { runOn(1, operations, operation); }), plan),
                      reach);
    };
    NV::Bytes hash;
    NV::Bytes signature;
    for (const Behaviour behaviour : {Behaviour::modern, Behaviour::classic}) {
        NV::setMode(Mode(behaviour));
        {
            Verifiers verifiers(module, threads);
            hash = verifiers.hash();
            signature = verifiers.signature();
            opened();
            const bool modern = behaviour == Behaviour::modern;
            compareWith(modern ? "eight threads, modern" : "eight threads, classic",
                        modern ? atLeast(1.6) : report,
                        [&](size_t thread) { verifiers.verify(thread); });
        }
        NV::setMode(Mode());
    }
    bare.initialize();
    compareWith("eight threads, bare calls", report,
                [&](size_t) { bare.verify(CKK_EC, ecId, hash, signature); });
    bare.finalize();
}

void onSoftHsm(Results& results, const Plan& plan)
{
    const std::filesystem::path library = NV::test::host::winelibPath("p11bridge.dll");
    const std::string pin = "keywarden-pin-4711";
    const LinkedModule module(library, pin);
    Subject subject(module);
    compareSpeeds(results, plan, subject);
    const std::string group = "modern, SoftHSM2, RSA-2048 sign with a log";
    compareLog(results, plan, subject, Behaviour::modern, {group, "modern, INFO", "no log"},
               NV::logMaskInfo, atMost(1.1));
    compareLog(results, plan, subject, Behaviour::modern, {group, "modern, TRACE", "no log"},
               NV::logMaskTrace, report);
    compareLog(results, plan, subject, Behaviour::classic, {group, "classic, TRACE", "no log"},
               NV::logMaskTrace, report);
    subject.close();
    BareToken bare(library, pin);
    compareThreads(results, plan, module, bare, "modern, SoftHSM2, ECDSA P-256 verify");
}

// What a signature and a verification save on a library that takes long to initialize.
void compareSlow(Results& results, const Plan& plan, ScriptedToken& token, Subject& subject)
{
    const Plan few{std::min<size_t>(plan.pairs, 11), plan.batch};
    for (const char* name : {"RSA-2048 sign", "ECDSA P-256 verify"}) {
        const Comparison comparison = compareModes(
            subject, operationOf(name), few,
            [&token] { token.delay("C_Initialize", slowInitialization); },
            [&token] { token.clearFaults(); });
        const Figure& added = comparison.difference;
        results.value(
            {"modern, C_Initialize takes 200 ms", std::string(name) + ", saved", "classic"},
            {-added.median / nanosecondsInMillisecond, -added.high / nanosecondsInMillisecond,
             -added.low / nanosecondsInMillisecond},
            "ms", atLeast(static_cast<double>(slowInitialization.count())));
        token.clearFaults();
    }
}

void onScriptedToken(Results& results, const Plan& plan)
{
    ScriptedToken token;
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    token.addCertificate(NV::Bytes{0x01, 0xAB}, certificateFixture("rsa2048"));
    token.addEcKeyPair(ecId, 32);
    token.addCertificate(ecId, certificateFixture("p256"));
    token.setRecording(false);
    const std::string pin(NV::test::kPin);
    const LinkedModule module(ScriptedToken::widePath(), pin);
    {
        Subject subject(module);
        compareCosts(results, plan, subject);
        compareSlow(results, plan, token, subject);
    }
    BareToken bare(ScriptedToken::widePath(), pin);
    compareThreads(results, plan, module, bare, "modern, C_Verify of 1 ms, ECDSA P-256 verify",
                   [&token] {
                       token.clearFaults();
                       token.delay("C_Verify", std::chrono::milliseconds(1));
                   });
}

void benchmark(Results& results, const Plan& plan)
{
    onSoftHsm(results, plan);
    onScriptedToken(results, plan);
}

}  // namespace

int main(int argc, char** argv)
{
    return runBenchmark(argc, argv, benchmark);
}
