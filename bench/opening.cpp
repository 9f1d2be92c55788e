// Opens a provider: time and memory for each certificate with growing numbers of certificates on
// the token, and the time that publication adds.

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>

#include <windows.h>

#include <wincrypt.h>

#include "bare_opening.h"
#include "certified_token.h"
#include "curve.h"
#include "folder.h"
#include "heap_use.h"
#include "opened_provider.h"
#include "system_store.h"

namespace NV::bench {

namespace {

constexpr size_t few = 16;
constexpr size_t many = 1024;

using Tokens = std::vector<std::unique_ptr<CertifiedToken>>;

void openAndFree()
{
    const OpenedProvider provider;
}

Work openings(const CertifiedToken& token)
{
    return {repeated(openAndFree), [&token] { token.choose(); }};
}

Work bareOpenings(const CertifiedToken& token)
{
    return {repeated([library = token.scripted().exports()] { openBare(library); })};
}

// The difference of two measurements, round by round.
Rounds without(Rounds rounds, const Rounds& others)
{
    for (size_t i = 0; i < rounds.size(); ++i)
        rounds[i] -= others[i];
    return rounds;
}

void addTimes(Results& results, const Tokens& tokens, const Plan& plan)
{
    std::vector<Work> works;
    for (const auto& token : tokens) {
        works.push_back(openings(*token));
        works.push_back(bareOpenings(*token));
    }
    const std::vector<Rounds> rounds = inTurn(works, longBatches(plan));

    // The first token is empty: its opening is the part that no certificate causes.
    const Rounds& empty = rounds[0];
    const Rounds emptyOwn = without(rounds[0], rounds[1]);
    Curve whole;
    Curve bare;
    Curve certificates;
    for (size_t i = 1; i < tokens.size(); ++i) {
        const size_t size = tokens[i]->certificates();
        const Rounds own = without(rounds[2 * i], rounds[2 * i + 1]);
        for (Curve* curve : {&whole, &bare, &certificates})
            curve->sizes.push_back(size);
        whole.nanoseconds.push_back(rounds[2 * i]);
        bare.nanoseconds.push_back(rounds[2 * i + 1]);
        certificates.nanoseconds.push_back(without(own, emptyOwn));
    }
    whole = perOne(whole);
    bare = perOne(bare);
    certificates = perOne(certificates);

    const char* group = "opening, publication left out";
    const char* against = "time per certificate at 16";
    addCurve(results, {group, "open and free, per certificate", "", {}}, whole);
    addCurve(results, {group, "the same calls bare, per certificate", "", {}}, bare);
    addCurve(results, {group, "the module's own, per certificate", "", {}}, certificates);
    addCurve(results, {group, "open and free without certificates", "", {}}, Curve{{0}, {empty}});
    addGrowth(results, {group, "open and free, growth at 1,024", against, {}}, whole, many, few,
              atMost(1.1));
    addGrowth(results, {group, "the module's own, growth at 1,024", against, {}}, certificates,
              many, few, atMost(1.1));
}

// The memory of an opened provider.
HeapUse heldByProvider(const CertifiedToken& token)
{
    token.choose();
    openAndFree();
    const HeapUse before = heapUse();
    const OpenedProvider provider;
    const HeapUse after = heapUse();
    return {after.blocks - before.blocks, after.bytes - before.bytes};
}

Figure exactly(double value)
{
    return {value, value, value};
}

void addMemory(Results& results, const Tokens& tokens)
{
    const char* group = "memory of an opened provider";
    const HeapUse empty = heldByProvider(*tokens.front());
    double bytesOfFew = 0;
    double bytesOfMany = 0;
    for (const auto& token : tokens) {
        const size_t size = token->certificates();
        if (size == 0)
            continue;
        const HeapUse held = heldByProvider(*token);
        const auto count = static_cast<double>(size);
        const double bytes = static_cast<double>(held.bytes - empty.bytes) / count;
        const double blocks = static_cast<double>(held.blocks - empty.blocks) / count;
        results.value({group, "bytes per certificate", "", count}, exactly(bytes), "bytes", report);
        results.value({group, "blocks per certificate", "", count}, exactly(blocks), "blocks",
                      report);
        if (size == few)
            bytesOfFew = bytes;
        if (size == many)
            bytesOfMany = bytes;
    }
    results.value({group, "growth at 1,024", "bytes per certificate at 16", {}},
                  exactly(bytesOfMany / bytesOfFew), "ratio", atMost(1.1));
}

void expectPublished(size_t certificates)
{
    HCERTSTORE store = CertOpenSystemStoreW(0, L"MY");
    size_t count = 0;
    PCCERT_CONTEXT each = nullptr;
    while ((each = CertEnumCertificatesInStore(store, each)) != nullptr)
        ++count;
    CertCloseStore(store, 0);
    if (count != certificates)
        throw std::runtime_error("published: " + std::to_string(count) + " certificates of " +
                                 std::to_string(certificates));
}

// With publication and without it, in turn. The store already contains the token's certificates, as
// it does from the second opening on.
void addPublication(Results& results, const CertifiedToken& token, const Plan& plan)
{
    const EmptyUserRegistry registry;
    Rounds inside;
    const Batch published = [&inside](size_t runs) {
        setPublishing(true);
        const auto before = timeInsideStore();
        for (size_t i = 0; i < runs; ++i)
            openAndFree();
        const auto spent = static_cast<double>((timeInsideStore() - before).count());
        inside.push_back(spent / static_cast<double>(runs));
        setPublishing(false);
    };
    setPublishing(true);
    token.choose();
    openAndFree();
    expectPublished(token.certificates());
    setPublishing(false);

    const std::vector<Rounds> rounds = inTurn({{published}, openings(token)}, {3, plan.batch});
    inside.erase(inside.begin(), inside.end() - static_cast<ptrdiff_t>(rounds[0].size()));
    const std::vector<size_t> size{token.certificates()};
    const char* group = "publication, per certificate";
    addCurve(results, {group, "open and free with publication", "", {}},
             perOne({size, {rounds[0]}}));
    addCurve(results, {group, "what publication adds", "", {}},
             perOne({size, {without(rounds[0], rounds[1])}}));
    addCurve(results, {group, "inside the system's store", "", {}}, perOne({size, {inside}}));
    Rounds parts;
    for (size_t i = 0; i < inside.size(); ++i)
        parts.push_back(inside[i] / rounds[0][i]);
    results.value({group, "part that is spent inside the system's store",
                   "open and free with publication", static_cast<double>(size.front())},
                  figureOf(parts), "ratio", report);
}

void measureOpening(Results& results, const Plan& plan)
{
    const test::TemporaryFolder folder;
    Tokens tokens;
    for (const size_t certificates : {size_t{0}, size_t{1}, few, size_t{128}, many}) {
        tokens.push_back(std::make_unique<CertifiedToken>(folder.path(), certificates));
        tokens.back()->choose();
        expectSameCalls(tokens.back()->scripted());
    }
    addTimes(results, tokens, plan);
    addMemory(results, tokens);
    if (!runsUnderWine()) {
        std::printf(
            "publication is only measured under Wine, where a registry of its own keeps the "
            "user's store untouched\n");
        return;
    }
    for (const auto& token : tokens) {
        // The system's store takes minutes for the largest number.
        if (token->certificates() != 0 && token->certificates() != many)
            addPublication(results, *token, plan);
    }
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, &NV::bench::measureOpening);
}
