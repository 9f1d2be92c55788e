// The arguments of the table of wrappers, and the names of their addresses in the expected lines.

#include "wrapper_cases.h"

#include <algorithm>
#include <regex>

#include "named_pointers.h"
#include "trace_log.h"

namespace NV::test {

namespace {

CK_RV NV_CK_CALL createMutex(CK_VOID_PTR_PTR mutex)
{
    static char theMutex;
    *mutex = &theMutex;
    return CKR_OK;
}

CK_RV NV_CK_CALL destroyMutex(CK_VOID_PTR)
{
    return CKR_OK;
}

CK_RV NV_CK_CALL lockMutex(CK_VOID_PTR)
{
    return CKR_OK;
}

CK_RV NV_CK_CALL unlockMutex(CK_VOID_PTR)
{
    return CKR_OK;
}

#define NV_OBJECT(name)                                                                            \
    {                                                                                              \
        addressOf(&bench.name), "[" #name "]"                                                      \
    }
#define NV_FUNCTION(name)                                                                          \
    {                                                                                              \
        reinterpret_cast<uintptr_t>(&name), "[" #name "]"                                          \
    }

PointerNames namesOf(const Bench& bench)
{
    return {
        NV_OBJECT(initArgs),       NV_OBJECT(info),
        NV_OBJECT(slotInfo),       NV_OBJECT(tokenInfo),
        NV_OBJECT(sessionInfo),    NV_OBJECT(mechanismInfo),
        NV_OBJECT(functionList),   NV_OBJECT(slots),
        NV_OBJECT(types),          NV_OBJECT(five),
        NV_OBJECT(forty),          NV_OBJECT(oldPin),
        NV_OBJECT(newPin),         NV_OBJECT(userPin),
        NV_OBJECT(label),          NV_OBJECT(application),
        NV_OBJECT(data),           NV_OBJECT(output),
        NV_OBJECT(length),         NV_OBJECT(cipher),
        NV_OBJECT(signature),      NV_OBJECT(id),
        NV_OBJECT(attributes),     NV_OBJECT(wanted),
        NV_OBJECT(publicTemplate), NV_OBJECT(privateTemplate),
        NV_OBJECT(handles),        NV_OBJECT(newHandle),
        NV_OBJECT(otherHandle),    NV_OBJECT(pssParameters),
        NV_OBJECT(rsaPkcs),        NV_OBJECT(rawRsa),
        NV_OBJECT(sha256),         NV_OBJECT(pss),
        NV_OBJECT(ecdh),           NV_OBJECT(secretGeneration),
        NV_OBJECT(pairGeneration), NV_FUNCTION(notify),
        NV_FUNCTION(createMutex),  NV_FUNCTION(destroyMutex),
        NV_FUNCTION(lockMutex),    NV_FUNCTION(unlockMutex),
    };
}

#undef NV_OBJECT
#undef NV_FUNCTION

}  // namespace

CK_RV NV_CK_CALL notify(CK_SESSION_HANDLE, CK_NOTIFICATION, CK_VOID_PTR)
{
    return CKR_OK;
}

Bench::Bench()
    : initArgs{createMutex, destroyMutex, lockMutex, unlockMutex, CKF_OS_LOCKING_OK, nullptr}
{
    std::ranges::copy(kPin, userPin);
    std::ranges::copy(std::string_view("A label of thirty-two characters"), label);
    for (size_t i = 0; i < std::size(cipher); ++i)
        cipher[i] = static_cast<CK_BYTE>(i);
    std::ranges::copy(signatureOf(CKM_RSA_PKCS, data, kModulusLength), signature);
    std::ranges::fill(point, CK_BYTE{0xA7});
    point[0] = 0x04;
}

std::string Bench::named(const std::string& text) const
{
    const auto lengthAsNumber = static_cast<int>(static_cast<uint32_t>(addressOf(&length)));
    const std::regex number("=" + std::to_string(lengthAsNumber) + "(?=\n)");
    return maskTimes(std::regex_replace(withPointerNames(text, namesOf(*this)), number,
                                        "=[length as a number]"));
}

void addBenchObjects(ScriptedToken& token)
{
    const Bytes id{0x01, 0xAB};
    token.addRsaKeyPair(id, kModulusLength * 8);
    token.addEcKeyPair(id, 32);
    token.addObject({numberAttribute(CKA_CLASS, CKO_SECRET_KEY),
                     numberAttribute(CKA_KEY_TYPE, CKK_GENERIC_SECRET),
                     Attribute{CKA_VALUE, {0x51, 0x52, 0x53}}});
    token.addObject({numberAttribute(CKA_CLASS, CKO_DATA), Attribute{CKA_ID, id}});
}

}  // namespace NV::test
