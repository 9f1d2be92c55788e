// Makes the bare calls.

#include "bare_token.h"

#include <array>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace NV::bench {

namespace {

void expectOk(CK_RV rv, const char* what)
{
    if (rv != CKR_OK)
        throw std::runtime_error(std::string(what) + " failed, CK_RV " + std::to_string(rv));
}

CK_ATTRIBUTE attributeOf(CK_ATTRIBUTE_TYPE type, const void* value, size_t size)
{
    return {type, const_cast<void*>(value), static_cast<CK_ULONG>(size)};
}

CK_BYTE* in(const Bytes& bytes)
{
    // PKCS#11 takes input by a pointer to non-const.
    return const_cast<CK_BYTE*>(bytes.data());
}

CK_ULONG sizeOf(const Bytes& bytes)
{
    return static_cast<CK_ULONG>(bytes.size());
}

// The same locking that the module offers to the library.
CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR handle)
{
    *handle = new std::mutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR handle)
{
    delete static_cast<std::mutex*>(handle);
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR handle)
{
    static_cast<std::mutex*>(handle)->lock();
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR handle)
{
    static_cast<std::mutex*>(handle)->unlock();
    return CKR_OK;
}

CK_C_INITIALIZE_ARGS initArguments = {createMutex,
                                      destroyMutex,
                                      lockMutex,
                                      unlockMutex,
                                      CKF_LIBRARY_CANT_CREATE_OS_THREADS | CKF_OS_LOCKING_OK,
                                      nullptr};

}  // namespace

