// Opening and freeing providers.

#include <cstring>
#include <stdexcept>

#include "child.h"
#include "registry_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class Registry : public RegistryTest {
protected:
    static LogLines managerLines(const LogLines& lines)
    {
        return selected(lines, [](const LogLine& line) {
            return line.function.starts_with("NV::ProviderManager::");
        });
    }

    SECURITY_STATUS free(NCRYPT_PROV_HANDLE handle) { return module()->FreeProvider(handle); }
};

TEST_F(Registry, OpensAndFreesAProvider)
{
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(module()->OpenProvider(&handle, kProviderName, 0x40), ERROR_SUCCESS);
    EXPECT_NE(handle, 0u);
    LogLines lines = takeLines();
    EXPECT_EQ(render(lines.front()), "TRC NVKSPOpenProvider:ENTER");
    EXPECT_EQ(render(lines.back()), "TRC NVKSPOpenProvider:LEAVE");
    expectTrace(managerLines(lines), "dll/registry/nvvtoken_registry/opens_and_frees_a_provider");
    EXPECT_EQ(managerLines(lines).front().file, "nvvtoken_registry.cpp");
    EXPECT_EQ(use(handle), ERROR_SUCCESS);

    takeLines();
    EXPECT_EQ(free(handle), ERROR_SUCCESS);
    lines = takeLines();
    EXPECT_EQ(render(lines.front()), "TRC NVKSPFreeProvider:ENTER");
    EXPECT_EQ(render(lines.back()), "TRC NVKSPFreeProvider:LEAVE");
    expectTrace(managerLines(lines), "dll/registry/nvvtoken_registry/opens_and_frees_a_provider_2");
    // The object is destroyed behind the line.
    EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::~Provider:LEAVE"));
}

// The handle is what the log names as the provider's address.
TEST_F(Registry, TheHandleIsTheProvidersAddress)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    char expected[60];
    std::snprintf(expected, sizeof expected, "Success: Provider[%016llx] Allocated",
                  static_cast<unsigned long long>(handle));
    const LogLines lines = ofLevel(managerLines(takeLines()), "DBG");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_STRCASEEQ(lines.front().message.c_str(), expected);
    EXPECT_EQ(free(handle), ERROR_SUCCESS);
}

TEST_F(Registry, RefusesToOpenIntoNull)
{
    EXPECT_EQ(module()->OpenProvider(nullptr, kProviderName, 0), NTE_INVALID_PARAMETER);
    expectTrace(takeLines(), "dll/registry/nvvtoken_registry/refuses_to_open_into_null");
    EXPECT_TRUE(token_.calls().empty());
}

TEST_F(Registry, RefusesToOpenWithoutAName)
{
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(open(handle, nullptr), NTE_INVALID_PARAMETER);
    EXPECT_EQ(handle, 0u);
    expectTrace(managerLines(takeLines()),
                "dll/registry/nvvtoken_registry/refuses_to_open_without_a_name");
    EXPECT_TRUE(token_.calls().empty());
}

TEST_F(Registry, ReportsEveryWrongArgument)
{
    const std::wstring longName(200, L'n');
    EXPECT_EQ(module()->OpenProvider(nullptr, nullptr, 0), NTE_INVALID_PARAMETER);
    expectBlock(ofLevel(takeLines(), "ERR"), R"(
ERR NV::ProviderManager::OpenProvider:Invalid Argument[0]:phProvider is null
ERR NV::ProviderManager::OpenProvider:Invalid Argument[1]:pszProviderName is null)");
    EXPECT_EQ(module()->OpenProvider(nullptr, longName.c_str(), 0), NTE_INVALID_PARAMETER);
    expectBlock(ofLevel(takeLines(), "ERR"), R"(
ERR NV::ProviderManager::OpenProvider:Invalid Argument[0]:phProvider is null
ERR NV::ProviderManager::OpenProvider:Invalid Argument[1]:pszProviderName is too long)");
}

TEST_F(Registry, TakesANameOf127CharactersAndOfNone)
{
    for (const std::wstring& name : {std::wstring(127, L'n'), std::wstring()}) {
        NCRYPT_PROV_HANDLE handle = 0;
        EXPECT_EQ(open(handle, name.c_str()), ERROR_SUCCESS);
        EXPECT_TRUE(ofLevel(takeLines(), "ERR").empty());
        EXPECT_EQ(free(handle), ERROR_SUCCESS);
        takeLines();
    }
}

TEST_F(Registry, OpensWithATooLongNameAndStillReportsIt)
{
    const std::wstring name(128, L'n');
    NCRYPT_PROV_HANDLE handle = 0;
    EXPECT_EQ(open(handle, name.c_str()), NTE_INVALID_PARAMETER);
    ASSERT_NE(handle, 0u);
    expectBlock(managerLines(takeLines()),
                "TRC NV::ProviderManager::OpenProvider:ENTER\n"
                "TRC NV::ProviderManager::OpenProvider:ARG[0]:phProvider=PTR\n"
                "TRC NV::ProviderManager::OpenProvider:ARG[1]:pszProviderName=" +
                    std::string(128, 'n') +
                    "\n"
                    "TRC NV::ProviderManager::OpenProvider:ARG[2]:dwFlags=0x0\n"
                    "ERR NV::ProviderManager::OpenProvider:Invalid Argument[1]:pszProviderName is "
                    "too long\n"
                    "DBG NV::ProviderManager::OpenProvider:Success: Provider[PTR] Allocated\n"
                    "TRC NV::ProviderManager::OpenProvider:STATUS=0x80090027, ELAPSED:#(ms)\n"
                    "TRC NV::ProviderManager::OpenProvider:LEAVE");
    EXPECT_EQ(use(handle), ERROR_SUCCESS);
    EXPECT_EQ(free(handle), ERROR_SUCCESS);
}

