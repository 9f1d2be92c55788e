// Work on several threads that start at once, with what went wrong as one text; and how long tests
// of that kind run. Portable.

#pragma once

#include <functional>
#include <mutex>
#include <string>

namespace NV::test {

// What several threads found wrong.
class Complaints {
public:
    void add(const std::string& complaint);
    void addUnless(bool right, const std::string& complaint)
    {
        if (!right)
            add(complaint);
    }
    // The first of them, a line each, and the number of all; empty when there are none.
    std::string text() const;

private:
    mutable std::mutex lock_;
    size_t count_ = 0;
    std::string first_;
};

// Runs the work on so many threads at once, which are told their number, from 0. Gives what they
// complained of, exceptions among it.
std::string runTogether(int threads, const std::function<void(int, Complaints&)>& work);

// So many rounds, times the environment variable KEYWARDEN_ROUNDS, if that is set. Throws
// std::runtime_error when that is no positive number.
int rounds(int usual);

}  // namespace NV::test
