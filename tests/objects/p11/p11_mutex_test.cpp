// The mutex callbacks: memory that runs out, and the thread that ends the process. What they are to
// a library otherwise is in p11_test.cpp.

#include "p11/p11_mutex.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>

#include "base/process_end.h"
#include "child.h"

namespace {

std::atomic<bool> memoryIsUsedUp = false;

}  // namespace

// All of the program's memory comes from here.
// NOLINTBEGIN(misc-new-delete-overloads): the others are the library's and call these.
void* operator new(std::size_t size)
{
    void* block = memoryIsUsedUp ? nullptr : std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return memoryIsUsedUp ? nullptr : std::malloc(size);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}
// NOLINTEND(misc-new-delete-overloads)

namespace NV::test {

namespace {

using Callbacks = std::unique_ptr<CK_C_INITIALIZE_ARGS>;

// Whether another thread gets the mutex within the time.
bool freeForOthers(const CK_C_INITIALIZE_ARGS& callbacks, void* mutex,
                   std::chrono::milliseconds time)
{
    const auto got = std::make_shared<std::atomic<bool>>(false);
    std::thread([got, lock = callbacks.LockMutex, unlock = callbacks.UnlockMutex, mutex] {
        lock(mutex);
        *got = true;
        unlock(mutex);
    }).detach();
    const auto end = std::chrono::steady_clock::now() + time;
    while (!*got && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return *got;
}

}  // namespace

TEST(P11Mutex, CannotBeMadeWithoutMemory)
{
    const Callbacks callbacks = initArgsWithMutexes();
    int untouched = 0;
    void* mutex = &untouched;
    CK_RV rv = CKR_OK;
    memoryIsUsedUp = true;
    EXPECT_NO_THROW(rv = callbacks->CreateMutex(&mutex));
    memoryIsUsedUp = false;
    EXPECT_EQ(CKR_HOST_MEMORY, rv);
    EXPECT_EQ(&untouched, mutex);
}

// The steps of the end: each gives a number of its own when it is wrong.
NV_TEST_CHILD(passesAMutexAtTheEnd)
{
    using namespace std::chrono_literals;
    const Callbacks callbacks = initArgsWithMutexes();
    void* held = nullptr;
    void* mine = nullptr;
    void* unused = nullptr;
    for (void** mutex : {&held, &mine, &unused})
        callbacks->CreateMutex(mutex);
    std::atomic<bool> inside = false;
    std::atomic<bool> leave = false;
    std::thread holder([&] {
        callbacks->LockMutex(held);
        inside = true;
        while (!leave)
            std::this_thread::yield();
        callbacks->UnlockMutex(held);
    });
    while (!inside)
        std::this_thread::yield();
    callbacks->LockMutex(mine);

    beginProcessEnd();
    // One that another thread holds, twice, and one that this thread took before.
    for (int i = 0; i < 2; ++i) {
        if (callbacks->LockMutex(held) != CKR_OK || callbacks->LockMutex(mine) != CKR_OK)
            return 1;
    }
    for (int i = 0; i < 2; ++i) {
        if (callbacks->UnlockMutex(held) != CKR_OK || callbacks->UnlockMutex(mine) != CKR_OK)
            return 2;
    }
    if (freeForOthers(*callbacks, held, 200ms))
        return 3;
    if (freeForOthers(*callbacks, mine, 200ms))
        return 4;
    callbacks->UnlockMutex(mine);
    if (!freeForOthers(*callbacks, mine, 5s))
        return 5;
    leave = true;
    holder.join();
    // One that nobody holds is taken as ever.
    callbacks->LockMutex(unused);
    if (freeForOthers(*callbacks, unused, 200ms))
        return 6;
    callbacks->UnlockMutex(unused);
    return freeForOthers(*callbacks, unused, 5s) ? 70 : 7;
}

TEST(P11Mutex, IsPassedByTheEndingThreadAndLeftToItsHolder)
{
    const ChildResult result =
        runChild("passesAMutexAtTheEnd", {.timeout = std::chrono::seconds(30)});
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 70u) << result.output;
}

// Another thread waits as before: the token would not survive two in the same place.
NV_TEST_CHILD(waitsWhileAnotherThreadEndsTheProcess)
{
    using namespace std::chrono_literals;
    const Callbacks callbacks = initArgsWithMutexes();
    void* mutex = nullptr;
    callbacks->CreateMutex(&mutex);
    callbacks->LockMutex(mutex);
    std::thread([] { beginProcessEnd(); }).join();
    if (freeForOthers(*callbacks, mutex, 200ms))
        return 1;
    callbacks->UnlockMutex(mutex);
    return freeForOthers(*callbacks, mutex, 5s) ? 70 : 2;
}

TEST(P11Mutex, KeepsOutOtherThreadsUntilTheProcessIsGone)
{
    const ChildResult result = runChild("waitsWhileAnotherThreadEndsTheProcess");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 70u) << result.output;
}

// The thread of the first signal stays the ending one, until the detach takes over.
NV_TEST_CHILD(endsOnTheFirstThread)
{
    if (processEnds() || processEndsOnThisThread())
        return 1;
    const bool began = beginProcessEnd();
    if (!began || !beginProcessEnd())
        return 2;
    bool second = true;
    bool taken = false;
    std::thread([&] {
        second = beginProcessEnd() || processEndsOnThisThread() || !processEnds();
    }).join();
    if (second || !processEndsOnThisThread())
        return 3;
    std::thread([&] {
        finishProcessEnd();
        taken = processEndsOnThisThread();
    }).join();
    return taken && !processEndsOnThisThread() && processEnds() ? 70 : 4;
}

TEST(ProcessEnd, IsOnTheFirstThreadUntilTheDetach)
{
    EXPECT_EQ(runChild("endsOnTheFirstThread").exitCode, 70u);
}

}  // namespace NV::test
