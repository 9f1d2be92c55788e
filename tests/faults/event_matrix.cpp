// The runs, and what is asked after each.

#include "event_matrix.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <system_error>

#include "heap_count.h"
#include "log_capture.h"

namespace NV::test {

namespace {

constexpr size_t mostEvents = 50000;
constexpr size_t mostListed = 6;
constexpr size_t longestFinding = 4096;  // characters
// Ends each thing that is wrong.
constexpr std::string_view separator = "; ";

// What is being tested, for a failure that ends the program.
std::string current;

void tellWhere(int signal)
{
    static_cast<void>(std::fprintf(stderr, "ended in %s\n", current.c_str()));
    static_cast<void>(std::signal(signal, SIG_DFL));
    static_cast<void>(std::raise(signal));
}

// "3-5, 9"
std::string ranges(const std::vector<size_t>& numbers)
{
    std::string text;
    for (size_t i = 0; i < numbers.size();) {
        size_t last = i;
        while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1)
            ++last;
        text += (text.empty() ? "" : ", ") + std::to_string(numbers[i]);
        if (last != i)
            text += "-" + std::to_string(numbers[last]);
        i = last + 1;
    }
    return text;
}

}  // namespace

void Findings::add(size_t nth, std::string_view wrong)
{
    while (!wrong.empty()) {
        const size_t end = std::min(wrong.find(separator), wrong.size() - separator.size());
        found_[std::string(wrong.substr(0, end))].push_back(nth);
        wrong.remove_prefix(end + separator.size());
    }
}

std::string Findings::text() const
{
    std::string all;
    for (const auto& [wrong, numbers] : found_) {
        all += "\n" + wrong + " at " + ranges(numbers);
        for (size_t i = 0; describe_ && i < std::min(mostListed, numbers.size()); ++i)
            all += "\n    " + std::to_string(numbers[i]) + ": " + describe_(numbers[i]);
    }
    return all;
}

EventMatrix::EventMatrix(const ProviderCase& row, Event& event, EndingRule rule,
                         Behaviour behaviour, const ProviderWorld::Table* table)
    : row_(row), event_(event), rule_(std::move(rule)), world_(behaviour, table)
{
    static_cast<void>(std::signal(SIGABRT, &tellWhere));
    static_cast<void>(std::signal(SIGILL, &tellWhere));
    if (row_.start == Start::open)
        world_.open();
    // What the first run and the first exception of a thread allocate once is no leak. The last of
    // these runs gives the output that later ones are compared with.
    Findings ignored;
    Findings good;
    strike(0, Extent::once, ignored);
    strike(1, Extent::once, ignored);
    strike(0, Extent::once, good);
    if (!good.empty())
        throw std::runtime_error("without a failing event: " + good.text());
}

size_t EventMatrix::run(Extent extent, size_t step, Findings& findings)
{
    size_t nth = 1;
    while (strike(nth, extent, findings)) {
        nth += step;
        if (nth > mostEvents)
            throw std::runtime_error("the events do not end");
    }
    return nth - 1;
}

std::vector<std::string> EventMatrix::recordsOfGoodRun()
{
    begin();
    std::vector<std::string> records;
    {
        LogCapture log;
        loggerSettings().gatesAllLevels = mode().logsByLevel();
        row_.act(world_);
        for (const LogLine& line : log.takeLines())
            records.push_back(line.level + " " + line.function + ": " + line.message.substr(0, 60));
    }
    row_.settle(world_, true);
    end();
    return records;
}

void EventMatrix::begin()
{
    if (row_.start == Start::fresh)
        world_.open();
    world_.prepare();
    if (row_.prepare != nullptr)
        row_.prepare(world_);
    world_.token.clearCalls();
}

void EventMatrix::end()
{
    if (row_.start != Start::open)
        world_.close();
}

Ending EventMatrix::act(size_t nth, Extent extent)
{
    Ending ending;
    event_.arm(nth, extent);
    try {
        ending.status = row_.act(world_);
    } catch (const std::filesystem::filesystem_error&) {
        ending.way = Ending::Way::filesystemError;
    } catch (const std::system_error&) {
        ending.way = Ending::Way::systemError;
    } catch (const std::bad_alloc&) {
        ending.way = Ending::Way::badAlloc;
    } catch (const std::exception&) {
        ending.way = Ending::Way::other;
    }
    struck_ = event_.disarm();
    ending.tokenCalled = world_.tokenWasCalled();
    return ending;
}

std::string EventMatrix::outputWrong(const Ending& ending) const
{
    if (row_.output == 0)
        return "";
    const Outputs& out = world_.out;
    const bool whole = out.buffer.holdsExactly(expected_);
    if (ending.done())
        return whole && out.length == row_.output ? "" : "success with a wrong output; ";
    // An exception may leave when all was written and only the telling failed.
    const bool mayBeTold =
        row_.told == LengthTold::withTheOutput || ending.way != Ending::Way::returned;
    const bool right = out.length == unwrittenNumber || (mayBeTold && out.length == row_.output);
    return (whole || out.buffer.holdsExactly({})) && right ? "" : "a part of the output; ";
}

// What a run leaves, before and after its outputs are released.
void EventMatrix::settle(const Ending& ending, std::string& wrong)
{
    if (row_.start != Start::registered)
        wrong += world_.leftOnToken(opened() || row_.start == Start::closed);
    if (opened()) {
        world_.recover();
        wrong += world_.nextOperations();
    }
    wrong += row_.settle(world_, ending.done());
    // Providers that are still open end with this.
    if (row_.start == Start::registered || row_.start == Start::closed)
        wrong += world_.leftOnToken(false);
    world_.recover();
}

bool EventMatrix::mayKeepBlocks(const Ending& ending) const
{
    return row_.onFailure == OnFailure::keepsProvider && ending.way == Ending::Way::returned &&
           !ending.done();
}

bool EventMatrix::strike(size_t nth, Extent extent, Findings& findings)
{
    current = std::string(row_.name) + ", " + event_.name() + " " + std::to_string(nth);
    // Reserved now, so that what is found does not count as left on the heap.
    std::string wrong;
    wrong.reserve(longestFinding);
    const long before = liveHeapBlocks();
    begin();
    const long prepared = liveHeapBlocks();
    const Ending ending = act(nth, extent);
    if (nth == 0 && row_.output != 0)
        expected_.assign(world_.out.buffer.data(), world_.out.buffer.data() + row_.output);
    if (!struck_ && !ending.done())
        wrong += "fails without a failing event; ";
    wrong += rule_(row_, ending) + outputWrong(ending);
    settle(ending, wrong);
    if (row_.start == Start::fresh && row_.stays == Stays::nothing && liveHeapBlocks() > prepared)
        wrong += "blocks are left as long as the provider is open; ";
    end();
    const long left = liveHeapBlocks() - before;
    if (left != 0 && !mayKeepBlocks(ending))
        wrong += left > 0 ? "blocks are left on the heap; " : "too many blocks are freed; ";
    if (!opened()) {
        world_.open();
        wrong += world_.nextOperations();
        world_.close();
    }
    if (!wrong.empty())
        findings.add(nth, wrong);
    return struck_;
}

}  // namespace NV::test
