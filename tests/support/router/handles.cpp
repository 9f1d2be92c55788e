// One map of all handles, under one lock. No provider is called under it.

#include "handles.h"

#include <map>
#include <mutex>
#include <utility>

#include "base/never_destroyed.h"

namespace NV::router {

namespace {

using Target = std::variant<std::monostate, ProviderPointer, ObjectPointer>;

// What programs leave open is left open: at the end of the process nobody may call the providers.
struct Handles {
    std::mutex lock;
    std::map<NCRYPT_HANDLE, Target> targets;
    // Neither an address nor a small number, so that a provider's handle and a count are no handles.
    NCRYPT_HANDLE next = 0x4B570000'00000101;
};

Handles& handles()
{
    static NeverDestroyed<Handles> all;
    return *all;
}

NCRYPT_HANDLE add(Target target)
{
    const std::lock_guard guard(handles().lock);
    const NCRYPT_HANDLE handle = handles().next;
    handles().next += 0x101;
    handles().targets.emplace(handle, std::move(target));
    return handle;
}

Target find(NCRYPT_HANDLE handle)
{
    const std::lock_guard guard(handles().lock);
    const auto found = handles().targets.find(handle);
    return found != handles().targets.end() ? found->second : Target();
}

template <typename Pointer>
Pointer findAs(NCRYPT_HANDLE handle)
{
    const Target target = find(handle);
    const auto* pointer = std::get_if<Pointer>(&target);
    return pointer != nullptr ? *pointer : nullptr;
}

ObjectPointer findKind(NCRYPT_HANDLE handle, ProviderObject::Kind kind)
{
    ObjectPointer object = findAs<ObjectPointer>(handle);
    return object != nullptr && object->kind() == kind ? object : nullptr;
}

}  // namespace

SECURITY_STATUS ProviderObject::free()
{
    const ULONG_PTR inner = std::exchange(inner_, 0);
    if (inner == 0)
        return ERROR_SUCCESS;
    return kind_ == Kind::key ? dll()->FreeKey(providerHandle(), inner)
                              : dll()->FreeSecret(providerHandle(), inner);
}

NCRYPT_HANDLE addProvider(ProviderPointer provider)
{
    return add(std::move(provider));
}

NCRYPT_HANDLE addObject(ProviderObject::Kind kind, ProviderPointer provider, ULONG_PTR inner)
{
    return add(std::make_shared<ProviderObject>(kind, std::move(provider), inner));
}

ProviderPointer findProvider(NCRYPT_HANDLE handle)
{
    return findAs<ProviderPointer>(handle);
}

ObjectPointer findKey(NCRYPT_HANDLE handle)
{
    return findKind(handle, ProviderObject::Kind::key);
}

ObjectPointer findSecret(NCRYPT_HANDLE handle)
{
    return findKind(handle, ProviderObject::Kind::secret);
}

ProviderPointer findProviderOf(NCRYPT_HANDLE handle)
{
    const ObjectPointer object = findAs<ObjectPointer>(handle);
    return object != nullptr ? object->provider() : findProvider(handle);
}

std::variant<std::monostate, ProviderPointer, ObjectPointer> takeHandle(NCRYPT_HANDLE handle)
{
    const std::lock_guard guard(handles().lock);
    auto node = handles().targets.extract(handle);
    return node.empty() ? Target() : std::move(node.mapped());
}

}  // namespace NV::router
