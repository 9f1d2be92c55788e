// No copy of a property's value is left in what the module owns when the property is gone: callers
// store PINs under "SmartCardPin".

#include <array>

#include "wiping_fixture.h"

namespace NV::test {

namespace {

// Not const, as CNG's callbacks take them.
using Value = std::array<unsigned char, 12>;
Value firstValue = {0x37, 0x9E, 0x1F, 0xD2, 0x5B, 0x84, 0xC6, 0x0A, 0xF1, 0x63, 0x2D, 0xB8};
Value secondValue = {0xE5, 0x1A, 0x94, 0x6C, 0xB3, 0x07, 0xDA, 0x48, 0x2F, 0x91, 0x5D, 0xC0};

class PropertyWiping : public WatchedTest {
protected:
    PropertyWiping()
    {
        lookForBytes("first value", firstValue);
        lookForBytes("second value", secondValue);
    }

    SECURITY_STATUS store(NCRYPT_PROV_HANDLE of, Value& value)
    {
        return table().SetProviderProperty(of, NCRYPT_PIN_PROPERTY, value.data(), sizeof(Value), 0);
    }
    SECURITY_STATUS storeForKey(NCRYPT_KEY_HANDLE key, Value& value)
    {
        return table().SetKeyProperty(provider(), key, NCRYPT_PIN_PROPERTY, value.data(),
                                      sizeof(Value), 0);
    }
    NCRYPT_KEY_HANDLE openKey()
    {
        NCRYPT_KEY_HANDLE key = 0;
        EXPECT_EQ(ERROR_SUCCESS, table().OpenKey(provider(), &key, L"0256", 0, 0));
        return key;
    }
};

}  // namespace

TEST_F(PropertyWiping, ofAProviderThatReplacesItAndIsFreed)
{
    NCRYPT_PROV_HANDLE other = 0;
    ASSERT_EQ(ERROR_SUCCESS, table().OpenProvider(&other, L"Norvanta", 0));
    EXPECT_EQ(ERROR_SUCCESS, store(other, firstValue));
    EXPECT_EQ("first value in a block still held\n", memory().found());
    EXPECT_EQ(ERROR_SUCCESS, store(other, secondValue));
    EXPECT_EQ("second value in a block still held\n", memory().found());
    Value read{};
    DWORD length = 0;
    EXPECT_EQ(ERROR_SUCCESS, table().GetProviderProperty(other, NCRYPT_PIN_PROPERTY, read.data(),
                                                         sizeof read, &length, 0));
    EXPECT_EQ(secondValue, read);
    EXPECT_EQ(ERROR_SUCCESS, table().FreeProvider(other));
    EXPECT_EQ("", memory().found());
}

TEST_F(PropertyWiping, ofAKeyThatIsFreed)
{
    const NCRYPT_KEY_HANDLE key = openKey();
    EXPECT_EQ(ERROR_SUCCESS, storeForKey(key, firstValue));
    // A name that exists keeps its value.
    EXPECT_EQ(ERROR_SUCCESS, storeForKey(key, secondValue));
    EXPECT_EQ("first value in a block still held\n", memory().found());
    EXPECT_EQ(ERROR_SUCCESS, table().FreeKey(provider(), key));
    EXPECT_EQ("", memory().found());
}

}  // namespace NV::test
