// A second thread, which finds the locks that the first one has left locked. Used by the tests of this
// folder.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace NV::test {

// Lives as long as the object, so that its start and its end leave no trace on the heap between.
class OtherThread {
public:
    OtherThread() : thread_([this] { serve(); }) {}
    ~OtherThread()
    {
        {
            const std::lock_guard guard(lock_);
            ended_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

    // Returns when the work, which throws nothing, is done. If it waits for longer than any work takes,
    // the program ends with a message, because the thread can no longer be ended.
    void run(const std::function<void()>& work)
    {
        std::unique_lock guard(lock_);
        work_ = &work;
        changed_.notify_all();
        if (changed_.wait_for(guard, longest, [this] { return work_ == nullptr; }))
            return;
        static_cast<void>(std::fputs("an operation on another thread waits for ever\n", stderr));
        std::abort();
    }

private:
    static constexpr std::chrono::seconds longest{30};

    void serve()
    {
        std::unique_lock guard(lock_);
        while (true) {
            changed_.wait(guard, [this] { return ended_ || work_ != nullptr; });
            if (ended_)
                return;
            guard.unlock();
            // cppcheck-suppress nullPointer ; the wait above ends with work or with the end
            (*work_)();
            guard.lock();
            work_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex lock_;
    std::condition_variable changed_;
    const std::function<void()>* work_ = nullptr;
    bool ended_ = false;
    std::thread thread_;
};

}  // namespace NV::test
