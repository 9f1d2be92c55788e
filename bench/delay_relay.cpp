// Connects to a TCP server with a delay: forwards standard input to the server and its answers to
// standard output, each after half a round trip. Simulates the distance to a network token, because
// not every kernel can delay packets.
//   bench_delay_relay ADDRESS PORT ROUND_TRIP_MS
// Connecting takes a whole round trip, as it does with TCP. At the end of the input, the relay
// delivers what is still on its way and then closes the connection, without waiting for the server.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void throwErrno(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

int connected(const char* address, const char* port)
{
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(std::stoul(port)));
    if (inet_pton(AF_INET, address, &server.sin_addr) != 1)
        throw std::invalid_argument("not an IPv4 address");
    const int line = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    if (line < 0 || setsockopt(line, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
        connect(line, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0)
        throwErrno("connect");
    return line;
}

// One direction: data that has been read and is not yet due.
class Direction {
public:
    Direction(int from, int to, Clock::duration delay) : from_(from), to_(to), delay_(delay) {}

    int from() const { return from_; }
    bool reading() const { return !ended_; }
    // The input has ended, and everything before its end is delivered.
    bool done() const { return ended_ && waiting_.empty(); }
    // When the next piece is due; far away when there is none.
    Clock::time_point due() const
    {
        return waiting_.empty() ? Clock::time_point::max() : waiting_.front().due;
    }

    void read()
    {
        std::array<char, 16384> bytes{};
        const ssize_t size = ::read(from_, bytes.data(), bytes.size());
        ended_ = size <= 0;
        if (!ended_)
            waiting_.push_back({Clock::now() + delay_, {bytes.data(), bytes.data() + size}});
    }

    void deliver()
    {
        while (due() <= Clock::now()) {
            const std::vector<char>& bytes = waiting_.front().bytes;
            for (size_t sent = 0; sent < bytes.size();) {
                const ssize_t size = write(to_, bytes.data() + sent, bytes.size() - sent);
                if (size < 0)
                    throwErrno("write");
                sent += static_cast<size_t>(size);
            }
            waiting_.pop_front();
        }
    }

private:
    struct Piece {
        Clock::time_point due;
        std::vector<char> bytes;
    };

    int from_;
    int to_;
    Clock::duration delay_;
    bool ended_ = false;
    std::deque<Piece> waiting_;
};

void waitFor(std::array<Direction*, 2> directions)
{
    std::array<pollfd, 2> inputs{};
    Clock::time_point due = Clock::time_point::max();
    for (size_t i = 0; i < inputs.size(); ++i) {
        // poll ignores a negative descriptor.
        inputs.at(i) = {directions.at(i)->reading() ? directions.at(i)->from() : -1, POLLIN, 0};
        due = std::min(due, directions.at(i)->due());
    }
    timespec time{};
    if (const auto left = std::chrono::nanoseconds(due - Clock::now()).count();
        due != Clock::time_point::max() && left > 0)
        time = {static_cast<time_t>(left / 1'000'000'000), left % 1'000'000'000};
    if (ppoll(inputs.data(), inputs.size(), due == Clock::time_point::max() ? nullptr : &time,
              nullptr) < 0)
        throwErrno("poll");
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (inputs.at(i).revents != 0)
            directions.at(i)->read();
    }
}

void relay(int line, Clock::duration delay)
{
    Direction there(STDIN_FILENO, line, delay);
    Direction back(line, STDOUT_FILENO, delay);
    while (!there.done() && !back.done()) {
        waitFor({&there, &back});
        there.deliver();
        back.deliver();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s ADDRESS PORT ROUND_TRIP_MS\n", argv[0]);
        return 2;
    }
    try {
        // Without timer slack, so that waits end on time.
        prctl(PR_SET_TIMERSLACK, 1UL);
        const std::chrono::duration<double, std::milli> roundTrip(std::stod(argv[3]));
        std::this_thread::sleep_for(roundTrip);
        const int line = connected(argv[1], argv[2]);
        relay(line, std::chrono::duration_cast<Clock::duration>(roundTrip / 2));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
