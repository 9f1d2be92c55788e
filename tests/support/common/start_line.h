// Where threads wait for each other, to start at once. Used by all tests on threads. By turns of
// the processor: std::barrier of GCC 12 loses wake-ups where the system has no futex.

#pragma once

#include <atomic>
#include <thread>

namespace NV::test {

class StartLine {
public:
    explicit StartLine(int threads) : missing_(threads) {}

    void wait()
    {
        --missing_;
        while (missing_ > 0)
            std::this_thread::yield();
    }

private:
    std::atomic<int> missing_;
};

}  // namespace NV::test
