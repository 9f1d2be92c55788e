// The handles that callers get: numbers of the router's own, each of which stands for an object of a
// provider.

#pragma once

#include "base/cng.h"

#include <memory>
#include <variant>

#include "providers.h"

namespace NV::router {

// Each object frees what the provider gave when its last owner goes: a handle, a call that is inside,
// or an object of the provider.
class OpenedProvider {
public:
    OpenedProvider(std::shared_ptr<ProviderDll> dll, NCRYPT_PROV_HANDLE inner)
        : dll_(std::move(dll)), inner_(inner)
    {
    }
    ~OpenedProvider() { dll()->FreeProvider(inner_); }
    OpenedProvider(const OpenedProvider&) = delete;
    OpenedProvider& operator=(const OpenedProvider&) = delete;

    const ProviderDll& dll() const { return *dll_; }
    const std::shared_ptr<ProviderDll>& sharedDll() const { return dll_; }
    NCRYPT_PROV_HANDLE inner() const { return inner_; }

private:
    std::shared_ptr<ProviderDll> dll_;
    NCRYPT_PROV_HANDLE inner_;
};

using ProviderPointer = std::shared_ptr<OpenedProvider>;

// A key or a secret.
class ProviderObject {
public:
    enum class Kind { key, secret };

    ProviderObject(Kind kind, ProviderPointer provider, ULONG_PTR inner)
        : kind_(kind), provider_(std::move(provider)), inner_(inner)
    {
    }
    ~ProviderObject() { free(); }
    ProviderObject(const ProviderObject&) = delete;
    ProviderObject& operator=(const ProviderObject&) = delete;

    // Frees it now. Returns the provider's status; ERROR_SUCCESS if it has been freed before.
    SECURITY_STATUS free();
    // The provider has freed it.
    void forget() { inner_ = 0; }

    Kind kind() const { return kind_; }
    const ProviderPointer& provider() const { return provider_; }
    const ProviderDll& dll() const { return provider_->dll(); }
    // The handle of the object's provider, and its own; the provider gave both.
    NCRYPT_PROV_HANDLE providerHandle() const { return provider_->inner(); }
    ULONG_PTR inner() const { return inner_; }

private:
    Kind kind_;
    ProviderPointer provider_;
    ULONG_PTR inner_;
};

using ObjectPointer = std::shared_ptr<ProviderObject>;

// A new handle.
NCRYPT_HANDLE addProvider(ProviderPointer provider);
NCRYPT_HANDLE addObject(ProviderObject::Kind kind, ProviderPointer provider, ULONG_PTR inner);

// What a handle stands for. Null if it is unknown or of another kind.
ProviderPointer findProvider(NCRYPT_HANDLE handle);
ObjectPointer findKey(NCRYPT_HANDLE handle);
ObjectPointer findSecret(NCRYPT_HANDLE handle);
// The provider of an object of any kind.
ProviderPointer findProviderOf(NCRYPT_HANDLE handle);

// Forgets the handle, and gives what it stood for; nothing if it is unknown.
std::variant<std::monostate, ProviderPointer, ObjectPointer> takeHandle(NCRYPT_HANDLE handle);

}  // namespace NV::router
