// Runs an operation with the nth event failing, for n = 1, 2, ... until a run that the event does not
// reach, and asks after each run what it has left.

#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "event.h"
#include "provider_cases.h"

namespace NV::test {

// How an operation has ended.
struct Ending {
    enum class Way { returned, filesystemError, badAlloc, systemError, other };

    Way way = Way::returned;
    SECURITY_STATUS status = ERROR_SUCCESS;
    bool tokenCalled = false;

    bool done() const { return way == Way::returned && status == ERROR_SUCCESS; }
};

// What is wrong with an ending; empty if the operation may end so.
using EndingRule = std::function<std::string(const ProviderCase& row, const Ending& ending)>;

// What was found wrong, and at which n.
class Findings {
public:
    // Texts that end in "; " each.
    void add(size_t nth, std::string_view wrong);
    // Names the nth event, for the report.
    void describeBy(std::function<std::string(size_t)> describe)
    {
        describe_ = std::move(describe);
    }

    bool empty() const { return found_.empty(); }
    std::string text() const;

private:
    std::map<std::string, std::vector<size_t>> found_;
    std::function<std::string(size_t)> describe_;
};

class EventMatrix {
public:
    // `table`: see ProviderWorld.
    EventMatrix(const ProviderCase& row, Event& event, EndingRule rule,
                Behaviour behaviour = Behaviour::classic,
                const ProviderWorld::Table* table = nullptr);

    // With every `step`th event, from the first. Returns how many events the operation has.
    size_t run(Extent extent, size_t step, Findings& findings);

    // The lines of the log that a run without a failure writes.
    std::vector<std::string> recordsOfGoodRun();

private:
    // One run. Whether the event was reached.
    bool strike(size_t nth, Extent extent, Findings& findings);
    Ending act(size_t nth, Extent extent);
    void settle(const Ending& ending, std::string& wrong);
    std::string outputWrong(const Ending& ending) const;
    bool mayKeepBlocks(const Ending& ending) const;
    // Whether a provider of the world is open while the operation runs.
    bool opened() const { return row_.start == Start::open || row_.start == Start::fresh; }
    void begin();
    void end();

    const ProviderCase& row_;
    Event& event_;
    EndingRule rule_;
    ProviderWorld world_;
    Bytes expected_;  // the output of a good run
    bool struck_ = false;
};

}  // namespace NV::test
