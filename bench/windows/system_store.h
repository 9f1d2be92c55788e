// The system's certificate store as the module sees it in this program: absent, or the user's own,
// with the time that is spent inside it. The program is linked with the four imports wrapped.

#pragma once

#include <chrono>

namespace NV::bench {

// Off (the default): the store does not open, and the publication of a certificate ends at once.
void setPublishing(bool on);

// Time spent inside the store's functions since the start.
std::chrono::nanoseconds timeInsideStore();

// While it exists, the current user's registry is an empty tree for this process, so that
// publishing does not change the user's own store, which Wine keeps there.
class EmptyUserRegistry {
public:
    EmptyUserRegistry();
    ~EmptyUserRegistry();
    EmptyUserRegistry(const EmptyUserRegistry&) = delete;
    EmptyUserRegistry& operator=(const EmptyUserRegistry&) = delete;
};

// False on systems that do not keep all stores in the registry.
bool runsUnderWine();

}  // namespace NV::bench