TEST_F(Registry, RefusesToOpenOverAnOpenedHandle)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    const NCRYPT_PROV_HANDLE first = handle;
    takeLines();
    token_.clearCalls();
    EXPECT_EQ(open(handle), NTE_INVALID_PARAMETER);
    EXPECT_EQ(handle, first);
    expectTrace(managerLines(takeLines()),
                "dll/registry/nvvtoken_registry/refuses_to_open_over_an_opened_handle");
    EXPECT_TRUE(token_.calls().empty());
    EXPECT_EQ(use(first), ERROR_SUCCESS);
    EXPECT_EQ(free(first), ERROR_SUCCESS);
}

TEST_F(Registry, OpensIntoAVariableWithAnyOtherValueAndKnowsThatValueFromThenOn)
{
    NCRYPT_PROV_HANDLE handle = kStrangeHandle;
    EXPECT_THROW(use(kStrangeHandle), std::out_of_range);
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    EXPECT_NE(handle, kStrangeHandle);
    EXPECT_EQ(use(kStrangeHandle), NTE_INVALID_HANDLE);
    EXPECT_EQ(free(handle), ERROR_SUCCESS);
}

TEST_F(Registry, TwoProvidersAreIndependent)
{
    NCRYPT_PROV_HANDLE first = 0;
    NCRYPT_PROV_HANDLE second = 0;
    ASSERT_EQ(open(first), ERROR_SUCCESS);
    ASSERT_EQ(open(second), ERROR_SUCCESS);
    EXPECT_NE(first, second);

    BYTE value[] = {7, 3, 9, 1};
    EXPECT_EQ(module()->SetProviderProperty(first, L"Odd", value, sizeof value, 0), ERROR_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(module()->GetProviderProperty(first, L"Odd", nullptr, 0, &size, 0), ERROR_SUCCESS);
    EXPECT_EQ(size, sizeof value);
    EXPECT_EQ(module()->GetProviderProperty(second, L"Odd", nullptr, 0, &size, 0),
              NTE_NOT_SUPPORTED);

    EXPECT_EQ(free(first), ERROR_SUCCESS);
    EXPECT_EQ(use(second), ERROR_SUCCESS);
    EXPECT_EQ(free(second), ERROR_SUCCESS);
}

TEST_F(Registry, AFreedHandleIsForgottenUntilItIsFreedAgain)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    EXPECT_EQ(free(handle), ERROR_SUCCESS);
    EXPECT_THROW(use(handle), std::out_of_range);
    takeLines();
    EXPECT_EQ(free(handle), NTE_INVALID_HANDLE);
    expectTrace(
        takeLines(),
        "dll/registry/nvvtoken_registry/a_freed_handle_is_forgotten_until_it_is_freed_again");
    EXPECT_EQ(use(handle), NTE_INVALID_HANDLE);
    EXPECT_EQ(free(handle), NTE_INVALID_HANDLE);
}

TEST_F(Registry, RefusesToFreeTheNullHandle)
{
    EXPECT_EQ(free(0), NTE_INVALID_HANDLE);
    expectTrace(takeLines(), "dll/registry/nvvtoken_registry/refuses_to_free_the_null_handle");
}

// The module is unloaded, or the process ends, with providers open.

TEST_F(Registry, UnloadingDestroysTheProvidersThatAreStillOpen)
{
    NCRYPT_PROV_HANDLE handles[3] = {};
    for (NCRYPT_PROV_HANDLE& handle : handles)
        ASSERT_EQ(open(handle), ERROR_SUCCESS);
    EXPECT_EQ(free(handles[1]), ERROR_SUCCESS);
    takeLines();
    token_.clearCalls();
    unload();
    const LogLines lines = takeLines();
    EXPECT_EQ(render(lines.front()), "TRC DllMain:Received : DLL_PROCESS_DETACH");
    EXPECT_EQ(countLines(lines, "TRC NV::Provider::~Provider:ENTER"), 2u);
    EXPECT_EQ(countLines(lines, "TRC NV::Provider::~Provider:LEAVE"), 2u);
    EXPECT_EQ(token_.calls("C_Finalize").size(), 2u);
    EXPECT_TRUE(managerLines(lines).empty());
}

NV_TEST_CHILD(endsWithAnOpenProvider)
{
    // Not unloaded: the process's end is what is tested.
    static auto* const module = new ProviderModule;
    NCRYPT_PROV_HANDLE handle = 0;
    return (*module)->OpenProvider(&handle, kProviderName, 0) == ERROR_SUCCESS ? 73 : 1;
}

TEST_F(Registry, TheEndOfTheProcessDestroysTheProvidersThatAreStillOpen)
{
    const ChildResult result = runChild("endsWithAnOpenProvider");
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 73u) << result.output;
    const LogLines lines = profile_.log();
    EXPECT_TRUE(hasLine(lines, "TRC DllMain:Received : DLL_PROCESS_DETACH"));
    EXPECT_EQ(countLines(lines, "TRC NV::Provider::~Provider:LEAVE"), 1u);
}

}  // namespace

}  // namespace NV::test
