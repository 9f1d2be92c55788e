// What a fault makes of opening a provider. Opening swallows most failures: what could not be read
// is missing, and the rest is served. It fails as a whole when the library cannot be had, started,
// asked for itself and its slots, ended after discovery, or started again.

#include "opening_oracle.h"

#include <algorithm>
#include <string_view>

namespace NV::test {

namespace {

constexpr size_t slotCount = 2;
constexpr size_t certificateCount = 2;
constexpr size_t longestSearch = 1024;  // objects

enum class Lost {
    nothing,
    opening,       // init is false
    slots,         // all of them
    slot,          // this one; the next is taken
    certificates,  // all of them
    key,           // of this certificate, which is still published
    name,          // of this certificate; its key has an empty one
};

// The steps that follow.
enum class Then {
    all,
    none,
    endOfDiscovery,  // and nothing behind it
    unknownSlots,    // slots without an identifier, then the rest of discovery and the last calls
    nextSlot,
    nameOfCertificate,
    nextCertificate,
    sessionEnd,
    end,
};

// After an answer other than CKR_OK.
struct Rule {
    Stage stage;
    Then then;
    Lost lost;
};

constexpr Rule rules[] = {
    {Stage::functionList, Then::none, Lost::opening},
    {Stage::clearing, Then::all, Lost::nothing},
    {Stage::start, Then::none, Lost::opening},
    {Stage::libraryInfo, Then::endOfDiscovery, Lost::opening},
    {Stage::slotCount, Then::endOfDiscovery, Lost::opening},
    {Stage::slotList, Then::unknownSlots, Lost::slots},
    {Stage::slotInfo, Then::all, Lost::slot},
    {Stage::tokenInfo, Then::all, Lost::slot},
    {Stage::mechanismCount, Then::nextSlot, Lost::nothing},
    {Stage::mechanismList, Then::nextSlot, Lost::nothing},
    {Stage::mechanismInfo, Then::all, Lost::nothing},
    {Stage::discoveryEnd, Then::none, Lost::opening},
    {Stage::restart, Then::none, Lost::opening},
    {Stage::session, Then::end, Lost::certificates},
    {Stage::search, Then::sessionEnd, Lost::certificates},
    {Stage::searchResult, Then::sessionEnd, Lost::certificates},
    {Stage::certificateLength, Then::nameOfCertificate, Lost::key},
    {Stage::certificate, Then::all, Lost::key},
    {Stage::nameLength, Then::nextCertificate, Lost::name},
    {Stage::name, Then::all, Lost::name},
    {Stage::searchEnd, Then::all, Lost::nothing},
    {Stage::sessionEnd, Then::all, Lost::nothing},
    {Stage::end, Then::all, Lost::nothing},
};

// Discovery calls the library directly: an exception ends it. Later the call layer makes an answer
// of the exception.
bool thrownInDiscovery(Stage stage, const FaultCase& fault)
{
    return stage <= Stage::discoveryEnd &&
           (fault.kind == FaultKind::exception || fault.kind == FaultKind::nullEntry);
}

bool changesNothing(Stage stage, const FaultCase& fault)
{
    // A list whose C_Initialize is not the exported one is repaired when it is fetched.
    const bool repaired =
        fault.kind == FaultKind::nullEntry && fault.target.function == "C_Initialize";
    const bool inUse = fault.saysAlreadyInitialized() && stage == Stage::start;
    return repaired || inUse || (fault.isLie() && stage != Stage::searchResult);
}

Rule ruleFor(Stage stage, const FaultCase& fault)
{
    if (changesNothing(stage, fault))
        return {stage, Then::all, Lost::nothing};
    if (thrownInDiscovery(stage, fault)) {
        // A library that throws at its start may have started, so it is ended too.
        const bool started = stage >= Stage::start && stage < Stage::discoveryEnd;
        return {stage, started ? Then::endOfDiscovery : Then::none, Lost::opening};
    }
    return *std::ranges::find(rules, stage, &Rule::stage);
}

using Names = std::vector<std::string>;

// The names of the steps from the first of a stage (and slot or certificate) on.
Names from(const std::vector<Step>& steps, Stage stage, size_t item = 0)
{
    auto step = std::ranges::find_if(
        steps, [&](const Step& each) { return each.stage == stage && each.item == item; });
    Names names;
    for (; step != steps.end(); ++step)
        names.emplace_back(step->function);
    return names;
}

Names following(const std::vector<Step>& steps, size_t place, Then then)
{
    const size_t next = steps[place].item + 1;
    switch (then) {
    case Then::none:
        return {};
    case Then::endOfDiscovery:
        return {"C_Finalize"};
    case Then::unknownSlots: {
        Names names;
        for (size_t i = 0; i < slotCount; ++i)
            names.insert(names.end(), {"C_GetSlotInfo", "C_GetTokenInfo", "C_GetMechanismList"});
        names.insert(names.end(), {"C_Finalize", "C_Initialize", "C_Finalize"});
        return names;
    }
    case Then::nextSlot:
        return next < slotCount ? from(steps, Stage::slotInfo, next)
                                : from(steps, Stage::discoveryEnd);
    case Then::nameOfCertificate:
        return from(steps, Stage::nameLength, steps[place].item);
    case Then::nextCertificate:
        return next < certificateCount ? from(steps, Stage::certificateLength, next)
                                       : from(steps, Stage::searchEnd);
    case Then::sessionEnd:
        return from(steps, Stage::sessionEnd);
    case Then::end:
        return from(steps, Stage::end);
    default: {
        Names names;
        for (size_t i = place + 1; i < steps.size(); ++i)
            names.emplace_back(steps[i].function);
        return names;
    }
    }
}

// Objects that a token has only claimed to have found: each is asked for its two lengths.
size_t claimedObjects(Stage stage, const FaultCase& fault)
{
    if (stage != Stage::searchResult || !fault.isLie())
        return 0;
    return fault.kind == FaultKind::secondCountLarger ? kLieExcess
                                                      : longestSearch - certificateCount;
}

std::string callsOf(const std::vector<Step>& steps, const FaultCase& fault, Then then)
{
    Names names;
    for (size_t i = 0; i <= fault.call; ++i)
        names.emplace_back(steps[i].function);
    Names rest = following(steps, fault.call, then);
    const size_t claimed = claimedObjects(steps[fault.call].stage, fault);
    rest.insert(std::ranges::find(rest, "C_FindObjectsFinal"), 2 * claimed, "C_GetAttributeValue");
    names.insert(names.end(), rest.begin(), rest.end());
    // What is missing in the list does not reach the token; C_Initialize is never missing.
    if (fault.kind == FaultKind::nullEntry && fault.target.function != "C_Initialize")
        std::erase(names, fault.target.function);
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : " ") + name;
    return text;
}

std::string keysAfter(Lost lost, const Step& step, const FaultCase& fault)
{
    Names names(std::begin(firstSlotKeys), std::end(firstSlotKeys));
    // Where C_GetAttributeValue is missing, no certificate can be read.
    const bool everyKey = lost == Lost::key && fault.kind == FaultKind::nullEntry;
    const bool all = lost == Lost::opening || lost == Lost::slots || lost == Lost::certificates;
    if (lost == Lost::slot && step.item == 0)
        names.assign(std::begin(otherSlotKeys), std::end(otherSlotKeys));
    else if (all || everyKey)
        names.clear();
    else if (lost == Lost::key)
        names.erase(names.begin() + static_cast<std::ptrdiff_t>(step.item));
    else if (lost == Lost::name)
        names[step.item].clear();
    std::ranges::sort(names);
    std::string text;
    for (const std::string& name : names)
        text += name + " ";
    return text;
}

}  // namespace

