// The blocks that callers release by NCryptFreeBuffer: those of providers, and the router's own.

#pragma once

#include <memory>

#include "providers.h"

namespace NV::router {

// Notes that a provider gave the block. Null, and a block that is noted already, change nothing.
void noteBuffer(void* block, const std::shared_ptr<ProviderDll>& dll);

// A block of the router's own, for the caller.
void* newBuffer(size_t size);

// NTE_INVALID_PARAMETER for a block that is not noted.
SECURITY_STATUS freeBuffer(void* block);

}  // namespace NV::router
