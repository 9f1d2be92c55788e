// The fault matrix of discovery, the first part of opening a provider, which a provider's user does
// not see whole: which slots are listed, and what is known of each.

#include <gtest/gtest.h>

#include <algorithm>

#include "case_count.h"
#include "heap_count.h"
#include "log_off.h"
#include "opening_oracle.h"
#include "p11/p11.h"

namespace NV::test {

namespace {

constexpr CK_FLAGS otherSlotFlags = CKF_TOKEN_PRESENT | CKF_REMOVABLE_DEVICE;

struct KnownSlot {
    CK_SLOT_ID id = 0;
    CK_FLAGS slotFlags = 0;
    CK_FLAGS tokenFlags = 0;
    std::vector<CK_MECHANISM_TYPE> mechanisms = {};  // ascending

    bool operator==(const KnownSlot&) const = default;
};

void PrintTo(const KnownSlot& slot, std::ostream* out)
{
    *out << slot.id << ", flags " << slot.slotFlags << " and " << slot.tokenFlags << ", "
         << slot.mechanisms.size() << " mechanisms";
}

std::vector<KnownSlot> wholeSlots()
{
    std::vector<CK_MECHANISM_TYPE> types;
    for (const MechanismRow& row : kMechanisms)
        types.push_back(row.type);
    std::ranges::sort(types);
    return {{kSlot, kSlotFlags, kTokenFlags, types},
            {kOtherSlot, otherSlotFlags, kTokenFlags, types}};
}

bool thrown(const FaultCase& fault)
{
    return fault.kind == FaultKind::exception || fault.kind == FaultKind::nullEntry;
}

// What a slot lacks after an answer other than CKR_OK to one of its questions.
void takeAway(std::vector<KnownSlot>& slots, const Step& step, const FaultCase& fault)
{
    KnownSlot& slot = slots[step.item];
    switch (step.stage) {
    case Stage::slotInfo:
        // It shows what the slot before it has left.
        slot.slotFlags = step.item == 0 ? 0 : slots[step.item - 1].slotFlags;
        break;
    case Stage::tokenInfo:
        slot = {.mechanisms = slot.mechanisms};
        break;
    case Stage::mechanismCount:
    case Stage::mechanismList:
        slot.mechanisms.clear();
        break;
    default:
        std::erase(slot.mechanisms,
                   kMechanisms[(fault.target.occurrence - 1) % std::size(kMechanisms)].type);
    }
}

// Behind a failing slot list come as many slots as were counted, of which nothing is known. An
// exception ends the discovery: the slot that it strikes is not listed.
std::vector<KnownSlot> expectedSlots(const Step& step, const FaultCase& fault)
{
    std::vector<KnownSlot> slots = wholeSlots();
    const bool repaired =
        fault.kind == FaultKind::nullEntry && fault.target.function == "C_Initialize";
    const bool harmless = fault.isLie() || repaired || fault.saysAlreadyInitialized() ||
                          (step.stage == Stage::clearing && !thrown(fault));
    if (harmless || step.stage == Stage::discoveryEnd)
        return slots;
    if (step.stage < Stage::slotList || (step.stage == Stage::slotList && thrown(fault)))
        return {};
    if (step.stage == Stage::slotList)
        return std::vector<KnownSlot>(slots.size());
    if (thrown(fault))
        slots.resize(step.item);
    else
        takeAway(slots, step, fault);
    return slots;
}

class DiscoveryFaultTest : public testing::Test {
protected:
    DiscoveryFaultTest()
    {
        // What the first run and the first exception of a thread allocate once is no leak.
        fillToken();
        token.throwFrom("C_GetInfo", 1);
        discover();
        fillToken();
        EXPECT_EQ(wholeSlots(), discover());
        // Of the calls of an opening, those up to the finalise that ends discovery.
        const auto end = std::ranges::find(steps, Stage::discoveryEnd, &Step::stage) + 1;
        steps.erase(end, steps.end());
        good = sequenceOf(token.calls());
        good.pop_back();  // made when the call layer went
    }

    void fillToken()
    {
        token.reset();
        token.addSlot(kOtherSlot, otherSlotFlags);
    }

    std::vector<KnownSlot> discover(bool* result = nullptr)
    {
        token.clearCalls();
        Pkcs11 p11;
        const bool loaded = p11.loadModule(ScriptedToken::path());
        if (result != nullptr)
            *result = loaded;
        std::vector<KnownSlot> slots;
        for (const auto& slot : p11.module()->slots()) {
            slots.push_back({slot->id(), slot->slotInfo().flags, slot->tokenInfo().flags});
            for (const auto& [type, mechanism] : slot->mechanisms())
                slots.back().mechanisms.push_back(type);
        }
        return slots;
    }

    LogOff logOff;
    ScriptedToken token;
    std::vector<Step> steps = openingSteps(Behaviour::classic);
    Sequence good;
};

}  // namespace

TEST_F(DiscoveryFaultTest, everyFaultOfEveryCall)
{
    ASSERT_EQ(57U, good.size());
    ASSERT_EQ(steps.size(), good.size());
    for (const FaultCase& fault : casesOf(good)) {
        SCOPED_TRACE("discovery, " + fault.name());
        const long before = liveHeapBlocks();
        {
            fillToken();
            arm(token, fault);
            bool result = false;
            EXPECT_EQ(expectedSlots(steps[fault.call], fault), discover(&result));
            EXPECT_EQ(
                expectedOpening(Behaviour::classic, openingSteps(Behaviour::classic), fault).result,
                result);
            fillToken();
            EXPECT_EQ(wholeSlots(), discover());
        }
        EXPECT_EQ(0, liveHeapBlocks() - before);
        countCase();
    }
}

}  // namespace NV::test
