// What a caller of ncrypt.dll sees of the module, in both behaviours.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "nvvtoken/nvvtoken_name.h"
#include "peer_key.h"
#include "router_fixture.h"

namespace NV::test {

namespace {

class RouterBehaviour : public RouterTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(openKey(rsa, L"01AB"));
        ASSERT_NO_FATAL_FAILURE(openKey(ec, L"0256"));
    }

    // Name and algorithm of each key, sorted.
    std::vector<std::pair<std::wstring, std::wstring>> keys() const
    {
        std::vector<std::pair<std::wstring, std::wstring>> all;
        void* state = nullptr;
        NCryptKeyName* record = nullptr;
        SECURITY_STATUS status = ERROR_SUCCESS;
        while ((status = NCryptEnumKeys(*provider, nullptr, &record, &state, 0)) == ERROR_SUCCESS) {
            all.emplace_back(record->pszName, record->pszAlgid);
            EXPECT_EQ(NCryptFreeBuffer(record), ERROR_SUCCESS);
        }
        EXPECT_EQ(status, NTE_NO_MORE_ITEMS);
        EXPECT_EQ(NCryptFreeBuffer(state), ERROR_SUCCESS);
        std::ranges::sort(all);
        return all;
    }

    SECURITY_STATUS verify(Bytes signature)
    {
        return NCryptVerifySignature(*rsa, &pkcs1, hash.data(), 32, signature.data(),
                                     static_cast<DWORD>(signature.size()), BCRYPT_PAD_PKCS1);
    }

    // Since the provider was opened, or the last clearing.
    size_t tokenCalls() const { return token.calls().size(); }

    Handle rsa;
    Handle ec;
};

using Keys = std::vector<std::pair<std::wstring, std::wstring>>;

}  // namespace

TEST_P(RouterBehaviour, ListsTheKeys)
{
    const Keys classicKeys{{L"01AB", L"1.2.840.113549.1.1.1"}, {L"0256", L"1.2.840.10045.2.1"}};
    const Keys modernKeys{{L"01AB", L"RSA"}, {L"0256", L"ECDSA_P256"}};
    EXPECT_EQ(keys(), either(classicKeys, modernKeys));
}

TEST_P(RouterBehaviour, TellsPropertiesOfBothBehaviours)
{
    EXPECT_EQ(property(*provider, NCRYPT_NAME_PROPERTY).text(), providerName);
    EXPECT_EQ(property(*provider, NCRYPT_IMPL_TYPE_PROPERTY).number(),
              DWORD{NCRYPT_IMPL_HARDWARE_FLAG});
    EXPECT_EQ(property(*rsa, NCRYPT_NAME_PROPERTY).text(), L"01AB");
    EXPECT_EQ(property(*rsa, NCRYPT_UNIQUE_NAME_PROPERTY).text(), L"01AB");
    EXPECT_EQ(property(*rsa, NCRYPT_ALGORITHM_PROPERTY).text(), L"RSA");
    EXPECT_EQ(property(*rsa, NCRYPT_ALGORITHM_GROUP_PROPERTY).text(), L"RSA");
    EXPECT_EQ(property(*ec, NCRYPT_ALGORITHM_PROPERTY).text(), L"ECDSA_P256");
    EXPECT_EQ(property(*ec, NCRYPT_ALGORITHM_GROUP_PROPERTY).text(), L"ECDSA");
    EXPECT_EQ(property(*rsa, NCRYPT_EXPORT_POLICY_PROPERTY).number(), 0u);
    EXPECT_EQ(property(*rsa, L"Unheard Of").status, NTE_NOT_SUPPORTED);
    BYTE small[3] = {};
    DWORD length = 0;
    EXPECT_EQ(NCryptGetProperty(*rsa, NCRYPT_NAME_PROPERTY, small, sizeof small, &length, 0),
              NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, either<DWORD>(0, 10));
}

