// The order of the locks: what keeps it passes, and what breaks it ends the process at once. The
// checked build alone watches it.

#include "base/mutex.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child.h"

namespace NV::test {

namespace {

constexpr unsigned long illegalInstruction = 0xC000001D;

struct NamedRank {
    LockRank rank;
    const char* name;
};

// As in docs/architecture.md.
constexpr NamedRank ranks[] = {{LockRank::registry, "registry"},
                               {LockRank::provider, "provider"},
                               {LockRank::sequence, "sequence"},
                               {LockRank::keyStore, "key store"},
                               {LockRank::callLayer, "call layer"},
                               {LockRank::library, "library"},
                               {LockRank::log, "log"},
                               {LockRank::severeLog, "severe log"},
                               {LockRank::leaf, "leaf"}};

// The positions of two of them, the lock that is taken first before the other.
NV_TEST_CHILD(takesTwo)
{
    Mutex first(ranks[std::stoul(arguments.at(0))].rank);
    Mutex second(ranks[std::stoul(arguments.at(1))].rank);
    const std::lock_guard outer(first);
    const std::lock_guard inner(second);
    return 0;
}

NV_TEST_CHILD(takesOneTwice)
{
    Mutex lock(LockRank::provider);
    const std::lock_guard outer(lock);
    const std::lock_guard inner(lock);
    return 0;
}

NV_TEST_CHILD(takesUnderOneThatItGotWithoutWaiting)
{
    Mutex severe(LockRank::severeLog);
    Mutex ordinary(LockRank::log);
    const std::unique_lock outer(severe, std::try_to_lock);
    const std::lock_guard inner(ordinary);
    return 0;
}

NV_TEST_CHILD(releasesWhatAnotherThreadHolds)
{
    Mutex lock(LockRank::provider);
    lock.lock();
    std::thread([&] { lock.unlock(); }).join();
    return 0;
}

NV_TEST_CHILD(releasesTwice)
{
    Mutex lock(LockRank::provider);
    lock.lock();
    lock.unlock();
    lock.unlock();
    return 0;
}

NV_TEST_CHILD(takesTwoInCodeOutside)
{
    Mutex leaf(LockRank::leaf);
    Mutex provider(LockRank::provider);
    Mutex registry(LockRank::registry);
    const std::lock_guard outer(leaf);
    const OutsideCode outside;
    const std::lock_guard first(provider);
    const std::lock_guard second(registry);
    return 0;
}

NV_TEST_CHILD(takesOneTwiceFromOutside)
{
    Mutex lock(LockRank::provider);
    const std::lock_guard outer(lock);
    const OutsideCode outside;
    const std::lock_guard inner(lock);
    return 0;
}

NV_TEST_CHILD(takesTwoAfterCodeOutside)
{
    Mutex provider(LockRank::provider);
    Mutex registry(LockRank::registry);
    const std::lock_guard outer(provider);
    {
        const OutsideCode outside;
        const std::lock_guard inner(registry);
    }
    const std::lock_guard inner(registry);
    return 0;
}

void expectEnd(const ChildResult& child, const std::string& line)
{
    EXPECT_EQ(child.exitCode, illegalInstruction);
    EXPECT_NE(child.output.find("lock order: " + line), std::string::npos) << child.output;
    EXPECT_FALSE(child.timedOut);
}

}  // namespace

TEST(LockOrderTest, allRanksOneUnderTheOther)
{
    std::vector<std::unique_ptr<Mutex>> locks;
    for (const NamedRank& row : ranks)
        locks.push_back(std::make_unique<Mutex>(row.rank));
    for (int round = 0; round < 2; ++round) {
        for (const auto& lock : locks)
            lock->lock();
        // The order of the releases is free.
        for (const auto& lock : locks)
            lock->unlock();
    }
}

TEST(LockOrderTest, everyPairTheWrongWayRoundEndsTheProcess)
{
    for (size_t first = 0; first < std::size(ranks); ++first) {
        for (size_t second = 0; second <= first; ++second) {
            const std::string line =
                std::string(ranks[second].name) + " is taken under " + ranks[first].name;
            SCOPED_TRACE(line);
            expectEnd(runChild("takesTwo",
                               {.arguments = {std::to_string(first), std::to_string(second)}}),
                      line);
        }
    }
}

TEST(LockOrderTest, takingALockAgainEndsTheProcess)
{
    expectEnd(runChild("takesOneTwice"), "provider is taken under provider");
}

TEST(LockOrderTest, aReleasedLockIsNoLongerInTheWay)
{
    Mutex registry(LockRank::registry);
    Mutex leaf(LockRank::leaf);
    for (Mutex* lock : {&leaf, &registry, &leaf, &registry})
        const std::lock_guard guard(*lock);
}

TEST(LockOrderTest, otherThreadsHaveAnOrderOfTheirOwn)
{
    Mutex registry(LockRank::registry);
    Mutex leaf(LockRank::leaf);
    const std::lock_guard guard(leaf);
    bool taken = false;
    std::thread([&] {
        const std::lock_guard other(registry);
        taken = true;
    }).join();
    EXPECT_TRUE(taken);
}

TEST(LockOrderTest, whoeverDoesNotWaitMayTakeALockOutOfOrder)
{
    Mutex severe(LockRank::severeLog);
    Mutex ordinary(LockRank::log);
    const std::lock_guard guard(severe);
    const std::unique_lock out(ordinary, std::try_to_lock);
    EXPECT_TRUE(out.owns_lock());
}

// What it got without waiting counts like any other lock.
TEST(LockOrderTest, aLockGotWithoutWaitingIsHeld)
{
    expectEnd(runChild("takesUnderOneThatItGotWithoutWaiting"), "log is taken under severe log");
}

TEST(LockOrderTest, aLockThatIsTakenIsNotGotWithoutWaiting)
{
    Mutex lock(LockRank::log);
    const std::lock_guard guard(lock);
    bool got = true;
    std::thread([&] { got = std::unique_lock(lock, std::try_to_lock).owns_lock(); }).join();
    EXPECT_FALSE(got);
}

TEST(LockOrderTest, onlyTheHoldingThreadReleases)
{
    const std::string line = "provider is released by a thread that has not taken it";
    expectEnd(runChild("releasesWhatAnotherThreadHolds"), line);
    expectEnd(runChild("releasesTwice"), line);
}

TEST(LockOrderTest, beginsAnewInCodeOutsideTheModule)
{
    Mutex leaf(LockRank::leaf);
    Mutex registry(LockRank::registry);
    const std::lock_guard outer(leaf);
    {
        const OutsideCode outside;
        const std::lock_guard inner(registry);
    }
    expectEnd(runChild("takesTwoInCodeOutside"), "registry is taken under provider");
    expectEnd(runChild("takesOneTwiceFromOutside"), "provider is taken under provider");
    expectEnd(runChild("takesTwoAfterCodeOutside"), "registry is taken under provider");
}

}  // namespace NV::test
