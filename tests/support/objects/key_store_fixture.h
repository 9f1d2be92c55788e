// A key store of a slot, and short ways to fill it and to read properties. Used by
// keystore_test.cpp and memory_test.cpp.

#pragma once

#include "key_fixture.h"
#include "keystore/keystore.h"

namespace NV::test {

class KeyStoreTest : public testing::Test {
protected:
    KeyStoreTest() { slot.setId(kSlot); }

    bool addRsa(const std::wstring& name)
    {
        return store.addPublicKey(slot, name, L"1.2.840.113549.1.1.1", "AAEC", 2048);
    }
    bool addEc(const std::wstring& name, uint32_t bits)
    {
        return store.addPublicKey(slot, name, L"1.2.840.10045.2.1", "AAEC", bits);
    }

    // The bytes of a text with its terminating zero.
    static Bytes text(const std::wstring& characters)
    {
        const auto* begin = reinterpret_cast<const unsigned char*>(characters.c_str());
        return {begin, begin + (characters.size() + 1) * sizeof(wchar_t)};
    }
    static Bytes value(const P11KeyObject& key, const wchar_t* name)
    {
        const Property* property = key.findProperty(name);
        if (property == nullptr)
            return Bytes{0xEE};
        return {property->value().begin(), property->value().end()};
    }

    LogCapture log;
    P11Slot slot;
    KeyStore store;
};

}  // namespace NV::test
