// certified_token.dll: the scripted token with one certificate and its key pair, for programs that a
// test cannot script from outside. The environment variable ODD_CERTIFICATE names the certificate's
// file. The functions are those of scripted_token.dll, which is beside the program. ODD_FAULT can name a
// function and what goes wrong in it: "C_Initialize hang", "C_GetSlotList crash", "C_Initialize exit",
// "C_GetInfo print", "C_GetSlotList none", "C_OpenSession refuse", "C_Login locked", "C_Initialize flood"
// (hangs, while another thread writes to standard output). "second token" puts the objects on one. With
// ODD_PRIVATE_KEY, "rsa" (2048 bits) or "ec" (P-256), there is a private key, too. What it does is wrong: it
// gives patterns.

#include <windows.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "p11/cryptoki.h"
#include "scripted_token_control.h"
#include "scripted_token_values.h"

namespace NV::test {

namespace {

constexpr CK_BYTE keyId[] = {0x73, 0x91};

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, const void* value, size_t size)
{
    return {type, const_cast<void*>(value), static_cast<CK_ULONG>(size)};
}

Bytes certificate()
{
    const wchar_t* name = _wgetenv(L"ODD_CERTIFICATE");
    if (name == nullptr)
        return {};
    std::vector<char> narrow(32768);
    WideCharToMultiByte(CP_ACP, 0, name, -1, narrow.data(), static_cast<int>(narrow.size()),
                        nullptr, nullptr);
    std::ifstream file(narrow.data(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void addPrivateKey(const ScriptedTokenControl& control, CK_SLOT_ID slot)
{
    const wchar_t* kind = _wgetenv(L"ODD_PRIVATE_KEY");
    if (kind == nullptr)
        return;
    const bool isRsa = std::wstring(kind) == L"rsa";
    constexpr CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
    const CK_KEY_TYPE type = isRsa ? CKK_RSA : CKK_EC;
    constexpr CK_ULONG modulusBits = 2048;
    constexpr CK_BYTE p256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
    const CK_ATTRIBUTE privateKey[] = {
        attribute(CKA_CLASS, &privateClass, sizeof privateClass),
        attribute(CKA_KEY_TYPE, &type, sizeof type), attribute(CKA_ID, keyId, sizeof keyId),
        isRsa ? attribute(CKA_MODULUS_BITS, &modulusBits, sizeof modulusBits)
              : attribute(CKA_EC_PARAMS, p256, sizeof p256)};
    control.addObject(slot, privateKey, std::size(privateKey));
}

void addObjects(const ScriptedTokenControl& control, CK_SLOT_ID slot)
{
    constexpr CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
    constexpr CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    constexpr CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
    // A program can load this library twice.
    control.clearObjects();
    const Bytes der = certificate();
    const CK_ATTRIBUTE certificateObject[] = {
        attribute(CKA_CLASS, &certificateClass, sizeof certificateClass),
        attribute(CKA_CERTIFICATE_TYPE, &x509, sizeof x509), attribute(CKA_ID, keyId, sizeof keyId),
        attribute(CKA_VALUE, der.data(), der.size())};
    control.addObject(slot, certificateObject, std::size(certificateObject));
    const CK_ATTRIBUTE publicKey[] = {attribute(CKA_CLASS, &publicClass, sizeof publicClass),
                                      attribute(CKA_ID, keyId, sizeof keyId)};
    control.addObject(slot, publicKey, std::size(publicKey));
    addPrivateKey(control, slot);
}

// What ODD_FAULT says.
struct OddFault {
    std::string function;
    std::string kind;
};

OddFault oddFault()
{
    OddFault fault;
    char text[128] = "";
    GetEnvironmentVariableA("ODD_FAULT", text, static_cast<DWORD>(sizeof text));
    std::istringstream(text) >> fault.function >> fault.kind;
    return fault;
}

void writeForEver()
{
    const std::string line(1000, '.');
    for (DWORD written = 0;;)
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size()),
                  &written, nullptr);
}

void addFault(const ScriptedTokenControl& control)
{
    struct Kind {
        const char* name;
        Fault fault;
        uint32_t value;
        uint32_t nth;  // 0: every call
    };
    constexpr Kind kinds[] = {{"hang", Fault::delay, 600000, 0},
                              {"crash", Fault::crash, 0, 0},
                              {"crash-second", Fault::crash, 0, 2},
                              {"exit", Fault::exitProcess, 77, 0},
                              {"print", Fault::print, 0, 0},
                              {"none", Fault::claims, 0, 0},
                              {"flood", Fault::delay, 600000, 0},
                              {"refuse", Fault::returnValue, CKR_DEVICE_ERROR, 0},
                              {"locked", Fault::returnValue, CKR_PIN_LOCKED, 0}};
    const OddFault fault = oddFault();
    if (fault.kind == "flood") {
        // Its code must stay when the program unloads this library.
        HMODULE self = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<LPCWSTR>(&writeForEver), &self);
        std::thread(writeForEver).detach();
    }
    for (const Kind& kind : kinds) {
        if (fault.kind == kind.name)
            control.addFault(fault.function.c_str(), kind.fault, kind.value, kind.nth);
    }
}

template <typename Function>
Function exportOf(HMODULE library, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace

}  // namespace NV::test

extern "C" CK_RV NV_CK_CALL C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    using namespace NV::test;
    static const HMODULE token = LoadLibraryW(L"scripted_token.dll");
    if (token == nullptr)
        return CKR_GENERAL_ERROR;
    static const bool added = [] {
        const auto& control = *exportOf<GetScriptedTokenControl>(token, "ScriptedTokenControl")();
        const bool second = oddFault().function == "second";
        if (second)
            control.putSlot(kOtherSlot, kSlotFlags, kTokenFlags);
        addObjects(control, second ? kOtherSlot : kSlot);
        addFault(control);
        return true;
    }();
    static_cast<void>(added);
    return exportOf<CK_C_GetFunctionList>(token, "C_GetFunctionList")(list);
}