// A property of modern; classic has none of them.
TEST_P(RouterBehaviour, TellsSizesAndTheCurveInModern)
{
    const struct {
        const Handle& key;
        const wchar_t* name;
        DWORD value;
    } numbers[] = {{rsa, NCRYPT_LENGTH_PROPERTY, 2048}, {rsa, L"PublicKeyLength", 2048},
                   {rsa, L"SignatureLength", 256},      {rsa, NCRYPT_BLOCK_LENGTH_PROPERTY, 256},
                   {rsa, NCRYPT_KEY_TYPE_PROPERTY, 0},  {ec, NCRYPT_LENGTH_PROPERTY, 256},
                   {ec, L"PublicKeyLength", 256},       {ec, L"SignatureLength", 64},
                   {ec, NCRYPT_KEY_TYPE_PROPERTY, 0}};
    for (const auto& one : numbers) {
        const Answer answer = property(*one.key, one.name);
        EXPECT_EQ(answer.status, either<SECURITY_STATUS>(NTE_NOT_SUPPORTED, ERROR_SUCCESS));
        if (modern()) {
            EXPECT_EQ(answer.number(), one.value) << testing::PrintToString(one.name);
        }
    }
    const Answer curve = property(*ec, L"ECCCurveName");
    EXPECT_EQ(curve.status, either<SECURITY_STATUS>(NTE_NOT_SUPPORTED, ERROR_SUCCESS));
    EXPECT_EQ(curve.text(), either(L"", L"nistP256"));
    EXPECT_EQ(property(*rsa, L"ECCCurveName").status, NTE_NOT_SUPPORTED);
    EXPECT_EQ(property(*ec, NCRYPT_BLOCK_LENGTH_PROPERTY).status, NTE_NOT_SUPPORTED);
    const Answer certificate = property(*rsa, NCRYPT_CERTIFICATE_PROPERTY);
    EXPECT_EQ(certificate.status, either<SECURITY_STATUS>(NTE_NOT_SUPPORTED, ERROR_SUCCESS));
    EXPECT_EQ(certificate.bytes, either(Bytes(), rsaCertificate));
}

TEST_P(RouterBehaviour, AnswersForWhatNobodyHasSet)
{
    for (const wchar_t* name :
         {NCRYPT_UI_POLICY_PROPERTY, NCRYPT_USE_CONTEXT_PROPERTY, NCRYPT_WINDOW_HANDLE_PROPERTY}) {
        EXPECT_EQ(property(*rsa, name).status, either(NTE_NOT_SUPPORTED, NTE_NOT_FOUND));
        EXPECT_EQ(property(*provider, name).status, either(NTE_NOT_SUPPORTED, NTE_NOT_FOUND));
    }
}

TEST_P(RouterBehaviour, OneHandleOfAKeyClosesBesideAnother)
{
    Handle second;
    ASSERT_NO_FATAL_FAILURE(openKey(second, L"01AB"));
    second.free();
    EXPECT_EQ(property(*rsa, NCRYPT_ALGORITHM_PROPERTY).text(), either(L"", L"RSA"));
}

TEST_P(RouterBehaviour, AnUnknownKeyIsTold)
{
    NCRYPT_KEY_HANDLE handle = 52;
    EXPECT_EQ(NCryptOpenKey(*provider, &handle, L"FFFF", 0, 0),
              either(NTE_INVALID_HANDLE, NTE_BAD_KEYSET));
    EXPECT_EQ(handle, 52u);
    if (modern()) {
        EXPECT_EQ(keys().size(), 2u);
    }
}

