// CNG's registration functions, played: they keep what is registered as CNG does, note each call with
// its arguments, and answer a chosen status where a test wants a call to fail.

#pragma once

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

    // Answers of the calls by their short names ("register", "unregister", "add", "remove", "query",
    // "list"); a call that has one changes nothing.
    std::map<std::string, NTSTATUS> answers;
    // What the calls asked for, in their order.
    std::vector<std::string> calls;
    // Of them, those that change something.
    std::vector<std::string> changes() const;
    // Buffers given out and not yet freed.
    int buffers = 0;

    bool isListed() const;
    void setRegistered();
};

// The one that the functions below work on; a test makes it new.
extern FakeCng cng;

// An administrator on a system that answers, with the system's folder where a test wants it.
tool::CngSystem fakeSystem();

}  // namespace NV::test
