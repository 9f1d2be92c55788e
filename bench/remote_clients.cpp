// Measures the throughput of one token: clients that sign repeatedly at the same time, each a
// process with a connection for each signature. bench/fleet.sh makes the network and runs this
// program.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>

#include "native_token.h"
#include "results.h"

namespace NV::bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string file;
    std::string library;
    std::string pin;
    unsigned clients;
    unsigned seconds;
};

// What a client sends to its parent through a pipe, small enough for one atomic write. A time of 0
// means that the signature failed.
struct Signature {
    unsigned client;
    double microseconds;
};

// Signs until the time is over, and continues after a failure under load.
void sign(const Options& options, unsigned client, Clock::time_point begin, int results)
{
    NativeToken token(options.library, options.pin);
    const Clock::time_point end = begin + std::chrono::seconds(options.seconds);
    while (Clock::now() < begin)
        usleep(1000);
    while (Clock::now() < end) {
        Signature signature{client, 0};
        try {
            Times times;
            token.sign(times);
            signature.microseconds = times.at("RSA signature, whole operation").front();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "client %u: %s\n", client, error.what());
            token.finalize();
        }
        if (write(results, &signature, sizeof signature) != sizeof signature)
            throw std::runtime_error("cannot write to the parent");
    }
}

// Never returns.
void runClient(const Options& options, unsigned client, Clock::time_point begin, int results)
{
    try {
        sign(options, client, begin, results);
        _exit(0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "client %u: %s\n", client, error.what());
        _exit(1);
    }
}

void startClients(const Options& options, int results)
{
    // Enough time for all of them to load the library and to read its slots.
    const auto begin = Clock::now() + std::chrono::seconds(2 + options.clients / 4);
    for (unsigned client = 0; client < options.clients; ++client) {
        const pid_t process = fork();
        if (process < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (process == 0)
            runClient(options, client, begin, results);
    }
}

void run(const Options& options)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    startClients(options, ends[1]);
    close(ends[1]);

    std::vector<double> times;
    double failed = 0;
    Signature signature{};
    while (read(ends[0], &signature, sizeof signature) == sizeof signature) {
        if (signature.microseconds == 0)
            ++failed;
        else
            times.push_back(signature.microseconds);
    }
    bool left = false;
    for (int status = 0; wait(&status) > 0;)
        left = left || status != 0;
    if (left || times.empty())
        throw std::runtime_error("a client could not work");

    constexpr const char* group = "one token, by clients that sign at once";
    const double rate = static_cast<double>(times.size()) / options.seconds;
    Results results;
    results.value({group, "RSA signatures a second", "", options.clients}, {rate, rate, rate},
                  "1/s", report);
    results.value({group, "RSA signature, whole operation", "", options.clients}, figureOf(times),
                  "us", report);
    results.value({group, "RSA signatures that failed", "", options.clients},
                  {failed, failed, failed}, "signatures", report);
    results.write(options.file);
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s RESULTS.json LIBRARY PIN CLIENTS SECONDS\n", argv[0]);
        return 2;
    }
    try {
        NV::bench::run({argv[1], argv[2], argv[3], static_cast<unsigned>(std::stoul(argv[4])),
                        static_cast<unsigned>(std::stoul(argv[5]))});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
