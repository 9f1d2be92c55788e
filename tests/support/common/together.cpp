// Threads that start at once.

#include "together.h"

#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include "start_line.h"

namespace NV::test {

void Complaints::add(const std::string& complaint)
{
    constexpr size_t shown = 20;
    const std::lock_guard guard(lock_);
    if (++count_ <= shown)
        first_ += complaint + "\n";
}

std::string Complaints::text() const
{
    const std::lock_guard guard(lock_);
    return count_ == 0 ? "" : first_ + std::to_string(count_) + " in all\n";
}

std::string runTogether(int threads, const std::function<void(int, Complaints&)>& work)
{
    Complaints complaints;
    StartLine start(threads);
    const auto run = [&](int number) {
        start.wait();
        try {
            work(number, complaints);
        } catch (const std::exception& error) {
            complaints.add("thread " + std::to_string(number) + ": " + error.what());
        }
    };
    {
        std::vector<std::jthread> running;
        for (int number = 0; number < threads; ++number)
            running.emplace_back(run, number);
    }
    return complaints.text();
}

int rounds(int usual)
{
    const char* factor = std::getenv("KEYWARDEN_ROUNDS");
    if (factor == nullptr || *factor == '\0')
        return usual;
    char* end = nullptr;
    const long times = std::strtol(factor, &end, 10);
    if (*end != '\0' || times < 1 || times > 10000)
        throw std::runtime_error(std::string("KEYWARDEN_ROUNDS=") + factor);
    return usual * static_cast<int>(times);
}

}  // namespace NV::test
