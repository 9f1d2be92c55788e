// What a fault makes of opening a provider. Opening swallows most failures: what could not be read
// is missing, and the rest is served. It fails as a whole when the library cannot be had, started,
// asked for itself and its slots, ended after discovery, or started again.
//
// Modern initialises the library once and leaves it so. A library that somebody else has initialised is
// as good. Where one says that it is not initialised any more, the opening begins again. A certificate
// without a name, and one of an authority whose public key is not found, is no key. A search that does not
// end makes the next one take a new session.

#include "opening_oracle.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string_view>
#include <utility>

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
    name,          // of this certificate; in classic its key has an empty one
    certificate,   // this one: it is neither filed nor published
};

// The steps that follow.
enum class Then {
    all,
    none,
    finalize,      // and nothing behind it
    unknownSlots,  // slots without an identifier, then the rest of discovery and the last calls
    nextSlot,
    nameOfCertificate,
    nextCertificate,
    nextKeySearch,
    newSession,   // for the next search
    newSessions,  // for each
    sessionEnd,
    end,
};

// After an answer other than CKR_OK.
struct Rule {
    Stage stage;
    Then then;
    Lost lost;
};

// The steps that a behaviour does not have do not follow.
constexpr Rule rules[] = {
    {Stage::functionList, Then::none, Lost::opening},
    {Stage::clearing, Then::all, Lost::nothing},
    {Stage::start, Then::none, Lost::opening},
    {Stage::libraryInfo, Then::finalize, Lost::opening},
    {Stage::slotCount, Then::finalize, Lost::opening},
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
    {Stage::searchEnd, Then::newSession, Lost::nothing},
    {Stage::keySearch, Then::nextKeySearch, Lost::certificate},
    {Stage::keySearchResult, Then::all, Lost::certificate},
    {Stage::keySearchEnd, Then::newSession, Lost::nothing},
    {Stage::sessionEnd, Then::all, Lost::nothing},
    {Stage::end, Then::all, Lost::nothing},
};

// In modern, the opening begins again, once it has made the calls that the fault leaves of the discovery or
// of the session.
bool beginsAgain(Behaviour behaviour, Stage stage, const FaultCase& fault)
{
    return behaviour == Behaviour::modern && stage > Stage::start &&
           fault.kind == FaultKind::code && fault.code == CKR_CRYPTOKI_NOT_INITIALIZED;
}

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
        return {stage, started ? Then::finalize : Then::none, Lost::opening};
    }
    Rule rule = *std::ranges::find(rules, stage, &Rule::stage);
    if (rule.then == Then::newSession && fault.kind == FaultKind::nullEntry)
        rule.then = Then::newSessions;
    return rule;
}

using Names = std::vector<std::string>;
using Steps = std::vector<Step>;

// The steps from the first of a stage (and slot or certificate) on. None without one.
Steps from(const Steps& steps, Stage stage, size_t item = 0)
{
    const auto first = std::ranges::find_if(
        steps, [&](const Step& each) { return each.stage == stage && each.item == item; });
    return {first, steps.end()};
}

Steps ofStages(const Steps& steps, std::initializer_list<Stage> stages)
{
    Steps chosen;
    std::ranges::copy_if(steps, std::back_inserter(chosen), [&](const Step& step) {
        return std::ranges::find(stages, step.stage) != stages.end();
    });
    return chosen;
}

