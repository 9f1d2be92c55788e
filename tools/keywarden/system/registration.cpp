// Registering with CNG, in two steps each of which can be taken back.

#include "system/registration.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>

#include "failure.h"
#include "text.h"

// Exported by bcrypt.dll; MinGW-w64 declares the structures alone.
extern "C" {
NTSTATUS WINAPI BCryptRegisterProvider(LPCWSTR pszProvider, ULONG dwFlags,
                                       PCRYPT_PROVIDER_REG pReg);
NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR pszProvider);
NTSTATUS WINAPI BCryptAddContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext,
                                                 ULONG dwInterface, LPCWSTR pszFunction,
                                                 LPCWSTR pszProvider, ULONG dwPosition);
NTSTATUS WINAPI BCryptRemoveContextFunctionProvider(ULONG dwTable, LPCWSTR pszContext,
                                                    ULONG dwInterface, LPCWSTR pszFunction,
                                                    LPCWSTR pszProvider);
}

namespace NV::tool {

namespace {

constexpr auto done = static_cast<NTSTATUS>(0);
constexpr auto notImplemented = static_cast<NTSTATUS>(0xC0000002);
constexpr auto accessDenied = static_cast<NTSTATUS>(0xC0000022);
constexpr auto nameNotFound = static_cast<NTSTATUS>(0xC0000034);
constexpr auto nameCollision = static_cast<NTSTATUS>(0xC0000035);
constexpr auto notFound = static_cast<NTSTATUS>(0xC0000225);

struct NtStatusName {
    NTSTATUS status;
    const char* name;
};

constexpr std::array<NtStatusName, 5> ntStatusNames = {{
    {notImplemented, "STATUS_NOT_IMPLEMENTED"},
    {accessDenied, "STATUS_ACCESS_DENIED"},
    {nameNotFound, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {nameCollision, "STATUS_OBJECT_NAME_COLLISION"},
    {notFound, "STATUS_NOT_FOUND"},
}};

std::string nameOf(NTSTATUS status)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(status));
    const auto* row = std::ranges::find(ntStatusNames, status, &NtStatusName::status);
    return row == ntStatusNames.end() ? number : std::string(row->name) + " (" + number + ")";
}

bool isMissing(NTSTATUS status)
{
    return status == notFound || status == nameNotFound;
}

bool sameText(const wchar_t* left, const wchar_t* right)
{
    return left != nullptr && CompareStringOrdinal(left, -1, right, -1, TRUE) == CSTR_EQUAL;
}

// The structures that BCryptRegisterProvider takes. They point at each other, so they stay in place.
class OwnRegistration {
public:
    OwnRegistration() = default;
    ~OwnRegistration() = default;
    OwnRegistration(const OwnRegistration&) = delete;
    OwnRegistration& operator=(const OwnRegistration&) = delete;

    PCRYPT_PROVIDER_REG get() { return &provider_; }

private:
    // CNG's structures have no const; it only reads what it is given here.
    std::wstring imageName_ = registeredImage;
    std::wstring functionName_ = NCRYPT_KEY_STORAGE_ALGORITHM;
    std::array<PWSTR, 1> functions_ = {functionName_.data()};
    CRYPT_INTERFACE_REG interface_ = {NCRYPT_KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1,
                                      functions_.data()};
    std::array<PCRYPT_INTERFACE_REG, 1> interfaces_ = {&interface_};
    CRYPT_IMAGE_REG image_ = {imageName_.data(), 1, interfaces_.data()};
    CRYPT_PROVIDER_REG provider_ = {0, nullptr, &image_, nullptr};
};

// Whether the registration is the one of the class above.
bool isOwn(const CRYPT_PROVIDER_REG& provider)
{
    const CRYPT_IMAGE_REG* image = provider.pUM;
    if (image == nullptr || !sameText(image->pszImage, registeredImage) || image->cInterfaces != 1)
        return false;
    const CRYPT_INTERFACE_REG& interface0 = *image->rgpInterfaces[0];
    return interface0.dwInterface == NCRYPT_KEY_STORAGE_INTERFACE &&
           interface0.dwFlags == CRYPT_LOCAL && interface0.cFunctions == 1 &&
           sameText(interface0.rgpszFunctions[0], NCRYPT_KEY_STORAGE_ALGORITHM);
}

template <typename T>
using CngBuffer = std::unique_ptr<T, VOID(WINAPI*)(PVOID)>;

[[noreturn]] void refuseToTell(const char* call, NTSTATUS status)
{
    throw Failure("CNG does not tell what is registered: " + std::string(call) + " answers " +
                  nameOf(status));
}

// Null when CNG knows no provider of the name.
CngBuffer<CRYPT_PROVIDER_REG> queryProvider(const CngSystem& system)
{
    ULONG size = 0;
    PCRYPT_PROVIDER_REG provider = nullptr;
    const NTSTATUS status = system.queryProviderRegistration(
        registeredProvider, CRYPT_UM, NCRYPT_KEY_STORAGE_INTERFACE, &size, &provider);
    if (status != done && !isMissing(status))
        refuseToTell("BCryptQueryProviderRegistration", status);
    return {status == done ? provider : nullptr, system.freeBuffer};
}

bool isListed(const CngSystem& system)
{
    ULONG size = 0;
    PCRYPT_CONTEXT_FUNCTION_PROVIDERS providers = nullptr;
    const NTSTATUS status = system.enumContextFunctionProviders(
        CRYPT_LOCAL, CRYPT_DEFAULT_CONTEXT, NCRYPT_KEY_STORAGE_INTERFACE,
        NCRYPT_KEY_STORAGE_ALGORITHM, &size, &providers);
    if (isMissing(status))
        return false;
    if (status != done)
        refuseToTell("BCryptEnumContextFunctionProviders", status);
    const CngBuffer<CRYPT_CONTEXT_FUNCTION_PROVIDERS> owner(providers, system.freeBuffer);
    for (ULONG i = 0; owner != nullptr && i < owner->cProviders; ++i) {
        if (sameText(owner->rgpszProviders[i], registeredProvider))
            return true;
    }
    return false;
}

NTSTATUS addToList(const CngSystem& system)
{
    return system.addContextFunctionProvider(
        CRYPT_LOCAL, CRYPT_DEFAULT_CONTEXT, NCRYPT_KEY_STORAGE_INTERFACE,
        NCRYPT_KEY_STORAGE_ALGORITHM, registeredProvider, CRYPT_PRIORITY_BOTTOM);
}

NTSTATUS removeFromList(const CngSystem& system)
{
    return system.removeContextFunctionProvider(CRYPT_LOCAL, CRYPT_DEFAULT_CONTEXT,
                                                NCRYPT_KEY_STORAGE_INTERFACE,
                                                NCRYPT_KEY_STORAGE_ALGORITHM, registeredProvider);
}

void requireElevation(const CngSystem& system, const char* command)
{
    if (!system.elevated)
        throw Failure(std::string("only an administrator may ") + command +
                          " a provider, and this process has no administrator's rights",
                      "Open a terminal by \"Run as administrator\" and repeat the command.");
}

// Throws the Failure of a refused call; undone is the answer of the call that put an earlier one
// back, if there was one.
[[noreturn]] void refused(const char* call, NTSTATUS status, NTSTATUS undone)
{
    std::string reason = "CNG refuses: " + std::string(call) + " answers " + nameOf(status);
    std::string advice = status == accessDenied
                             ? "Open a terminal by \"Run as administrator\" and repeat the command."
                             : "";
    if (undone != done) {
        reason += "; and the step before it cannot be taken back: " + nameOf(undone);
        advice = "\"keywarden status\" shows what is left.";
    }
    throw Failure(reason, advice);
}

}  // namespace

