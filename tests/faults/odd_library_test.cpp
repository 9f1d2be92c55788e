// Libraries that are built or that fail in odd ways: a function list that cannot be written, a start
// that throws after it has begun, a key whose length nobody knows.

#include <gtest/gtest.h>

#include <filesystem>

#include "folder.h"
#include "log_off.h"
#include "provider_world.h"

namespace NV::test {

namespace {

Bytes certificate(const char* name)
{
    const std::string der = readFile(std::filesystem::path(CERTIFICATES) / name);
    return {der.begin(), der.end()};
}

class OddLibraryTest : public testing::Test {
protected:
    LogOff logOff;
    ProviderWorld world;
};

// The names of calls that came by way of the list's own functions begin with "list:".
bool throughOwnFunctions(const std::vector<std::string>& names)
{
    return std::ranges::any_of(names,
                               [](const std::string& name) { return name.starts_with("list:"); });
}

}  // namespace

TEST_F(OddLibraryTest, aFunctionListInReadOnlyMemoryIsRepairedAndProtectedAgain)
{
    world.token.setListMode(ListMode::allDifferent);
    world.token.setListReadOnly(true);
    world.token.clearCalls();
    world.open();
    EXPECT_EQ("", world.nextOperations());
    EXPECT_FALSE(throughOwnFunctions(world.token.callNames()));
    EXPECT_TRUE(world.token.listReadOnly());
}

TEST_F(OddLibraryTest, aFunctionListThatNeedsNoRepairIsNotTouched)
{
    world.token.setListReadOnly(true);
    world.open();
    EXPECT_EQ("", world.nextOperations());
    EXPECT_TRUE(world.token.listReadOnly());
}

TEST_F(OddLibraryTest, aWritableFunctionListStaysWritable)
{
    world.token.setListMode(ListMode::allDifferent);
    world.open();
    EXPECT_EQ("", world.nextOperations());
    EXPECT_FALSE(world.token.listReadOnly());
}

TEST_F(OddLibraryTest, aFirstInitializeThatThrowsAfterItsWorkIsFinalized)
{
    world.token.throwAfterWork("C_Initialize", 1);
    world.token.clearCalls();
    {
        Provider provider;
        EXPECT_FALSE(provider.init());
        EXPECT_EQ("", world.leftOnToken());
        EXPECT_EQ("C_Finalize", world.token.callNames().back());
    }
    world.open();
    EXPECT_EQ("", world.nextOperations());
}

// An operation cannot tell such a call from one that did nothing. It fails, the next one works in the
// initialised library, and the provider ends it with itself.
TEST_F(OddLibraryTest, aLaterInitializeThatThrowsAfterItsWorkEndsWithTheProvider)
{
    world.open();
    world.prepare();
    world.token.throwAfterWork("C_Initialize", 1);
    EXPECT_EQ(SECURITY_STATUS{NTE_INTERNAL_ERROR},
              world.provider->VerifySignature(world.ec, nullptr, world.hash.data(), 32,
                                              world.ecSignature.data(), 64, 0));
    EXPECT_EQ("", world.nextOperations());
    world.provider.reset();
    EXPECT_EQ("", world.leftOnToken());
}

class UnknownCurveTest : public OddLibraryTest, public testing::WithParamInterface<const char*> {
protected:
    // The certificate's curve is none that is known; the token signs with the key of that name.
    UnknownCurveTest()
    {
        const Bytes id = {0x25, 0x6B};
        world.token.addCertificate(id, certificate(GetParam()));
        world.token.addEcKeyPair(id, 32);
        world.open();
        EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, world.provider->OpenKey(&key, L"256B", 0, 0));
        world.prepare();
    }

    SECURITY_STATUS sign(BYTE* buffer, DWORD room)
    {
        return world.provider->SignHash(key, nullptr, world.hash.data(), 32, buffer, room,
                                        &world.out.length, 0);
    }

    NCRYPT_KEY_HANDLE key = 0;
};

TEST_P(UnknownCurveTest, aSignatureHasTheLengthThatTheTokenGives)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, sign(world.out.buffer.data(), ProviderWorld::room));
    EXPECT_EQ(64U, world.out.length);
    EXPECT_TRUE(world.out.buffer.holdsExactly(world.ecSignature));
    EXPECT_EQ("", world.leftOnToken());
}

// The length of the token's answer is limited to the buffer, as for any key.
TEST_P(UnknownCurveTest, aLengthThatIsTooLargeIsTheBuffers)
{
    world.token.claim("C_Sign", 0xFFFFFFF0, 1);
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, sign(world.out.buffer.data(), ProviderWorld::room));
    EXPECT_EQ(ProviderWorld::room, world.out.length);
}

// Twice the size of a coordinate of the public point.
TEST_P(UnknownCurveTest, aQueryGivesTheLengthOfThePoint)
{
    EXPECT_EQ(SECURITY_STATUS{ERROR_SUCCESS}, sign(nullptr, 0));
    EXPECT_EQ(std::string(GetParam()) == "explicit256.der" ? 64U : 80U, world.out.length);
}

INSTANTIATE_TEST_SUITE_P(
    Curves, UnknownCurveTest, testing::Values("brainpoolP320r1.der", "explicit256.der"),
    [](const auto& name) {
        return std::string(name.param).substr(0, std::string(name.param).find('.'));
    });

}  // namespace NV::test
