// Collects rows, writes them as JSON, and runs the main function.

#include "results.h"

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

namespace NV::bench {

namespace {

constexpr double nanosecondsInMicrosecond = 1000;

Figure scaled(const Figure& figure, double factor)
{
    return {figure.median * factor, figure.low * factor, figure.high * factor};
}

const char* ruleName(Reach::Rule rule)
{
    switch (rule) {
    case Reach::Rule::atMost:
        return "at most";
    case Reach::Rule::atLeast:
        return "at least";
    default:
        return "report";
    }
}

bool reached(const Reach& reach, double value)
{
    return reach.rule == Reach::Rule::report ||
           (reach.rule == Reach::Rule::atMost ? value <= reach.limit : value >= reach.limit);
}

}  // namespace

void Results::ratio(const Measure& measure, const Comparison& comparison, Reach reach)
{
    add({measure, comparison.ratio, "ratio", reach, comparison});
}

void Results::speed(const Measure& measure, const Comparison& comparison, Reach reach)
{
    const Figure& ratio = comparison.ratio;
    add({measure, {1 / ratio.median, 1 / ratio.high, 1 / ratio.low}, "speed", reach, comparison});
}

void Results::added(const Measure& measure, const Comparison& comparison, Reach reach)
{
    add({measure, scaled(comparison.difference, 1 / nanosecondsInMicrosecond), "us", reach,
         comparison});
}

void Results::value(const Measure& measure, const Figure& figure, const std::string& unit,
                    Reach reach)
{
    add({measure, figure, unit, reach, {}});
}

void Results::add(Row row)
{
    const std::string size =
        row.measure.size ? " [" + std::to_string(std::llround(*row.measure.size)) + "]" : "";
    std::printf("%s: %s%s: %.4g %s (%.4g to %.4g)%s\n", row.measure.group.c_str(),
                row.measure.name.c_str(), size.c_str(), row.figure.median, row.unit.c_str(),
                row.figure.low, row.figure.high,
                reached(row.reach, row.figure.median) ? "" : " SHORT");
    static_cast<void>(std::fflush(stdout));
    rows_.push_back(std::move(row));
}

void Results::write(const std::string& file) const
{
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const Row& row : rows_) {
        nlohmann::ordered_json each;
        each["group"] = row.measure.group;
        each["name"] = row.measure.name;
        each["against"] = row.measure.against;
        if (row.measure.size)
            each["size"] = *row.measure.size;
        each["value"] = row.figure.median;
        each["low"] = row.figure.low;
        each["high"] = row.figure.high;
        each["unit"] = row.unit;
        each["rule"] = ruleName(row.reach.rule);
        if (row.reach.rule != Reach::Rule::report) {
            each["limit"] = row.reach.limit;
            each["reached"] = reached(row.reach, row.figure.median);
        }
        if (row.comparison) {
            each["subject_ns"] = row.comparison->subject.median;
            each["reference_ns"] = row.comparison->reference.median;
            each["pairs"] = row.comparison->pairs;
            each["runs_in_batch"] = row.comparison->runsInBatch;
        }
        all.push_back(std::move(each));
    }
    std::ofstream out(file, std::ios::binary);
    out << all.dump(1, ' ') << '\n';
    if (!out.flush())
        throw std::runtime_error("cannot write " + file);
}

int runBenchmark(int argc, char** argv, void (*benchmark)(Results& results, const Plan& plan))
{
    const bool quick = argc == 3 && std::string_view(argv[2]) == "--quick";
    if (argc != 2 && !quick) {
        std::fprintf(stderr, "usage: %s RESULTS.json [--quick]\n", argv[0]);
        return 2;
    }
    try {
        const Plan plan = quick ? Plan{3, std::chrono::milliseconds(1)} : Plan{};
        Results results;
        benchmark(results, plan);
        results.write(argv[1]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}

}  // namespace NV::bench