TEST_P(RouterBehaviour, Signs)
{
    EXPECT_EQ(signWithoutDialog(*rsa, 0).length, 256u);
    EXPECT_EQ(signWithoutDialog(*ec, 0).length, 64u);
    EXPECT_EQ(tokenCalls(), 0u);
    const Answer byRsa = sign(*rsa, 256, rightPin());
    EXPECT_EQ(byRsa.status, ERROR_SUCCESS);
    EXPECT_EQ(byRsa.length, 256u);
    const Bytes digestInfo = hexDecode("3031300d060960864801650304020105000420");
    EXPECT_EQ(byRsa.bytes, signatureOf(CKM_RSA_PKCS, joinedBytes({digestInfo, hash}), 256));
    const Answer byEc = sign(*ec, 64, rightPin());
    EXPECT_EQ(byEc.status, ERROR_SUCCESS);
    EXPECT_EQ(byEc.bytes, signatureOf(CKM_ECDSA, hash, 64));
}

TEST_P(RouterBehaviour, ASmallBufferIsToldItsSize)
{
    if (!modern()) {
        EXPECT_EQ(sign(*rsa, 255, rightPin()).status, NTE_INTERNAL_ERROR);
        EXPECT_NE(tokenCalls(), 0u);
        return;
    }
    const Answer answer = signWithoutDialog(*rsa, 255);
    EXPECT_EQ(answer.status, NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(answer.length, 256u);
    EXPECT_EQ(tokenCalls(), 0u);
}

TEST_P(RouterBehaviour, ARefusedPinIsTold)
{
    const Answer wrong = sign(*rsa, 256, DialogDriver::entering(L"not-the-pin"));
    EXPECT_EQ(wrong.status, either(NTE_INTERNAL_ERROR, SCARD_W_WRONG_CHV));
    token.fail("C_Login", CKR_PIN_LOCKED, 1);
    EXPECT_EQ(sign(*rsa, 256, rightPin()).status, either(NTE_INTERNAL_ERROR, SCARD_W_CHV_BLOCKED));
    EXPECT_EQ(sign(*ec, 64, DialogDriver::cancelling()).status, NTE_USER_CANCELLED);
}

TEST_P(RouterBehaviour, ASilentProgram)
{
    if (modern()) {
        EXPECT_EQ(signWithoutDialog(*rsa, 256, NCRYPT_SILENT_FLAG).status, NTE_SILENT_CONTEXT);
        EXPECT_EQ(tokenCalls(), 0u);
    } else {
        EXPECT_EQ(sign(*rsa, 256, rightPin(), NCRYPT_SILENT_FLAG).status, ERROR_SUCCESS);
    }
}

TEST_P(RouterBehaviour, VerifiesWhatItSigns)
{
    Bytes signature = sign(*ec, 64, rightPin()).bytes;
    const auto verifyEc = [&](DWORD size) {
        return NCryptVerifySignature(*ec, nullptr, hash.data(), 32, signature.data(), size, 0);
    };
    EXPECT_EQ(verifyEc(64), ERROR_SUCCESS);
    signature[5] ^= 1;
    EXPECT_EQ(verifyEc(64), either(NTE_INTERNAL_ERROR, NTE_BAD_SIGNATURE));
    EXPECT_EQ(verifyEc(63), either(NTE_INTERNAL_ERROR, NTE_BAD_SIGNATURE));
    // Classic verifies no signature that it made with the name of a hash.
    EXPECT_EQ(verify(sign(*rsa, 256, rightPin()).bytes),
              either<SECURITY_STATUS>(NTE_INTERNAL_ERROR, ERROR_SUCCESS));
}

TEST_P(RouterBehaviour, DecryptsWhatItEncrypts)
{
    Bytes plain = someBytes(20);
    Bytes cipher(256);
    DWORD length = 0;
    ASSERT_EQ(NCryptEncrypt(*rsa, plain.data(), 20, nullptr, cipher.data(), 256, &length,
                            BCRYPT_PAD_PKCS1),
              ERROR_SUCCESS);
    EXPECT_EQ(length, 256u);
    Bytes output(256);
    {
        const DialogDriver driver(rightPin());
        ASSERT_EQ(NCryptDecrypt(*rsa, cipher.data(), 256, nullptr, output.data(), 256, &length,
                                BCRYPT_PAD_PKCS1),
                  ERROR_SUCCESS);
    }
    output.resize(length);
    EXPECT_EQ(output, plain);
    if (!modern())
        return;
    token.clearCalls();
    const DialogDriver none(DialogDriver::cancelling(), 0);
    EXPECT_EQ(
        NCryptDecrypt(*rsa, cipher.data(), 256, nullptr, nullptr, 0, &length, BCRYPT_PAD_PKCS1),
        ERROR_SUCCESS);
    EXPECT_EQ(length, 256u);
    EXPECT_EQ(NCryptEncrypt(*rsa, plain.data(), 20, nullptr, cipher.data(), 255, &length,
                            BCRYPT_PAD_PKCS1),
              NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(tokenCalls(), 0u);
}

TEST_P(RouterBehaviour, AgreesAndDerives)
{
    Bytes blob = peerBlob(ecdhP256, 32);
    Handle peer;
    ASSERT_EQ(NCryptImportKey(*provider, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, peer.out(), blob.data(),
                              static_cast<DWORD>(blob.size()), 0),
              ERROR_SUCCESS);
    // The same public key, whose magic number is the one of a key for signatures.
    const Bytes back = exported(*peer, BCRYPT_ECCPUBLIC_BLOB).bytes;
    ASSERT_EQ(back.size(), blob.size());
    EXPECT_TRUE(std::equal(blob.begin() + 4, blob.end(), back.begin() + 4));
    Handle secret;
    {
        const DialogDriver driver(rightPin());
        ASSERT_EQ(NCryptSecretAgreement(*ec, *peer, secret.out(), 0), ERROR_SUCCESS);
    }
    std::wstring name = BCRYPT_SHA256_ALGORITHM;
    BCryptBuffer buffer{static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), KDF_HASH_ALGORITHM,
                        name.data()};
    NCryptBufferDesc parameters{BCRYPTBUFFER_VERSION, 1, &buffer};
    Bytes derived(32);
    DWORD length = 0;
    ASSERT_EQ(
        NCryptDeriveKey(*secret, BCRYPT_KDF_HASH, &parameters, derived.data(), 32, &length, 0),
        ERROR_SUCCESS);
    EXPECT_EQ(length, 32u);
    // The token's pattern of an agreed secret.
    const Bytes pattern{0xC3, 0x5A, 0x17, 0xE1, 0x8D};
    Bytes agreed;
    for (size_t i = 0; i < 32; ++i)
        agreed.push_back(pattern[i % pattern.size()]);
    EXPECT_EQ(derived, digestOf(CKM_SHA256, agreed));
    const SECURITY_STATUS shorter =
        NCryptDeriveKey(*secret, BCRYPT_KDF_HASH, &parameters, derived.data(), 16, &length, 0);
    if (modern()) {
        EXPECT_EQ(shorter, ERROR_SUCCESS);
        EXPECT_EQ(length, 16u);
    } else {
        EXPECT_NE(shorter, ERROR_SUCCESS);
    }
}

TEST_P(RouterBehaviour, ADamagedPublicKeyIsNoKey)
{
    Bytes blob = peerBlob(ecdhP256, 32);
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status =
        NCryptImportKey(*provider, 0, BCRYPT_ECCPUBLIC_BLOB, nullptr, &key, blob.data(),
                        static_cast<DWORD>(blob.size() - 1), 0);
    EXPECT_EQ(status, either<SECURITY_STATUS>(ERROR_SUCCESS, NTE_BAD_DATA));
    EXPECT_EQ(key, 0u);
}

TEST_P(RouterBehaviour, ExportsThePublicKey)
{
    const Answer rsaBlob = exported(*rsa, BCRYPT_RSAPUBLIC_BLOB);
    EXPECT_EQ(rsaBlob.status, ERROR_SUCCESS);
    EXPECT_EQ(rsaBlob.bytes.size(), sizeof(BCRYPT_RSAKEY_BLOB) + 3 + 256);
    EXPECT_EQ(exported(*rsa, BCRYPT_PUBLIC_KEY_BLOB).bytes, rsaBlob.bytes);
    EXPECT_EQ(exported(*ec, BCRYPT_ECCPUBLIC_BLOB).bytes.size(), sizeof(BCRYPT_ECCKEY_BLOB) + 64);
    EXPECT_EQ(exported(*rsa, BCRYPT_ECCPUBLIC_BLOB).status,
              either<SECURITY_STATUS>(ERROR_SUCCESS, NTE_NOT_SUPPORTED));
    EXPECT_EQ(exported(*rsa, L"PRIVATEBLOB").status, NTE_NOT_SUPPORTED);
    BYTE small[40] = {};
    DWORD length = 0;
    EXPECT_EQ(
        NCryptExportKey(*rsa, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, small, sizeof small, &length, 0),
        either(NTE_INVALID_PARAMETER, NTE_BUFFER_TOO_SMALL));
    EXPECT_EQ(length, rsaBlob.bytes.size());
}

TEST_P(RouterBehaviour, TellsItsAlgorithms)
{
    EXPECT_EQ(NCryptIsAlgSupported(*provider, L"RSA", 0), ERROR_SUCCESS);
    EXPECT_EQ(NCryptIsAlgSupported(*provider, L"ECDSA_P256", 0),
              either<SECURITY_STATUS>(NTE_NOT_SUPPORTED, ERROR_SUCCESS));
    EXPECT_EQ(NCryptIsAlgSupported(*provider, L"MD2", 0),
              either<SECURITY_STATUS>(ERROR_SUCCESS, NTE_NOT_SUPPORTED));
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    ASSERT_EQ(NCryptEnumAlgorithms(*provider, NCRYPT_SIGNATURE_OPERATION, &count, &list, 0),
              ERROR_SUCCESS);
    std::vector<std::wstring> names;
    for (DWORD i = 0; i < count; ++i)
        names.emplace_back(list[i].pszName);
    std::ranges::sort(names);
    EXPECT_EQ(names, (std::vector<std::wstring>{L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521",
                                                either(L"RSA_SIGN", L"RSA")}));
    EXPECT_EQ(NCryptFreeBuffer(list), ERROR_SUCCESS);
}

TEST_P(RouterBehaviour, RefusesWhatATokenOfOthersCannotDo)
{
    NCRYPT_KEY_HANDLE key = 0;
    HANDLE event = nullptr;
    EXPECT_EQ(NCryptCreatePersistedKey(*provider, &key, BCRYPT_RSA_ALGORITHM, L"new", 0, 0),
              NTE_NOT_SUPPORTED);
    EXPECT_EQ(NCryptFinalizeKey(*rsa, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(NCryptDeleteKey(*rsa, 0), NTE_NOT_SUPPORTED);
    EXPECT_TRUE(NCryptIsKeyHandle(*rsa));
    EXPECT_EQ(NCryptNotifyChangeKey(*provider, &event, NCRYPT_REGISTER_NOTIFY_FLAG),
              NTE_NOT_SUPPORTED);
    EXPECT_EQ(NCryptTranslateHandle(nullptr, &key, 0, 0, 0, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(key, 0u);
}

TEST_P(RouterBehaviour, LeavesTheLastErrorOfASuccess)
{
    DWORD length = 0;
    SetLastError(0x5252);
    EXPECT_EQ(NCryptSignHash(*rsa, &pkcs1, hash.data(), 32, nullptr, 0, &length, BCRYPT_PAD_PKCS1),
              ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), 0x5252u);
}

INSTANTIATE_TEST_SUITE_P(Behaviours, RouterBehaviour,
                         testing::Values(Behaviour::classic, Behaviour::modern),
                         testing::PrintToStringParamName());

}  // namespace NV::test
