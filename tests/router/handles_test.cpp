// The router itself: registered providers, and handles that are its own.

#include <filesystem>

#include "nvvtoken/nvvtoken_name.h"
#include "router_fixture.h"

namespace NV::test {

namespace {

constexpr const wchar_t* moduleFile = L"nvksprovider.dll";

class RouterHandles : public RouterTest {};

}  // namespace

TEST_P(RouterHandles, TheProgramsNcryptIsTheRouter)
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(GetModuleHandleW(L"ncrypt.dll"), path, MAX_PATH);
    EXPECT_EQ(std::filesystem::path(path).parent_path().filename(), L"router");
}

TEST_P(RouterHandles, RegisteredProvidersAreListed)
{
    registered.add(L"Another Provider", L"none.dll");
    DWORD count = 0;
    NCryptProviderName* list = nullptr;
    ASSERT_EQ(NCryptEnumStorageProviders(&count, &list, 0), ERROR_SUCCESS);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(list[0].pszName, providerName);
    EXPECT_STREQ(list[1].pszName, L"Another Provider");
    EXPECT_EQ(NCryptFreeBuffer(list), ERROR_SUCCESS);
    EXPECT_EQ(NCryptFreeBuffer(list), NTE_INVALID_PARAMETER);
}

TEST_P(RouterHandles, AProviderThatIsNotThereDoesNotOpen)
{
    registered.add(L"Gone", L"Z:\\none.dll");
    registered.add(L"Something Else", L"C:\\windows\\system32\\version.dll");
    NCRYPT_PROV_HANDLE handle = 52;
    EXPECT_EQ(NCryptOpenStorageProvider(&handle, L"Unknown", 0), NTE_PROV_DLL_NOT_FOUND);
    EXPECT_EQ(NCryptOpenStorageProvider(&handle, L"Gone", 0), NTE_PROV_DLL_NOT_FOUND);
    EXPECT_EQ(NCryptOpenStorageProvider(&handle, L"Something Else", 0), NTE_PROVIDER_DLL_FAIL);
    EXPECT_EQ(NCryptOpenStorageProvider(&handle, nullptr, 0), NTE_PROV_DLL_NOT_FOUND);
    EXPECT_EQ(NCryptOpenStorageProvider(nullptr, providerName, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(handle, 52u);
}

// Each function refuses a handle of another kind, and one that was freed.
TEST_P(RouterHandles, HandlesOfAnotherKindAreRefused)
{
    Handle key;
    ASSERT_NO_FATAL_FAILURE(openKey(key, L"01AB"));
    NCRYPT_KEY_HANDLE other = 0;
    DWORD length = 0;
    EXPECT_EQ(NCryptOpenKey(*key, &other, L"01AB", 0, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(NCryptIsAlgSupported(*key, L"RSA", 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(
        NCryptSignHash(*provider, &pkcs1, hash.data(), 32, nullptr, 0, &length, BCRYPT_PAD_PKCS1),
        NTE_INVALID_HANDLE);
    EXPECT_EQ(NCryptDeriveKey(*key, BCRYPT_KDF_HASH, nullptr, nullptr, 0, &length, 0),
              NTE_INVALID_HANDLE);
    EXPECT_TRUE(NCryptIsKeyHandle(*key));
    EXPECT_FALSE(NCryptIsKeyHandle(*provider));
    const NCRYPT_KEY_HANDLE freed = *key;
    key.free();
    EXPECT_FALSE(NCryptIsKeyHandle(freed));
    EXPECT_EQ(NCryptFreeObject(freed), NTE_INVALID_HANDLE);
    EXPECT_EQ(NCryptGetProperty(freed, NCRYPT_NAME_PROPERTY, nullptr, 0, &length, 0),
              NTE_INVALID_HANDLE);
    EXPECT_EQ(NCryptFreeObject(0), NTE_INVALID_HANDLE);
    EXPECT_TRUE(token.calls().empty());
}

TEST_P(RouterHandles, AKeyTellsItsProvider)
{
    Handle key;
    ASSERT_NO_FATAL_FAILURE(openKey(key, L"0256"));
    Handle told;
    DWORD length = 0;
    ASSERT_EQ(NCryptGetProperty(*key, NCRYPT_PROVIDER_HANDLE_PROPERTY,
                                reinterpret_cast<PBYTE>(told.out()), sizeof(NCRYPT_PROV_HANDLE),
                                &length, 0),
              ERROR_SUCCESS);
    EXPECT_EQ(length, sizeof(NCRYPT_PROV_HANDLE));
    EXPECT_NE(*told, *provider);
    EXPECT_EQ(property(*told, NCRYPT_NAME_PROPERTY).text(), providerName);
    BYTE small[7] = {};
    EXPECT_EQ(
        NCryptGetProperty(*key, NCRYPT_PROVIDER_HANDLE_PROPERTY, small, sizeof small, &length, 0),
        NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(NCryptSetProperty(*key, NCRYPT_PROVIDER_HANDLE_PROPERTY, small, sizeof small, 0),
              NTE_NOT_SUPPORTED);
}

TEST_P(RouterHandles, AKeyKeepsItsProviderOpen)
{
    Handle key;
    ASSERT_NO_FATAL_FAILURE(openKey(key, L"01AB"));
    provider.free();
    EXPECT_EQ(property(*key, NCRYPT_NAME_PROPERTY).text(), L"01AB");
    EXPECT_NE(GetModuleHandleW(moduleFile), nullptr);
    key.free();
    EXPECT_EQ(GetModuleHandleW(moduleFile), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Behaviours, RouterHandles,
                         testing::Values(Behaviour::classic, Behaviour::modern),
                         testing::PrintToStringParamName());

}  // namespace NV::test
