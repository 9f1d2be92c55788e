// The list of session handles of more than 32 bits.

#include "sessions.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace NV::bridge {

namespace {

// No library that tests use has slots or sessions of its own from here on.
constexpr CK_SESSION_HANDLE firstNumber = 0xF0000000;

std::mutex listLock;
std::vector<native::CK_SESSION_HANDLE> longHandles;

}  // namespace

CK_SESSION_HANDLE shortSession(native::CK_SESSION_HANDLE session)
{
    if (session < firstNumber)
        return static_cast<CK_SESSION_HANDLE>(session);
    const std::lock_guard guard{listLock};
    const auto known = std::find(longHandles.begin(), longHandles.end(), session);
    const auto index = static_cast<CK_SESSION_HANDLE>(known - longHandles.begin());
    if (known == longHandles.end())
        longHandles.push_back(session);
    return firstNumber + index;
}

native::CK_SESSION_HANDLE longSession(CK_SESSION_HANDLE session)
{
    if (session < firstNumber)
        return session;
    const std::lock_guard guard{listLock};
    const size_t index = session - firstNumber;
    return index < longHandles.size() ? longHandles[index] : session;
}

}  // namespace NV::bridge
