// A map from each block to the DLL that frees it; none for the router's own blocks.

#include "buffers.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <new>

#include "base/never_destroyed.h"

namespace NV::router {

namespace {

struct Buffers {
    std::mutex lock;
    std::map<void*, std::shared_ptr<ProviderDll>> owners;
};

Buffers& buffers()
{
    static NeverDestroyed<Buffers> all;
    return *all;
}

}  // namespace

void noteBuffer(void* block, const std::shared_ptr<ProviderDll>& dll)
{
    if (block == nullptr)
        return;
    const std::lock_guard guard(buffers().lock);
    buffers().owners.try_emplace(block, dll);
}

void* newBuffer(size_t size)
{
    void* block = std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    noteBuffer(block, nullptr);
    return block;
}

SECURITY_STATUS freeBuffer(void* block)
{
    std::shared_ptr<ProviderDll> owner;
    {
        const std::lock_guard guard(buffers().lock);
        const auto found = buffers().owners.find(block);
        if (found == buffers().owners.end())
            return NTE_INVALID_PARAMETER;
        owner = std::move(found->second);
        buffers().owners.erase(found);
    }
    if (owner != nullptr)
        return (*owner)->FreeBuffer(block);
    std::free(block);
    return ERROR_SUCCESS;
}

}  // namespace NV::router
