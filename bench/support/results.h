// The results of the benchmarks, one row for each figure, as JSON for scripts/bench.sh, and the
// main function that the benchmarks share. Portable.

#pragma once

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "measure.h"

namespace NV::bench {

// The target of a figure, if it has one.
struct Reach {
    enum class Rule { report, atMost, atLeast };
    Rule rule = Rule::report;
    double limit = 0;
};

inline constexpr Reach report{};

constexpr Reach atMost(double limit)
{
    return {Reach::Rule::atMost, limit};
}

constexpr Reach atLeast(double limit)
{
    return {Reach::Rule::atLeast, limit};
}

// What was measured: "operations on SoftHSM2", "RSA sign", "the same calls, bare".
struct Measure {
    std::string group;
    std::string name;
    std::string against;
    // The position on a curve, if the measure is part of one: bytes, keys, certificates, threads.
    std::optional<double> size = {};
};

class Results {
public:
    // The ratio of a comparison, with the two times.
    void ratio(const Measure& measure, const Comparison& comparison, Reach reach);
    // The speed as a ratio: the speed of the subject divided by that of the reference.
    void speed(const Measure& measure, const Comparison& comparison, Reach reach);
    // The additional time of the subject compared with the reference, in microseconds.
    void added(const Measure& measure, const Comparison& comparison, Reach reach);
    // Any other figure, with its unit: "us", "bytes", "calls".
    void value(const Measure& measure, const Figure& figure, const std::string& unit, Reach reach);

    // Writes the rows as a JSON array. Throws std::runtime_error when the file cannot be written.
    void write(const std::string& file) const;

private:
    struct Row {
        Measure measure;
        Figure figure;
        std::string unit;
        Reach reach;
        std::optional<Comparison> comparison;
    };

    void add(Row row);

    std::vector<Row> rows_;
};

// Runs a benchmark program: "NAME RESULTS.json [--quick]". Quick figures only show that the program
// works. If it does not, the exit status is 1 and the error is on standard error. A figure that
// misses its target is not an error.
int runBenchmark(int argc, char** argv, void (*benchmark)(Results& results, const Plan& plan));

}  // namespace NV::bench
