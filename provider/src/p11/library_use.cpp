// Giving back what is held of a PKCS#11 library.

#include "p11/library_use.h"

#include <utility>

#include "base/scope_exit.h"

namespace NV {

namespace {

template <typename Entry, typename Value>
void callQuietly(Entry entry, Value value) noexcept
{
    if (entry != nullptr)
        quietly([&] { entry(value); });
}

}  // namespace

void LibraryUse::closed(CK_SESSION_HANDLE session)
{
    if (session_ != session)
        return;
    session_.reset();
    loggedIn_ = false;
}

void LibraryUse::giveBackLogin(const CK_FUNCTION_LIST& list) noexcept
{
    if (std::exchange(loggedIn_, false) && session_)
        callQuietly(list.C_Logout, *session_);
}

void LibraryUse::giveBackSession(const CK_FUNCTION_LIST& list) noexcept
{
    giveBackLogin(list);
    if (const auto session = std::exchange(session_, std::nullopt))
        callQuietly(list.C_CloseSession, *session);
}

void LibraryUse::giveBack(const CK_FUNCTION_LIST& list) noexcept
{
    giveBackSession(list);
    if (std::exchange(initialized_, false))
        callQuietly(list.C_Finalize, nullptr);
}

}  // namespace NV