Steps joined(Steps first, const Steps& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// In a session whose last search has not ended, the next one fails, and is made in a new session: the
// first searches of the steps, at most `count`.
Steps withNewSessions(const Steps& steps, size_t count)
{
    Steps all;
    for (const Step& step : steps) {
        if (step.stage == Stage::keySearch && count != 0) {
            --count;
            for (const char* function : {"C_FindObjectsInit", "C_CloseSession", "C_OpenSession"})
                all.push_back({function, Stage::keySearch, step.item});
        }
        all.push_back(step);
    }
    return all;
}

Steps following(const Steps& steps, size_t place, Then then)
{
    const size_t item = steps[place].item;
    const auto after = [&](size_t i) {
        return Steps(steps.begin() + static_cast<std::ptrdiff_t>(i) + 1, steps.end());
    };
    switch (then) {
    case Then::none:
        return {};
    case Then::finalize:
        return {{"C_Finalize", Stage::discoveryEnd, 0}};
    case Then::unknownSlots: {
        Steps unknown;
        for (size_t i = 0; i < slotCount; ++i)
            unknown.insert(unknown.end(), {{"C_GetSlotInfo", Stage::slotInfo, i},
                                           {"C_GetTokenInfo", Stage::tokenInfo, i},
                                           {"C_GetMechanismList", Stage::mechanismCount, i}});
        return joined(unknown, ofStages(steps, {Stage::discoveryEnd, Stage::restart, Stage::end}));
    }
    case Then::nextSlot: {
        if (item + 1 < slotCount)
            return from(steps, Stage::slotInfo, item + 1);
        const auto behind = std::ranges::find_if(
            steps, [](const Step& each) { return each.stage > Stage::mechanismInfo; });
        return {behind, steps.end()};
    }
    case Then::nameOfCertificate:
        return from(steps, Stage::nameLength, item);
    case Then::nextCertificate:
        return item + 1 < certificateCount ? from(steps, Stage::certificateLength, item + 1)
                                           : from(steps, Stage::searchEnd);
    case Then::nextKeySearch:
        return after(place + 2);
    case Then::newSession:
        return withNewSessions(after(place), 1);
    case Then::newSessions:
        return withNewSessions(after(place), certificateCount);
    case Then::sessionEnd:
        return from(steps, Stage::sessionEnd);
    case Then::end:
        return from(steps, Stage::end);
    default:
        return after(place);
    }
}

// Where C_GetAttributeValue is missing, no certificate can be read.
bool losesEveryKey(Lost lost, const FaultCase& fault)
{
    return lost == Lost::key && fault.kind == FaultKind::nullEntry;
}

// A certificate that cannot be read is not one of an authority, and one without a name is no key: nobody
// looks for its public key.
bool isSkipped(const Step& step, Lost lost, const Step& struck, const FaultCase& fault)
{
    const bool search = step.stage >= Stage::keySearch && step.stage <= Stage::keySearchEnd;
    const bool unread = lost == Lost::key || lost == Lost::name;
    return search && unread && (step.item == struck.item || losesEveryKey(lost, fault));
}

// Objects that a token has only claimed to have found: each is asked for its two lengths.
size_t claimedObjects(Stage stage, const FaultCase& fault)
{
    if (stage != Stage::searchResult || !fault.isLie())
        return 0;
    return fault.kind == FaultKind::secondCountLarger ? kLieExcess
                                                      : longestSearch - certificateCount;
}

// The discovery, where the fault struck there, or all.
Steps untilTheLossShows(const Steps& steps, Stage struck)
{
    Steps part = steps;
    if (struck <= Stage::mechanismInfo)
        std::erase_if(part, [](const Step& step) { return step.stage > Stage::mechanismInfo; });
    return part;
}

std::string callsOf(Behaviour behaviour, const Steps& steps, const FaultCase& fault,
                    const Rule& rule)
{
    const Step& struck = steps[fault.call];
    Names names;
    for (size_t i = 0; i <= fault.call; ++i)
        names.emplace_back(steps[i].function);
    const bool again = beginsAgain(behaviour, struck.stage, fault);
    Steps left = following(steps, fault.call, rule.then);
    if (again)
        left = untilTheLossShows(left, struck.stage);
    std::erase_if(left,
                  [&](const Step& step) { return isSkipped(step, rule.lost, struck, fault); });
    if (again)
        left = joined(joined(left, {{"C_Initialize", Stage::start, 0}}),
                      from(steps, Stage::libraryInfo));
    Names rest;
    for (const Step& step : left)
        rest.emplace_back(step.function);
    const size_t claimed = claimedObjects(struck.stage, fault);
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

// The certificates that are neither filed nor published in modern: from the first one to the one before
// the second.
std::pair<size_t, size_t> droppedCertificates(Lost lost, const Step& step, const FaultCase& fault)
{
    if (losesEveryKey(lost, fault))
        return {0, certificateCount};
    switch (lost) {
    case Lost::name:
    case Lost::certificate:
        return {step.item, step.item + 1};
    default:
        return {0, 0};
    }
}

std::string keysAfter(Behaviour behaviour, Lost lost, const Step& step, const FaultCase& fault)
{
    Names names(std::begin(firstSlotKeys), std::end(firstSlotKeys));
    const auto place = [&](size_t i) { return names.begin() + static_cast<std::ptrdiff_t>(i); };
    const bool all = lost == Lost::opening || lost == Lost::slots || lost == Lost::certificates;
    const auto [first, last] = droppedCertificates(lost, step, fault);
    if (lost == Lost::slot && step.item == 0)
        names.assign(std::begin(otherSlotKeys), std::end(otherSlotKeys));
    else if (all || losesEveryKey(lost, fault))
        names.clear();
    else if (lost == Lost::key)
        names.erase(place(step.item));
    else if (behaviour == Behaviour::modern)
        names.erase(place(first), place(last));
    else if (lost == Lost::name)
        names[step.item].clear();
    std::ranges::sort(names);
    std::string text;
    for (const std::string& name : names)
        text += name + " ";
    return text;
}

size_t publishedAfter(Behaviour behaviour, Lost lost, const Step& step, const FaultCase& fault)
{
    if (lost == Lost::opening || lost == Lost::slots || lost == Lost::certificates)
        return 0;
    // All objects that are only claimed have one handle, and classic publishes them, in vain, as one.
    if (behaviour == Behaviour::classic)
        return certificateCount + (claimedObjects(step.stage, fault) != 0 ? 1 : 0);
    const auto [first, last] = droppedCertificates(lost, step, fault);
    return certificateCount - (last - first);
}

// The library and its sessions after init, and at the end.
void expectLibraryInClassic(ExpectedOpening& expected, const Step& step, const FaultCase& fault)
{
    const bool finalizeMissing =
        fault.kind == FaultKind::nullEntry && fault.target.function == "C_Finalize";
    expected.sessionsFinalized = step.stage == Stage::sessionEnd ? 1 : 0;
    expected.initialised = step.stage == Stage::discoveryEnd || step.stage == Stage::end ||
                           (step.stage == Stage::restart && fault.saysAlreadyInitialized());
    expected.finalizedAtTheEnd = step.stage != Stage::functionList && !finalizeMissing;
}

void expectLibraryInModern(ExpectedOpening& expected, const Step& step, const FaultCase& fault,
                           bool again)
{
    const bool started = expected.result;
    const bool others = (step.stage == Stage::start && fault.saysAlreadyInitialized()) || again;
    expected.sessionsLeft = step.stage == Stage::sessionEnd ? 1 : 0;
    expected.initialised = started;
    expected.finalizedAtTheEnd = started && !others;
    expected.initialisedAtTheEnd = started && others;
}

}  // namespace

Steps openingSteps(Behaviour behaviour)
{
    const bool modern = behaviour == Behaviour::modern;
    Steps steps = {{"C_GetFunctionList", Stage::functionList, 0},
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
    steps.push_back({"C_FindObjectsFinal", Stage::searchEnd, 0});
    for (size_t i = 0; modern && i < certificateCount; ++i)
        steps.insert(steps.end(), {{"C_FindObjectsInit", Stage::keySearch, i},
                                   {"C_FindObjects", Stage::keySearchResult, i},
                                   {"C_FindObjectsFinal", Stage::keySearchEnd, i}});
    steps.insert(steps.end(),
                 {{"C_CloseSession", Stage::sessionEnd, 0}, {"C_Finalize", Stage::end, 0}});
    if (modern) {
        std::erase_if(steps, [](const Step& step) {
            return step.stage == Stage::clearing || step.stage == Stage::discoveryEnd ||
                   step.stage == Stage::restart || step.stage == Stage::end;
        });
    }
    return steps;
}

ExpectedOpening expectedOpening(Behaviour behaviour, const Steps& steps, const FaultCase& fault)
{
    const Step& step = steps[fault.call];
    const bool claimed = claimedObjects(step.stage, fault) != 0;
    const bool again = beginsAgain(behaviour, step.stage, fault);
    const Rule rule =
        claimed ? Rule{step.stage, Then::all, Lost::nothing} : ruleFor(step.stage, fault);
    const Lost lost = again ? Lost::nothing : rule.lost;

    ExpectedOpening expected{};
    expected.result = lost != Lost::opening;
    expected.calls = callsOf(behaviour, steps, fault, rule);
    expected.keys = keysAfter(behaviour, lost, step, fault);
    expected.algorithms = lost != Lost::opening && lost != Lost::slots;
    expected.published = static_cast<uint32_t>(publishedAfter(behaviour, lost, step, fault));
    expected.slot = lost == Lost::slot && step.item == 0 ? kOtherSlot : kSlot;
    // The session ends after the certificates have been published.
    if (again && step.stage == Stage::sessionEnd)
        expected.published += certificateCount;
    if (behaviour == Behaviour::modern)
        expectLibraryInModern(expected, step, fault, again);
    else
        expectLibraryInClassic(expected, step, fault);
    return expected;
}

}  // namespace NV::test
