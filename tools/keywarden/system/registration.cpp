// Registration with CNG, in two steps that can each be undone.

#include "system/registration.h"

#include <array>
#include <memory>

#include "failure.h"
#include "nvvtoken/nvvtoken_name.h"
#include "system/explanation.h"
#include "text.h"

// Exported by bcrypt.dll; MinGW-w64 declares only the structures.
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
constexpr auto accessDenied = static_cast<NTSTATUS>(0xC0000022);
constexpr auto nameNotFound = static_cast<NTSTATUS>(0xC0000034);
constexpr auto nameCollision = static_cast<NTSTATUS>(0xC0000035);
constexpr auto notFound = static_cast<NTSTATUS>(0xC0000225);

constexpr const char* runAsAdministrator =
    "Open a terminal with \"Run as administrator\" and repeat the command.";
constexpr const char* statusAdvice = "Run \"keywarden status\" to see the current registration.";

bool isMissing(NTSTATUS status)
{
    return status == notFound || status == nameNotFound;
}

bool sameText(const wchar_t* left, const wchar_t* right)
{
    return left != nullptr && CompareStringOrdinal(left, -1, right, -1, TRUE) == CSTR_EQUAL;
}

// The structures for BCryptRegisterProvider. They contain pointers to each other, so the object is
// neither copied nor moved.
class OwnRegistration {
public:
    OwnRegistration() = default;
    ~OwnRegistration() = default;
    OwnRegistration(const OwnRegistration&) = delete;
    OwnRegistration& operator=(const OwnRegistration&) = delete;

    PCRYPT_PROVIDER_REG get() { return &provider_; }

private:
    // The structures of CNG have no const, but CNG only reads them here.
    std::wstring imageName_ = registeredImage;
    std::wstring functionName_ = NCRYPT_KEY_STORAGE_ALGORITHM;
    std::array<PWSTR, 1> functions_ = {functionName_.data()};
    CRYPT_INTERFACE_REG interface_ = {NCRYPT_KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1,
                                      functions_.data()};
    std::array<PCRYPT_INTERFACE_REG, 1> interfaces_ = {&interface_};
    CRYPT_IMAGE_REG image_ = {imageName_.data(), 1, interfaces_.data()};
    CRYPT_PROVIDER_REG provider_ = {0, nullptr, &image_, nullptr};
};

// Whether the registration is the same as that of OwnRegistration.
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

[[noreturn]] void queryRefused(const char* call, NTSTATUS status)
{
    throw Failure("CNG does not report what is registered: " + std::string(call) + " returned " +
                  statusText(status));
}

// Null when CNG knows no provider of the name.
CngBuffer<CRYPT_PROVIDER_REG> queryProvider(const CngSystem& system)
{
    ULONG size = 0;
    PCRYPT_PROVIDER_REG provider = nullptr;
    const NTSTATUS status = system.queryProviderRegistration(
        providerName, CRYPT_UM, NCRYPT_KEY_STORAGE_INTERFACE, &size, &provider);
    if (status != done && !isMissing(status))
        queryRefused("BCryptQueryProviderRegistration", status);
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
        queryRefused("BCryptEnumContextFunctionProviders", status);
    const CngBuffer<CRYPT_CONTEXT_FUNCTION_PROVIDERS> owner(providers, system.freeBuffer);
    for (ULONG i = 0; owner != nullptr && i < owner->cProviders; ++i) {
        if (sameText(owner->rgpszProviders[i], providerName))
            return true;
    }
    return false;
}

NTSTATUS addToList(const CngSystem& system)
{
    return system.addContextFunctionProvider(
        CRYPT_LOCAL, CRYPT_DEFAULT_CONTEXT, NCRYPT_KEY_STORAGE_INTERFACE,
        NCRYPT_KEY_STORAGE_ALGORITHM, providerName, CRYPT_PRIORITY_BOTTOM);
}

NTSTATUS removeFromList(const CngSystem& system)
{
    return system.removeContextFunctionProvider(CRYPT_LOCAL, CRYPT_DEFAULT_CONTEXT,
                                                NCRYPT_KEY_STORAGE_INTERFACE,
                                                NCRYPT_KEY_STORAGE_ALGORITHM, providerName);
}

void requireElevation(const CngSystem& system, const char* command)
{
    if (!system.elevated)
        throw Failure(std::string("only an administrator may ") + command +
                          " a provider, and this process does not have administrator rights",
                      runAsAdministrator);
}

// Throws the Failure for a refused call. `undone` is the status of the call that was to undo an
// earlier one, or success if there was none.
[[noreturn]] void refused(const char* call, NTSTATUS status, NTSTATUS undone)
{
    std::string reason = "CNG refused: " + std::string(call) + " returned " + statusText(status);
    std::string advice = status == accessDenied ? runAsAdministrator : "";
    if (undone != done) {
        reason += "; the previous step could not be undone: " + statusText(undone);
        advice = "Run \"keywarden status\" to see what is left.";
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
    // If the second step fails, an existing registration of the same name is restored.
    const CngBuffer<CRYPT_PROVIDER_REG> earlier =
        before.present ? queryProvider(system)
                       : CngBuffer<CRYPT_PROVIDER_REG>(nullptr, system.freeBuffer);
    bool written = false;
    if (!before.asWritten) {
        OwnRegistration own;
        const NTSTATUS status =
            system.registerProvider(providerName, before.present ? CRYPT_OVERWRITE : 0, own.get());
        // If CNG cannot be queried, it reports only here that the provider already exists.
        if (status != done && status != nameCollision)
            refused("BCryptRegisterProvider", status, done);
        written = status == done;
    }
    if (!before.listed) {
        const NTSTATUS status = addToList(system);
        if (status != done && status != nameCollision) {
            NTSTATUS undone = done;
            if (written)
                undone = earlier
                             ? system.registerProvider(providerName, CRYPT_OVERWRITE, earlier.get())
                             : system.unregisterProvider(providerName);
            refused("BCryptAddContextFunctionProvider", status, undone);
        }
    }
    if (!before.known)
        return Change::unconfirmed;
    if (!readRegistration(system).complete())
        throw Failure("CNG accepted the registration, but does not report it", statusAdvice);
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
        const NTSTATUS status = system.unregisterProvider(providerName);
        if (status != done && !isMissing(status))
            refused("BCryptUnregisterProvider", status, removed ? addToList(system) : done);
        removed = removed || status == done;
    }
    if (!before.known)
        return removed ? Change::unconfirmed : Change::none;
    if (!readRegistration(system).absent())
        throw Failure("CNG accepted the calls, but still reports the registration", statusAdvice);
    return Change::made;
}

}  // namespace NV::tool
