// Makes the calls of an operation, in the module's order.

#include "native_token.h"

#include <dlfcn.h>

#include <array>
#include <chrono>
#include <stdexcept>

namespace NV::bench {

namespace {

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

template <typename Value>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Value& value)
{
    return {type, &value, sizeof value};
}

}  // namespace

void NativeToken::Unload::operator()(void* library) const
{
    dlclose(library);
}

NativeToken::NativeToken(const std::string& library, const std::string& pin)
    : library_(dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL)), pin_(pin)
{
    if (library_ == nullptr)
        throw std::runtime_error("cannot load " + library);
    const auto getFunctionList =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library_.get(), "C_GetFunctionList"));
    if (getFunctionList == nullptr || getFunctionList(&list_) != CKR_OK)
        throw std::runtime_error(library + " gives no function list");
    Times untold;
    discover(untold);
}

template <typename Function, typename... Arguments>
void NativeToken::call(Times& times, const char* name, Function function, Arguments... arguments)
{
    const Clock::time_point start = Clock::now();
    const CK_RV rv = function(arguments...);
    times[name].push_back(microsecondsSince(start));
    if (rv != CKR_OK)
        throw std::runtime_error(std::string(name) + " answers " + std::to_string(rv));
}

// With the system's locking, instead of the callbacks that the module passes on Windows.
void NativeToken::initialize(Times& times)
{
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.flags = CKF_OS_LOCKING_OK;
    call(times, "C_Initialize", list_->C_Initialize, &arguments);
}

CK_SESSION_HANDLE NativeToken::session(Times& times)
{
    CK_SESSION_HANDLE session = 0;
    call(times, "C_OpenSession", list_->C_OpenSession, slot_, CK_FLAGS{CKF_SERIAL_SESSION}, nullptr,
         nullptr, &session);
    return session;
}

void NativeToken::closeAndFinalize(Times& times, CK_SESSION_HANDLE session)
{
    call(times, "C_CloseSession", list_->C_CloseSession, session);
    call(times, "C_Finalize", list_->C_Finalize, nullptr);
}

void NativeToken::sign(Times& times)
{
    const Clock::time_point start = Clock::now();
    initialize(times);
    const CK_SESSION_HANDLE open = session(times);
    signInSession(times, open);
    closeAndFinalize(times, open);
    times["RSA signature, whole operation"].push_back(microsecondsSince(start));
}

void NativeToken::signInModern(Times& times, unsigned signatures)
{
    Times calls;
    initialize(calls);
    for (unsigned i = 0; i < signatures; ++i) {
        CK_TOKEN_INFO token{};
        const Clock::time_point start = Clock::now();
        call(calls, "C_GetTokenInfo", list_->C_GetTokenInfo, slot_, &token);
        const CK_SESSION_HANDLE open = session(calls);
        signInSession(calls, open);
        call(calls, "C_CloseSession", list_->C_CloseSession, open);
        times["RSA signature in modern, whole operation"].push_back(microsecondsSince(start));
    }
    call(calls, "C_Finalize", list_->C_Finalize, nullptr);
}

void NativeToken::signInSession(Times& times, CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    CK_KEY_TYPE rsa = CKK_RSA;
    std::array<CK_BYTE, 2> id{0x01, 0xAB};
    std::array<CK_ATTRIBUTE, 3> wanted{attribute(CKA_CLASS, privateKey),
                                       attribute(CKA_KEY_TYPE, rsa), attribute(CKA_ID, id)};
    CK_OBJECT_HANDLE key = 0;
    CK_ULONG found = 0;
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    std::array<CK_BYTE, 32> hash{};
    std::array<CK_BYTE, 512> signature{};
    CK_ULONG length = signature.size();

    call(times, "C_Login", list_->C_Login, session, CK_USER_TYPE{CKU_USER},
         reinterpret_cast<CK_UTF8CHAR*>(pin_.data()), CK_ULONG{pin_.size()});
    call(times, "C_FindObjectsInit", list_->C_FindObjectsInit, session, wanted.data(),
         CK_ULONG{wanted.size()});
    call(times, "C_FindObjects", list_->C_FindObjects, session, &key, CK_ULONG{1}, &found);
    call(times, "C_FindObjectsFinal", list_->C_FindObjectsFinal, session);
    call(times, "C_SignInit", list_->C_SignInit, session, &mechanism, key);
    call(times, "C_Sign", list_->C_Sign, session, hash.data(), CK_ULONG{hash.size()},
         signature.data(), &length);
    call(times, "C_Logout", list_->C_Logout, session);
}

