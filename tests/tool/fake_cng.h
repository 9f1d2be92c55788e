// A fake of CNG's registration functions. It stores registrations like CNG, records each call with its
// arguments, and returns a status of the test's choice for a call that must fail.

#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "system/registration.h"

namespace NV::test {

struct FakeCng {
    // What is registered.
    bool present = false;
    std::wstring image = L"nvksprovider.dll";
    ULONG interfaceId = NCRYPT_KEY_STORAGE_INTERFACE;
    ULONG interfaceFlags = CRYPT_LOCAL;
    std::wstring function = L"KEY_STORAGE";
    std::vector<std::wstring> listed = {L"Microsoft Software Key Storage Provider",
                                        L"Microsoft Smart Card Key Storage Provider"};

    // The statuses of calls, by their short names ("register", "unregister", "add", "remove", "query",
    // "list"). A call that is in the map changes nothing.
    std::map<std::string, NTSTATUS> answers;
    // The calls with their arguments, in order.
    std::vector<std::string> calls;
    // Only the calls that change something.
    std::vector<std::string> changes() const;
    // The number of buffers that were returned and not freed.
    int buffers = 0;

    bool isListed() const;
    void setRegistered();
};

// The fake behind fakeSystem(). Each test starts with a new one.
extern FakeCng cng;

// A system that can be queried, in a process with administrator rights. A test can change the result.
tool::CngSystem fakeSystem();

// A test on a new fake. Fails if the test leaves a buffer that was not freed.
class RegistrationTest : public testing::Test {
protected:
    void SetUp() override { cng = {}; }
    void TearDown() override { EXPECT_EQ(0, cng.buffers) << "buffers that were not freed"; }

    tool::CngSystem system_ = fakeSystem();
};

}  // namespace NV::test
