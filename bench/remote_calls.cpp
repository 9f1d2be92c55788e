// Measures the cost of a token behind a network: makes the module's calls through a PKCS#11 library
// in this process and, in turn, to the same token through p11-kit's remoting. bench/fleet.sh makes
// the network and runs this program once for each round trip time.

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "native_token.h"
#include "results.h"

namespace NV::bench {

namespace {

struct Options {
    std::string file;
    std::string line;    // the connection of the remote library: "socket", "command"
    std::string direct;  // the library in this process
    std::string remote;  // the library that uses the network
    std::string pin;
    double roundTrip;  // milliseconds
    unsigned rounds;
};

std::string groupOf(const Options& options)
{
    return "token behind a network, by a " + options.line + ", by milliseconds of a round trip";
}

void report(Results& results, const Options& options, const Times& remote, const Times& direct)
{
    for (const auto& [name, times] : remote) {
        const Figure here = figureOf(direct.at(name));
        char against[80];
        std::snprintf(against, sizeof against, "in the same process: %.3g us", here.median);
        results.value({groupOf(options), name, against, options.roundTrip}, figureOf(times), "us",
                      bench::report);
    }
}

void run(const Options& options)
{
    constexpr unsigned askedARound = 10;
    NativeToken here(options.direct, options.pin);
    NativeToken there(options.remote, options.pin);
    Times direct;
    Times remote;
    for (unsigned i = 0; i < options.rounds; ++i) {
        here.sign(direct);
        there.sign(remote);
        here.ask(direct, askedARound);
        there.ask(remote, askedARound);
    }
    here.signInModern(direct, options.rounds);
    there.signInModern(remote, options.rounds);
    // Without the calls that a signature makes, too: they would distort its figures.
    const std::string whole = "opening of a provider, whole operation";
    for (unsigned i = 0; i < (options.rounds + 3) / 4; ++i) {
        Times opening;
        here.open(opening);
        direct[whole].push_back(opening.at(whole).front());
        opening.clear();
        there.open(opening);
        remote[whole].push_back(opening.at(whole).front());
    }

    Results results;
    report(results, options, remote, direct);
    for (const auto& [name, count] :
         {std::pair("slots of that opening", there.slots()),
          std::pair("mechanisms of that opening", there.mechanisms()),
          std::pair("certificates of that opening", there.certificates())}) {
        const auto value = static_cast<double>(count);
        results.value({groupOf(options), name, "", options.roundTrip}, {value, value, value},
                      "objects", bench::report);
    }
    results.write(options.file);
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    if (argc != 8) {
        std::fprintf(stderr, "usage: %s RESULTS.json LINE DIRECT REMOTE PIN ROUND_TRIP_MS ROUNDS\n",
                     argv[0]);
        return 2;
    }
    try {
        NV::bench::run({argv[1], argv[2], argv[3], argv[4], argv[5], std::stod(argv[6]),
                        static_cast<unsigned>(std::stoul(argv[7]))});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