CngSystem thisSystem()
{
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) != 0) {
        GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size);
        CloseHandle(token);
    }
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size())));
    const bool isWine =
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    return {.registerProvider = BCryptRegisterProvider,
            .unregisterProvider = BCryptUnregisterProvider,
            .addContextFunctionProvider = BCryptAddContextFunctionProvider,
            .removeContextFunctionProvider = BCryptRemoveContextFunctionProvider,
            .queryProviderRegistration = BCryptQueryProviderRegistration,
            .enumContextFunctionProviders = BCryptEnumContextFunctionProviders,
            .freeBuffer = BCryptFreeBuffer,
            .answersQueries = !isWine,
            .elevated = elevation.TokenIsElevated != 0,
            .systemFolder = folder};
}

Registration readRegistration(const CngSystem& system)
{
    Registration now;
    if (!system.answersQueries)
        return now;
    now.known = true;
    if (const auto provider = queryProvider(system)) {
        now.present = true;
        now.asWritten = isOwn(*provider);
        if (provider->pUM != nullptr && provider->pUM->pszImage != nullptr) {
            now.image = provider->pUM->pszImage;
            now.file = system.systemFolder / now.image;
        }
    }
    now.listed = isListed(system);
    return now;
}

Change registerModule(const CngSystem& system)
{
    requireElevation(system, "register");
    const Registration before = readRegistration(system);
    if (before.complete())
        return Change::none;
    // Another registration of the name is put back when the second step fails.
    const CngBuffer<CRYPT_PROVIDER_REG> earlier =
        before.present ? queryProvider(system)
                       : CngBuffer<CRYPT_PROVIDER_REG>(nullptr, system.freeBuffer);
    bool written = false;
    if (!before.asWritten) {
        OwnRegistration own;
        const NTSTATUS status = system.registerProvider(
            registeredProvider, before.present ? CRYPT_OVERWRITE : 0, own.get());
        // Where CNG cannot be asked beforehand, it says only now that the provider is there.
        if (status != done && status != nameCollision)
            refused("BCryptRegisterProvider", status, done);
        written = status == done;
    }
    if (!before.listed) {
        const NTSTATUS status = addToList(system);
        if (status != done && status != nameCollision) {
            NTSTATUS undone = done;
            if (written)
                undone = earlier ? system.registerProvider(registeredProvider, CRYPT_OVERWRITE,
                                                           earlier.get())
                                 : system.unregisterProvider(registeredProvider);
            refused("BCryptAddContextFunctionProvider", status, undone);
        }
    }
    if (!before.known)
        return Change::unconfirmed;
    if (!readRegistration(system).complete())
        throw Failure("CNG took the registration, but does not show it",
                      "\"keywarden status\" shows what it has.");
    return Change::made;
}

Change unregisterModule(const CngSystem& system)
{
    requireElevation(system, "unregister");
    const Registration before = readRegistration(system);
    if (before.known && before.absent())
        return Change::none;
    bool removed = false;
    if (!before.known || before.listed) {
        const NTSTATUS status = removeFromList(system);
        if (status != done && !isMissing(status))
            refused("BCryptRemoveContextFunctionProvider", status, done);
        removed = status == done;
    }
    if (!before.known || before.present) {
        const NTSTATUS status = system.unregisterProvider(registeredProvider);
        if (status != done && !isMissing(status))
            refused("BCryptUnregisterProvider", status, removed ? addToList(system) : done);
        removed = removed || status == done;
    }
    if (!before.known)
        return removed ? Change::unconfirmed : Change::none;
    if (!readRegistration(system).absent())
        throw Failure("CNG took the calls, but still shows the registration",
                      "\"keywarden status\" shows what it has.");
    return Change::made;
}

}  // namespace NV::tool
