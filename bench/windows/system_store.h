// The system's certificate store as the module reaches it in this program: absent, or the user's own
// with the time that is spent inside it. The program is linked with the four imports wrapped.

#pragma once

#include <chrono>

namespace NV::bench {

// Off, as at the start: the store does not open, and a certificate's publication ends at once.
void setPublishing(bool on);

// Time spent inside the store's functions since the start.
std::chrono::nanoseconds timeInsideStore();

// While it lives, what this process takes for the current user's registry is an empty tree, so that
// publishing leaves the user's own store alone. Wine keeps its stores there.
class EmptyUserRegistry {
public:
    EmptyUserRegistry();
    ~EmptyUserRegistry();
    EmptyUserRegistry(const EmptyUserRegistry&) = delete;
    EmptyUserRegistry& operator=(const EmptyUserRegistry&) = delete;
};

// Elsewhere the stores are not all in the registry.
bool runsUnderWine();

}  // namespace NV::bench
