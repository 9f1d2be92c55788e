// The property: what it contains, and what copies share.

#include "keystore/property.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "base/secret.h"
#include "log_capture.h"

namespace NV::test {

namespace {

using Value = SecretBytes;

constexpr unsigned char threeBytes[] = {7, 0, 9};

class PropertyTest : public testing::Test {
protected:
    LogCapture log;
};

void waitForNextMillisecond()
{
    const uint32_t now = creationStamp();
    while (creationStamp() == now)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

TEST_F(PropertyTest, holdsNameTypeAndACopyOfTheBytes)
{
    Value source(std::begin(threeBytes), std::end(threeBytes));
    const Property property(L"Export Policy", 3, source.data(), 3);
    source.assign(3, 0xEE);
    EXPECT_EQ(L"Export Policy", property.name());
    EXPECT_EQ(3U, property.type());
    EXPECT_EQ((Value{7, 0, 9}), property.value());
}

TEST_F(PropertyTest, constructionWritesNothing)
{
    const Property property(L"Name", 0, threeBytes, 3);
    EXPECT_TRUE(log.takeLines().empty());
}

TEST_F(PropertyTest, copyLogsNameTypeAndSizeOfItsSource)
{
    const Property source(L"Key Usage", 5, threeBytes, 3);
    const Property copy(source);
    expectBlock(log.takeLines(), R"(
TRC NV::Property::Property:src._id = Key Usage
TRC NV::Property::Property:src._type = 5
TRC NV::Property::Property:src._data = 3 (bytes)
)");
    EXPECT_EQ(L"Key Usage", copy.name());
    EXPECT_EQ(5U, copy.type());
    EXPECT_EQ((Value{7, 0, 9}), copy.value());
}

TEST_F(PropertyTest, copySharesItsSourcesBuffer)
{
    const Property source(L"Name", 0, threeBytes, 3);
    const Property copy(source);
    EXPECT_EQ(&source.value(), &copy.value());
}

TEST_F(PropertyTest, copyTakesANewStamp)
{
    const Property source(L"Name", 0, threeBytes, 3);
    waitForNextMillisecond();
    const Property copy(source);
    EXPECT_NE(source.stamp(), copy.stamp());
}

TEST_F(PropertyTest, stampIsTheWallClockInMilliseconds)
{
    FILETIME before;
    FILETIME after;
    GetSystemTimeAsFileTime(&before);
    const Property property(L"Name", 0, threeBytes, 3);
    GetSystemTimeAsFileTime(&after);
    const auto ticks = [](const FILETIME& time) {
        return (uint64_t{time.dwHighDateTime} << 32) + time.dwLowDateTime;
    };
    // Milliseconds since the epoch of the clock in use: 1601 or 1970.
    constexpr uint64_t from1601To1970 = 11644473600000;
    const auto low = static_cast<uint32_t>(ticks(before) / 10000 - from1601To1970);
    const auto high = static_cast<uint32_t>(ticks(after) / 10000 - from1601To1970);
    EXPECT_LE(property.stamp() - low, high - low + 1);
}

TEST_F(PropertyTest, destructionOfACopyEmptiesTheSource)
{
    const Property source(L"Name", 0, threeBytes, 3);
    auto copy = std::make_unique<Property>(source);
    copy.reset();
    EXPECT_EQ(L"Name", source.name());
    EXPECT_TRUE(source.value().empty());
}

TEST_F(PropertyTest, destructionOfTheSourceEmptiesEveryCopy)
{
    auto source = std::make_unique<Property>(L"Name", 0, threeBytes, 3);
    const Property first(*source);
    const Property second(first);
    source.reset();
    EXPECT_TRUE(first.value().empty());
    EXPECT_TRUE(second.value().empty());
}

}  // namespace NV::test