BareToken::BareToken(const std::filesystem::path& library, std::string pin)
    : library_(LoadLibraryW(library.c_str())), pin_(std::move(pin))
{
    if (library_ == nullptr)
        throw std::runtime_error("the PKCS#11 library cannot be loaded");
    using GetFunctionList = CK_RV(NV_CK_CALL*)(CK_FUNCTION_LIST**);
    const auto getList = reinterpret_cast<GetFunctionList>(
        reinterpret_cast<void*>(GetProcAddress(library_, "C_GetFunctionList")));
    expectOk(getList(&list_), "C_GetFunctionList");
    expectOk(list_->C_Initialize(&initArguments), "C_Initialize");
    std::array<CK_SLOT_ID, 16> slots{};
    CK_ULONG count = slots.size();
    expectOk(list_->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    slot_ = slots[0];
    expectOk(list_->C_Finalize(nullptr), "C_Finalize");
}

BareToken::~BareToken()
{
    FreeLibrary(library_);
}

void BareToken::initialize()
{
    expectOk(list_->C_Initialize(&initArguments), "C_Initialize");
    initialized_ = true;
}

void BareToken::finalize()
{
    initialized_ = false;
    expectOk(list_->C_Finalize(nullptr), "C_Finalize");
}

template <typename Work>
void BareToken::inSession(bool login, const Work& work)
{
    if (!initialized_)
        expectOk(list_->C_Initialize(&initArguments), "C_Initialize");
    CK_SESSION_HANDLE session = 0;
    expectOk(list_->C_OpenSession(slot_, CKF_SERIAL_SESSION, nullptr, nullptr, &session),
             "C_OpenSession");
    if (login)
        expectOk(list_->C_Login(session, CKU_USER, reinterpret_cast<CK_BYTE*>(pin_.data()),
                                static_cast<CK_ULONG>(pin_.size())),
                 "C_Login");
    work(session);
    if (login)
        expectOk(list_->C_Logout(session), "C_Logout");
    expectOk(list_->C_CloseSession(session), "C_CloseSession");
    if (!initialized_)
        expectOk(list_->C_Finalize(nullptr), "C_Finalize");
}

CK_OBJECT_HANDLE BareToken::find(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass,
                                 CK_KEY_TYPE keyType, const Bytes& id)
{
    std::array search = {attributeOf(CKA_CLASS, &objectClass, sizeof objectClass),
                         attributeOf(CKA_KEY_TYPE, &keyType, sizeof keyType),
                         attributeOf(CKA_ID, id.data(), id.size())};
    expectOk(list_->C_FindObjectsInit(session, search.data(), search.size()), "C_FindObjectsInit");
    std::array<CK_OBJECT_HANDLE, 1024> found;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    CK_ULONG count = 0;
    expectOk(list_->C_FindObjects(session, found.data(), found.size(), &count), "C_FindObjects");
    if (count == 0)
        throw std::runtime_error("the token has no such key");
    expectOk(list_->C_FindObjectsFinal(session), "C_FindObjectsFinal");
    return found[0];
}

void BareToken::sign(CK_KEY_TYPE keyType, const Bytes& id, const Bytes& data, Bytes& signature)
{
    inSession(true, [&](CK_SESSION_HANDLE session) {
        const CK_OBJECT_HANDLE key = find(session, CKO_PRIVATE_KEY, keyType, id);
        CK_MECHANISM mechanism{keyType == CKK_RSA ? CKM_RSA_PKCS : CKM_ECDSA, nullptr, 0};
        expectOk(list_->C_SignInit(session, &mechanism, key), "C_SignInit");
        CK_ULONG length = sizeOf(signature);
        expectOk(list_->C_Sign(session, in(data), sizeOf(data), signature.data(), &length),
                 "C_Sign");
    });
}

void BareToken::verify(CK_KEY_TYPE keyType, const Bytes& id, const Bytes& data,
                       const Bytes& signature)
{
    inSession(false, [&](CK_SESSION_HANDLE session) {
        const CK_OBJECT_HANDLE key = find(session, CKO_PUBLIC_KEY, keyType, id);
        CK_MECHANISM mechanism{keyType == CKK_RSA ? CKM_RSA_PKCS : CKM_ECDSA, nullptr, 0};
        expectOk(list_->C_VerifyInit(session, &mechanism, key), "C_VerifyInit");
        expectOk(list_->C_Verify(session, in(data), sizeOf(data), in(signature), sizeOf(signature)),
                 "C_Verify");
    });
}

void BareToken::encrypt(const Bytes& id, const Bytes& plain, Bytes& cipher)
{
    inSession(false, [&](CK_SESSION_HANDLE session) {
        const CK_OBJECT_HANDLE key = find(session, CKO_PUBLIC_KEY, CKK_RSA, id);
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        expectOk(list_->C_EncryptInit(session, &mechanism, key), "C_EncryptInit");
        CK_ULONG length = sizeOf(cipher);
        expectOk(list_->C_Encrypt(session, in(plain), sizeOf(plain), cipher.data(), &length),
                 "C_Encrypt");
    });
}

void BareToken::decrypt(const Bytes& id, const Bytes& cipher, Bytes& plain)
{
    inSession(true, [&](CK_SESSION_HANDLE session) {
        const CK_OBJECT_HANDLE key = find(session, CKO_PRIVATE_KEY, CKK_RSA, id);
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        expectOk(list_->C_DecryptInit(session, &mechanism, key), "C_DecryptInit");
        CK_ULONG length = sizeOf(plain);
        expectOk(list_->C_Decrypt(session, in(cipher), sizeOf(cipher), plain.data(), &length),
                 "C_Decrypt");
    });
}

Bytes BareToken::agree(const Bytes& id, const Bytes& peerPoint)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    constexpr CK_KEY_TYPE keyType = CKK_GENERIC_SECRET;
    constexpr CK_BBOOL yes = CK_TRUE;
    constexpr CK_BBOOL no = CK_FALSE;
    std::array secretKey = {attributeOf(CKA_TOKEN, &no, sizeof no),
                            attributeOf(CKA_CLASS, &objectClass, sizeof objectClass),
                            attributeOf(CKA_KEY_TYPE, &keyType, sizeof keyType),
                            attributeOf(CKA_SENSITIVE, &no, sizeof no),
                            attributeOf(CKA_EXTRACTABLE, &yes, sizeof yes),
                            attributeOf(CKA_ENCRYPT, &yes, sizeof yes),
                            attributeOf(CKA_DECRYPT, &yes, sizeof yes)};
    Bytes secret;
    inSession(true, [&](CK_SESSION_HANDLE session) {
        const CK_OBJECT_HANDLE key = find(session, CKO_PRIVATE_KEY, CKK_EC, id);
        CK_ECDH1_DERIVE_PARAMS parameters{CKD_NULL, 0, nullptr, sizeOf(peerPoint), in(peerPoint)};
        CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
        CK_OBJECT_HANDLE derived = 0;
        expectOk(list_->C_DeriveKey(session, &mechanism, key, secretKey.data(), secretKey.size(),
                                    &derived),
                 "C_DeriveKey");
        CK_ATTRIBUTE value{CKA_VALUE, nullptr, 0};
        expectOk(list_->C_GetAttributeValue(session, derived, &value, 1), "C_GetAttributeValue");
        secret.resize(value.ulValueLen);
        value.pValue = secret.data();
        expectOk(list_->C_GetAttributeValue(session, derived, &value, 1), "C_GetAttributeValue");
    });
    return secret;
}

void BareToken::digest(const Bytes& data, Bytes& digest)
{
    inSession(false, [&](CK_SESSION_HANDLE session) {
        CK_MECHANISM mechanism{CKM_SHA256, nullptr, 0};
        expectOk(list_->C_DigestInit(session, &mechanism), "C_DigestInit");
        CK_ULONG length = sizeOf(digest);
        expectOk(list_->C_Digest(session, in(data), sizeOf(data), digest.data(), &length),
                 "C_Digest");
    });
}

}  // namespace NV::bench
