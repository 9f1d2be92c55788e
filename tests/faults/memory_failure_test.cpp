// Memory ends in the middle of an operation, at each of its allocations: nothing crashes, nothing is left
// on the token, on the heap or in a list, and the next operation works.

#include <gtest/gtest.h>

#include <tuple>

#include "event_matrix.h"
#include "log_event.h"
#include "log_off.h"
#include "memory_event.h"
#include "module_table.h"

namespace NV::test {

namespace {

std::string status(const Ending& ending)
{
    return "the status is " + std::to_string(static_cast<unsigned>(ending.status)) + "; ";
}

// A block of CNG is NTE_NO_MEMORY; what fails in a sequence on the token is its failure; elsewhere the
// exception leaves.
std::string returnedWrong(const ProviderCase& row, const Ending& ending)
{
    switch (ending.status) {
    case ERROR_SUCCESS:
        return "";
    case NTE_NO_MEMORY:
        return row.memory == MemoryRule::block || row.memory == MemoryRule::opening
                   ? ""
                   : status(ending);
    case NTE_INTERNAL_ERROR:
        return row.memory == MemoryRule::token || row.memory == MemoryRule::opening
                   ? ""
                   : status(ending);
    default:
        return status(ending);
    }
}

std::string throwWrong(const ProviderCase& row, const Ending& ending, MemoryKind kind)
{
    if (std::string(row.name) == "clear")
        return "an exception leaves the detach; ";
    if (row.memory == MemoryRule::block && kind == MemoryKind::cHeap)
        return "an exception leaves for a block of CNG; ";
    if (row.memory == MemoryRule::token && ending.tokenCalled)
        return "an exception leaves a sequence on the token; ";
    return "";
}

EndingRule memoryRule(MemoryKind kind)
{
    return [kind](const ProviderCase& row, const Ending& ending) -> std::string {
        switch (ending.way) {
        case Ending::Way::returned:
            return returnedWrong(row, ending);
        case Ending::Way::badAlloc:
            return throwWrong(row, ending, kind);
        case Ending::Way::systemError:
            // The platform allocates a lock when it is first taken.
            if (kind == MemoryKind::cHeap && row.memory == MemoryRule::opening)
                return "";
            [[fallthrough]];
        default:
            return "another exception than std::bad_alloc leaves; ";
        }
    };
}

// Nothing leaves the table, and memory that ends is told as such or is not needed.
std::string modernMemoryRule(const ProviderCase& row, const Ending& ending)
{
    const std::string name = row.name;
    // The provider's own function has no entry point.
    if (name == "init" &&
        (ending.way == Ending::Way::badAlloc || ending.way == Ending::Way::systemError))
        return "";
    if (ending.way != Ending::Way::returned)
        return name + " throws; ";
    const bool told = ending.status == ERROR_SUCCESS || ending.status == NTE_NO_MEMORY;
    return told ? "" : status(ending);
}

// While the log writes, its own allocations fail, too; their exception may leave any function.
std::string memoryRuleWithLog(const ProviderCase& row, const Ending& ending)
{
    if (ending.way == Ending::Way::returned)
        return returnedWrong(row, ending);
    if (ending.way != Ending::Way::badAlloc)
        return "another exception than std::bad_alloc leaves; ";
    return std::string(row.name) == "clear" ? "an exception leaves the detach; " : "";
}

// operator new fails while every line of the log is written.
class LoggedMemoryEvent : public Event {
public:
    void arm(size_t nth, Extent extent) override
    {
        log_.arm(0, Extent::once);
        memory_.arm(nth, extent);
    }
    bool disarm() override
    {
        const bool struck = memory_.disarm();
        log_.disarm();
        return struck;
    }
    const char* name() const override { return memory_.name(); }

private:
    LogEvent log_{LogCause::clock};
    MemoryEvent memory_{MemoryKind::operatorNew};
};

// In which behaviour, and which operation.
using Case = std::tuple<Behaviour, ProviderCase>;

class MemoryFailureTest : public testing::TestWithParam<Case> {
protected:
    static Behaviour behaviour() { return std::get<Behaviour>(GetParam()); }
    static const ProviderCase& row() { return std::get<ProviderCase>(GetParam()); }

    static void run(MemoryKind kind, Extent extent)
    {
        MemoryEvent event(kind);
        run(event, memoryRule(kind), extent, 1);
    }

    // `rule` is that of classic.
    static void run(Event& event, const EndingRule& rule, Extent extent, size_t step)
    {
        const bool modern = behaviour() == Behaviour::modern;
        EventMatrix matrix(row(), event, modern ? &modernMemoryRule : rule, behaviour(),
                           modern ? moduleTable() : nullptr);
        Findings findings;
        const size_t events = matrix.run(extent, step, findings);
        EXPECT_TRUE(findings.empty()) << events << " allocations:" << findings.text();
    }

private:
    ModeOf mode_{behaviour()};
    LogOff logOff_;
};

}  // namespace

TEST_P(MemoryFailureTest, oneObjectCannotBeHad)
{
    run(MemoryKind::operatorNew, Extent::once);
}

TEST_P(MemoryFailureTest, noObjectCanBeHadAnyMore)
{
    run(MemoryKind::operatorNew, Extent::fromThenOn);
}

TEST_P(MemoryFailureTest, oneBlockCannotBeHad)
{
    run(MemoryKind::cHeap, Extent::once);
}

TEST_P(MemoryFailureTest, noBlockCanBeHadAnyMore)
{
    run(MemoryKind::cHeap, Extent::fromThenOn);
}

TEST_P(MemoryFailureTest, aThirdOfTheObjectsWhileTheLogWrites)
{
    LoggedMemoryEvent event;
    const bool opening = row().memory == MemoryRule::opening;
    run(event, &memoryRuleWithLog, Extent::once, opening ? 11 : 3);
}

TEST_P(MemoryFailureTest, everyObjectWhileTheLogWrites)
{
    LoggedMemoryEvent event;
    run(event, &memoryRuleWithLog, Extent::once, 1);
}

const auto nameOfCase = [](const auto& info) { return std::get<ProviderCase>(info.param).name; };

INSTANTIATE_TEST_SUITE_P(Operations, MemoryFailureTest,
                         testing::Combine(testing::Values(Behaviour::classic),
                                          testing::ValuesIn(providerCases())),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Modern, MemoryFailureTest,
                         testing::Combine(testing::Values(Behaviour::modern),
                                          testing::ValuesIn(providerCases())),
                         nameOfCase);

}  // namespace NV::test