void NativeToken::open(Times& times)
{
    const Clock::time_point start = Clock::now();
    discover(times);
    readCertificates(times);
    times["opening of a provider, whole operation"].push_back(microsecondsSince(start));
}

// Without the C_Finalize that the module calls first: p11-kit answers it without the network, and
// with a line on standard error.
void NativeToken::discover(Times& times)
{
    CK_INFO info{};
    CK_ULONG count = 0;
    initialize(times);
    call(times, "C_GetInfo", list_->C_GetInfo, &info);
    call(times, "C_GetSlotList", list_->C_GetSlotList, CK_BBOOL{CK_TRUE}, nullptr, &count);
    std::vector<CK_SLOT_ID> slots(count);
    call(times, "C_GetSlotList", list_->C_GetSlotList, CK_BBOOL{CK_TRUE}, slots.data(), &count);
    slots_ = 0;
    mechanisms_ = 0;
    for (const CK_SLOT_ID slot : slots)
        readSlot(times, slot);
    call(times, "C_Finalize", list_->C_Finalize, nullptr);
}

void NativeToken::readSlot(Times& times, CK_SLOT_ID slot)
{
    CK_SLOT_INFO slotInfo{};
    CK_TOKEN_INFO tokenInfo{};
    CK_ULONG count = 0;
    call(times, "C_GetSlotInfo", list_->C_GetSlotInfo, slot, &slotInfo);
    call(times, "C_GetTokenInfo", list_->C_GetTokenInfo, slot, &tokenInfo);
    call(times, "C_GetMechanismList", list_->C_GetMechanismList, slot, nullptr, &count);
    std::vector<CK_MECHANISM_TYPE> types(count);
    call(times, "C_GetMechanismList", list_->C_GetMechanismList, slot, types.data(), &count);
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_MECHANISM_INFO mechanismInfo{};
        call(times, "C_GetMechanismInfo", list_->C_GetMechanismInfo, slot, types.at(i),
             &mechanismInfo);
    }
    ++slots_;
    mechanisms_ += count;
    if ((tokenInfo.flags & CKF_TOKEN_INITIALIZED) != 0)
        slot_ = slot;
}

// Reads the value and the name of each certificate: the length, then the bytes.
void NativeToken::readCertificates(Times& times)
{
    CK_OBJECT_CLASS certificate = CKO_CERTIFICATE;
    CK_ATTRIBUTE wanted = attribute(CKA_CLASS, certificate);
    std::array<CK_OBJECT_HANDLE, 512> found{};
    CK_ULONG count = 0;
    initialize(times);
    const CK_SESSION_HANDLE open = session(times);
    call(times, "C_FindObjectsInit", list_->C_FindObjectsInit, open, &wanted, CK_ULONG{1});
    call(times, "C_FindObjects", list_->C_FindObjects, open, found.data(), CK_ULONG{found.size()},
         &count);
    for (CK_ULONG i = 0; i < count; ++i) {
        for (const CK_ATTRIBUTE_TYPE type : {CKA_VALUE, CKA_ID}) {
            CK_ATTRIBUTE asked{type, nullptr, 0};
            call(times, "C_GetAttributeValue", list_->C_GetAttributeValue, open, found.at(i),
                 &asked, CK_ULONG{1});
            std::vector<CK_BYTE> value(asked.ulValueLen);
            asked.pValue = value.data();
            call(times, "C_GetAttributeValue", list_->C_GetAttributeValue, open, found.at(i),
                 &asked, CK_ULONG{1});
        }
    }
    certificates_ = count;
    call(times, "C_FindObjectsFinal", list_->C_FindObjectsFinal, open);
    closeAndFinalize(times, open);
}

void NativeToken::ask(Times& times, unsigned calls)
{
    Times untold;
    initialize(untold);
    const CK_SESSION_HANDLE open = session(untold);
    CK_SESSION_INFO info{};
    for (unsigned i = 0; i < calls; ++i)
        call(times, "C_GetSessionInfo", list_->C_GetSessionInfo, open, &info);
    closeAndFinalize(untold, open);
}

}  // namespace NV::bench
