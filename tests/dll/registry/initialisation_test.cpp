// Providers whose PKCS#11 library does not start, and the process that can still open one
// later.

#include <filesystem>
#include <string>
#include <vector>

#include "registry_fixture.h"
#include "trace_file.h"

namespace NV::test {

namespace {

class Initialisation : public RegistryTest {
protected:
    void expectFailure(const std::string& initLines = "failed_load")
    {
        NCRYPT_PROV_HANDLE handle = 0;
        EXPECT_EQ(open(handle), NTE_INTERNAL_ERROR);
        EXPECT_EQ(handle, 0u);
        lines_ = takeLines();
        expectTrace(ofFunction(lines_, "NV::ProviderManager::OpenProvider"),
                    "dll/registry/initialisation/failed_opening");
        expectTrace(ofFunction(lines_, "NV::Provider::init"),
                    "dll/registry/initialisation/" + initLines);
        // Neither registered nor destroyed.
        EXPECT_FALSE(hasLine(lines_, "TRC NV::Provider::~Provider:ENTER"));
        EXPECT_EQ(use(0), NTE_INVALID_HANDLE);
        takeLines();
    }

    void expectSuccess()
    {
        NCRYPT_PROV_HANDLE handle = 0;
        ASSERT_EQ(open(handle), ERROR_SUCCESS);
        EXPECT_EQ(use(handle), ERROR_SUCCESS);
        EXPECT_EQ(module()->FreeProvider(handle), ERROR_SUCCESS);
    }

    // A file for the configured library that the test writes and replaces.
    std::filesystem::path library() const { return libraries_.path() / L"library.dll"; }

    LogLines lines_;  // of the failed opening

private:
    TemporaryFolder libraries_;
};

TEST_F(Initialisation, FailsWithoutAConfiguredLibrary)
{
    profile_.writeConfig("logLevel=TRACE\nlogTypes=FILE\n"
                         "logStore=~\\.norvanta-keywarden\\logs\nlogRotate=7\n");
    expectFailure();
    EXPECT_TRUE(hasLine(lines_, "ERR NV::P11Module::load:FAILURE: the name module is empty"));
    expectFailure();
}

TEST_F(Initialisation, FailsWithAMissingLibraryAndWorksWhenItIsThere)
{
    profile_.writeConfigFor(library());
    expectFailure();
    EXPECT_TRUE(hasLine(lines_, "ERR NV::P11Module::load:FAILURE: " + narrowPath(library()) +
                                    " file does not exist"));
    std::filesystem::copy_file(ScriptedToken::widePath(), library());
    expectSuccess();
}

TEST_F(Initialisation, FailsWithAFileThatIsNoLibraryAndWorksWhenItIsReplaced)
{
    writeFile(library(), "no library");
    profile_.writeConfigFor(library());
    expectFailure();
    EXPECT_TRUE(hasLine(lines_, "ERR NV::P11Module::load:FAILURE: Module [" +
                                    narrowPath(library()) + "] cannot be loaded"));
    std::filesystem::copy_file(ScriptedToken::widePath(), library(),
                               std::filesystem::copy_options::overwrite_existing);
    expectSuccess();
}

TEST_F(Initialisation, FailsWithALibraryThatIsNotPkcs11)
{
    profile_.writeConfigFor(widePathBesideTest(L"not_pkcs11.dll"));
    expectFailure();
    EXPECT_TRUE(hasLine(lines_, "ERR NV::P11Module::load:FAILURE: Failed to get location of "
                                "C_GetFunctionList()"));
    expectFailure();
}

TEST_F(Initialisation, FailsWhenTheTokenDoesNotInitialiseAndWorksWhenItDoes)
{
    // The first call belongs to the discovery of the slots.
    token_.fail("C_Initialize", CKR_DEVICE_ERROR, 2);
    expectFailure("failed_initialise");
    expectSuccess();
}

TEST_F(Initialisation, FailsWhenTheTokenThrowsAndWorksWhenItDoesNot)
{
    token_.throwFrom("C_GetFunctionList", 1);
    expectFailure();
    EXPECT_TRUE(hasLine(lines_, "ERR NV::P11Module::load:Caught Exception."));
    expectSuccess();
}

TEST_F(Initialisation, FailsWhenTheDiscoveryCannotInitialiseTheToken)
{
    token_.fail("C_Initialize", CKR_DEVICE_ERROR, 1);
    expectFailure();
    EXPECT_EQ(token_.callNames(),
              (std::vector<std::string>{"C_GetFunctionList", "C_Finalize", "C_Initialize"}));
    expectSuccess();
}

// Opening takes only zero for success, where the discovery before it and every later operation
// also take a library that is in use.
TEST_F(Initialisation, FailsWhenTheTokenIsAlreadyInitialised)
{
    token_.fail("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED, 2);
    expectFailure("failed_initialise");
    expectSuccess();
}

// A failed provider stays where it is, but the registry goes on.
TEST_F(Initialisation, FailuresDoNotDisturbAnOpenProvider)
{
    NCRYPT_PROV_HANDLE handle = 0;
    ASSERT_EQ(open(handle), ERROR_SUCCESS);
    takeLines();
    token_.fail("C_Initialize", CKR_DEVICE_ERROR, 2);
    expectFailure("failed_initialise");
    EXPECT_EQ(use(handle), ERROR_SUCCESS);
    EXPECT_EQ(module()->FreeProvider(handle), ERROR_SUCCESS);
    expectSuccess();
}

}  // namespace

}  // namespace NV::test
