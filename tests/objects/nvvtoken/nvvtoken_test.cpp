// What a provider does with an empty PIN, which the dialog never gives: only a process without the
// dialog's module does.

#include "provider_fixture.h"

namespace NV::test {

namespace {

class EmptyPinTest : public ProviderTest {
protected:
    EmptyPinTest()
    {
        EXPECT_EQ(ERROR_SUCCESS, provider->OpenKey(&key, L"01AB", 0, 0));
        token.clearCalls();
        log.takeLines();
    }

    void expectNothingDone(const std::string& method)
    {
        EXPECT_TRUE(token.calls().empty());
        EXPECT_EQ(Bytes(256, 0xEE), output);
        EXPECT_EQ(0xEEU, length);
        const LogLines lines = log.takeLines();
        EXPECT_TRUE(hasLine(lines, "TRC NV::Provider::" + method +
                                       ":Success to retrive the entered pin = 0 (bytes)"));
        EXPECT_EQ("", messages(lines, "ERR"));
    }

    NCRYPT_KEY_HANDLE key = 0;
    Bytes input = someBytes(32);
    Bytes output = Bytes(256, 0xEE);
    DWORD length = 0xEE;
};

}  // namespace

TEST_F(EmptyPinTest, signHashSucceedsAndWritesNothing)
{
    EXPECT_EQ(ERROR_SUCCESS,
              provider->SignHash(key, nullptr, input.data(), 32, output.data(), 256, &length, 0));
    expectNothingDone("SignHash");
}

TEST_F(EmptyPinTest, decryptSucceedsAndWritesNothing)
{
    EXPECT_EQ(ERROR_SUCCESS,
              provider->Decrypt(key, input.data(), 32, nullptr, output.data(), 256, &length, 0x2));
    expectNothingDone("Decrypt");
}

}  // namespace NV::test
