// The functions of the fake. They are free functions because CNG's are.

#include "fake_cng.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "nvvtoken/nvvtoken_name.h"
#include "text.h"

namespace NV::test {

FakeCng cng;

namespace {

constexpr auto notFound = static_cast<NTSTATUS>(0xC0000225);
constexpr auto collision = static_cast<NTSTATUS>(0xC0000035);

std::string text(const wchar_t* value)
{
    return value == nullptr ? "null" : tool::toUtf8(std::wstring_view(value));
}

std::string hex(ULONG value)
{
    char number[16];
    std::snprintf(number, sizeof number, "%lx", value);
    return number;
}

// Records the call. Returns whether it must fail, and with which status.
bool fails(const std::string& name, const std::string& arguments, NTSTATUS& status)
{
    cng.calls.push_back(name + " " + arguments);
    const auto answer = cng.answers.find(name);
    status = answer == cng.answers.end() ? 0 : answer->second;
    return status != 0;
}

std::string describe(const CRYPT_IMAGE_REG* image)
{
    if (image == nullptr)
        return "none";
    std::string result = text(image->pszImage);
    for (ULONG i = 0; i < image->cInterfaces; ++i) {
        const CRYPT_INTERFACE_REG& entry = *image->rgpInterfaces[i];
        result += " [" + hex(entry.dwInterface) + " flags " + hex(entry.dwFlags);
        for (ULONG j = 0; j < entry.cFunctions; ++j)
            result += " " + text(entry.rgpszFunctions[j]);
        result += "]";
    }
    return result;
}

std::string describeList(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function)
{
    return "table " + hex(table) + ", " + text(context) + ", " + hex(interfaceId) + ", " +
           text(function);
}

NTSTATUS WINAPI registerProvider(LPCWSTR provider, ULONG flags, PCRYPT_PROVIDER_REG reg)
{
    NTSTATUS status = 0;
    if (fails("register",
              text(provider) + ", flags " + hex(flags) + ", aliases " + hex(reg->cAliases) +
                  ", user " + describe(reg->pUM) + ", kernel " + describe(reg->pKM),
              status))
        return status;
    if (cng.present && (flags & CRYPT_OVERWRITE) == 0)
        return collision;
    const CRYPT_INTERFACE_REG& entry = *reg->pUM->rgpInterfaces[0];
    cng.present = true;
    cng.image = reg->pUM->pszImage;
    cng.interfaceId = entry.dwInterface;
    cng.interfaceFlags = entry.dwFlags;
    cng.function = entry.rgpszFunctions[0];
    return 0;
}

NTSTATUS WINAPI unregisterProvider(LPCWSTR provider)
{
    NTSTATUS status = 0;
    if (fails("unregister", text(provider), status))
        return status;
    if (!cng.present)
        return notFound;
    cng.present = false;
    return 0;
}

NTSTATUS WINAPI add(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                    LPCWSTR provider, ULONG position)
{
    NTSTATUS status = 0;
    if (fails("add",
              describeList(table, context, interfaceId, function) + ", " + text(provider) +
                  ", position " + hex(position),
              status))
        return status;
    cng.listed.emplace_back(provider);
    return 0;
}

NTSTATUS WINAPI remove(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                       LPCWSTR provider)
{
    NTSTATUS status = 0;
    if (fails("remove", describeList(table, context, interfaceId, function) + ", " + text(provider),
              status))
        return status;
    return std::erase(cng.listed, provider) == 0 ? notFound : 0;
}

// Like a buffer of CNG, this is one block of memory with all structures and texts.
struct RegistrationBuffer {
    CRYPT_PROVIDER_REG provider;  // first: its address is the buffer's
    CRYPT_IMAGE_REG image;
    CRYPT_INTERFACE_REG entry;
    PCRYPT_INTERFACE_REG entries[1];
    PWSTR functions[1];
    wchar_t imageName[64];
    wchar_t functionName[64];
};

struct ListBuffer {
    CRYPT_CONTEXT_FUNCTION_PROVIDERS providers;
    PWSTR names[8];
    wchar_t texts[8][64];
};

template <typename T>
T* newBuffer()
{
    ++cng.buffers;
    return static_cast<T*>(std::calloc(1, sizeof(T)));
}

VOID WINAPI freeBuffer(PVOID buffer)
{
    if (buffer != nullptr)
        --cng.buffers;
    std::free(buffer);
}

NTSTATUS WINAPI query(LPCWSTR provider, ULONG mode, ULONG interfaceId, ULONG* size,
                      PCRYPT_PROVIDER_REG* reg)
{
    NTSTATUS status = 0;
    if (fails("query", text(provider) + ", mode " + hex(mode) + ", " + hex(interfaceId), status))
        return status;
    if (!cng.present || interfaceId != cng.interfaceId)
        return notFound;
    auto* buffer = newBuffer<RegistrationBuffer>();
    cng.image.copy(buffer->imageName, 63);
    cng.function.copy(buffer->functionName, 63);
    buffer->functions[0] = buffer->functionName;
    buffer->entry = {cng.interfaceId, cng.interfaceFlags, 1, buffer->functions};
    buffer->entries[0] = &buffer->entry;
    buffer->image = {buffer->imageName, 1, buffer->entries};
    buffer->provider = {0, nullptr, &buffer->image, nullptr};
    *size = sizeof *buffer;
    *reg = &buffer->provider;
    return 0;
}

NTSTATUS WINAPI list(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, ULONG* size,
                     PCRYPT_CONTEXT_FUNCTION_PROVIDERS* providers)
{
    NTSTATUS status = 0;
    if (fails("list", describeList(table, context, interfaceId, function), status))
        return status;
    auto* buffer = newBuffer<ListBuffer>();
    for (size_t i = 0; i < cng.listed.size(); ++i) {
        cng.listed[i].copy(buffer->texts[i], 63);
        buffer->names[i] = buffer->texts[i];
    }
    buffer->providers = {static_cast<ULONG>(cng.listed.size()), buffer->names};
    *size = sizeof *buffer;
    *providers = &buffer->providers;
    return 0;
}

}  // namespace

std::vector<std::string> FakeCng::changes() const
{
    std::vector<std::string> result;
    std::ranges::copy_if(calls, std::back_inserter(result), [](const std::string& call) {
        return !call.starts_with("query ") && !call.starts_with("list ");
    });
    return result;
}

bool FakeCng::isListed() const
{
    return std::ranges::find(listed, providerName) != listed.end();
}

void FakeCng::setRegistered()
{
    present = true;
    listed.emplace_back(providerName);
}

tool::CngSystem fakeSystem()
{
    return {.registerProvider = registerProvider,
            .unregisterProvider = unregisterProvider,
            .addContextFunctionProvider = add,
            .removeContextFunctionProvider = remove,
            .queryProviderRegistration = query,
            .enumContextFunctionProviders = list,
            .freeBuffer = freeBuffer,
            .answersQueries = true,
            .elevated = true,
            .systemFolder = L"C:\\windows\\system32"};
}

}  // namespace NV::test