std::vector<Step> openingSteps()
{
    std::vector<Step> steps = {{"C_GetFunctionList", Stage::functionList, 0},
                               {"C_Finalize", Stage::clearing, 0},
                               {"C_Initialize", Stage::start, 0},
                               {"C_GetInfo", Stage::libraryInfo, 0},
                               {"C_GetSlotList", Stage::slotCount, 0},
                               {"C_GetSlotList", Stage::slotList, 0}};
    for (size_t i = 0; i < slotCount; ++i) {
        steps.insert(steps.end(), {{"C_GetSlotInfo", Stage::slotInfo, i},
                                   {"C_GetTokenInfo", Stage::tokenInfo, i},
                                   {"C_GetMechanismList", Stage::mechanismCount, i},
                                   {"C_GetMechanismList", Stage::mechanismList, i}});
        steps.insert(steps.end(), std::size(kMechanisms),
                     {"C_GetMechanismInfo", Stage::mechanismInfo, i});
    }
    steps.insert(steps.end(), {{"C_Finalize", Stage::discoveryEnd, 0},
                               {"C_Initialize", Stage::restart, 0},
                               {"C_OpenSession", Stage::session, 0},
                               {"C_FindObjectsInit", Stage::search, 0},
                               {"C_FindObjects", Stage::searchResult, 0}});
    for (size_t i = 0; i < certificateCount; ++i)
        steps.insert(steps.end(), {{"C_GetAttributeValue", Stage::certificateLength, i},
                                   {"C_GetAttributeValue", Stage::certificate, i},
                                   {"C_GetAttributeValue", Stage::nameLength, i},
                                   {"C_GetAttributeValue", Stage::name, i}});
    steps.insert(steps.end(), {{"C_FindObjectsFinal", Stage::searchEnd, 0},
                               {"C_CloseSession", Stage::sessionEnd, 0},
                               {"C_Finalize", Stage::end, 0}});
    return steps;
}

ExpectedOpening expectedOpening(const std::vector<Step>& steps, const FaultCase& fault)
{
    const Step& step = steps[fault.call];
    const bool claimed = claimedObjects(step.stage, fault) != 0;
    const Rule rule =
        claimed ? Rule{step.stage, Then::all, Lost::nothing} : ruleFor(step.stage, fault);
    const Lost lost = rule.lost;
    const bool served = lost != Lost::opening && lost != Lost::slots;

    ExpectedOpening expected{};
    expected.result = lost != Lost::opening;
    expected.calls = callsOf(steps, fault, rule.then);
    expected.keys = keysAfter(lost, step, fault);
    expected.algorithms = served;
    expected.published = served && lost != Lost::certificates ? certificateCount : 0;
    // All objects that are only claimed have one handle, and are published, in vain, as one.
    expected.published += claimed ? 1 : 0;
    expected.slot = lost == Lost::slot && step.item == 0 ? kOtherSlot : kSlot;
    expected.sessionsFinalized = step.stage == Stage::sessionEnd ? 1 : 0;
    const bool finalizeMissing =
        fault.kind == FaultKind::nullEntry && fault.target.function == "C_Finalize";
    expected.initialised = step.stage == Stage::discoveryEnd || step.stage == Stage::end ||
                           (step.stage == Stage::restart && fault.saysAlreadyInitialized());
    expected.finalizedAtTheEnd = step.stage != Stage::functionList && !finalizeMissing;
    return expected;
}

}  // namespace NV::test
