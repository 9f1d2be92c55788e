// Times two pieces of work in turn, so that what the machine does meanwhile falls on both, and tells
// their ratio. Portable; used by every benchmark.

#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace NV::bench {

// A median and the quartiles around it.
struct Figure {
    double median = 0;
    double low = 0;
    double high = 0;
};

// Of values measured one by one; there must be one at least.
Figure figureOf(std::vector<double> values);

// Two works, A and B. Times are nanoseconds a run.
struct Comparison {
    Figure subject;     // A
    Figure reference;   // B
    Figure ratio;       // A / B of each pair of batches
    Figure difference;  // A - B of each pair of batches
    size_t pairs = 0;
    size_t runsInBatch = 0;
};

// How long a measurement takes: a batch is as many runs as fill the time, at least one.
struct Plan {
    size_t pairs = 41;
    std::chrono::nanoseconds batch = std::chrono::milliseconds(20);
};

// Does the work so many times in a row.
using Batch = std::function<void(size_t runs)>;

// The loop is inside, so that a run of a few nanoseconds is not drowned in calls.
template <typename Work>
Batch repeated(Work work)
{
    return [work = std::move(work)](size_t runs) mutable {
        for (size_t i = 0; i < runs; ++i)
            work();
    };
}

// A run that times itself, for work with parts that do not count: nanoseconds.
using TimedRun = std::function<double()>;

// Batches A B, B A, A B, ... after some of each that are not counted.
Comparison compare(const Batch& subject, const Batch& reference, const Plan& plan);
// The same with single runs in the place of batches.
Comparison compareTimed(const TimedRun& subject, const TimedRun& reference, size_t pairs);

// One work alone, in nanoseconds a run; for figures that stand against none.
Figure measure(const Batch& work, const Plan& plan);

// One of several works, and what makes ready for a batch of it, which is not timed.
struct Work {
    Batch batch;
    std::function<void()> prepare = [] {};
};

// A batch of each work in every round, by turns from the first to the last and back. Nanoseconds a
// run: by work, then by round. Each work fills its batch with runs of its own number.
using Rounds = std::vector<double>;
std::vector<Rounds> inTurn(const std::vector<Work>& works, const Plan& plan);

// The compiler must take the value to be looked at, and may not leave out what made it.
template <typename Value>
void keep(const Value& value)
{
    asm volatile("" : : "r"(&value) : "memory");
}

}  // namespace NV::bench
