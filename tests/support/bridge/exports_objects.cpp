// Exports: objects, searches, and the functions that create keys.

#include <algorithm>
#include <vector>

#include "attributes.h"
#include "exports.h"
#include "mechanisms.h"

using namespace NV::bridge;

namespace {

// Searches are forwarded in pieces of this many handles, regardless of the caller's maximum.
constexpr native::CK_ULONG searchPiece = 1024;

CK_RV findObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE* found, CK_ULONG most,
                  CK_ULONG& count)
{
    std::vector<native::CK_OBJECT_HANDLE> piece(searchPiece);
    count = 0;
    for (;;) {
        const native::CK_ULONG wanted = std::min<native::CK_ULONG>(searchPiece, most - count);
        native::CK_ULONG received = 0;
        const CK_RV result =
            callNative(NV_NATIVE(C_FindObjects), hSession, piece.data(), wanted, &received);
        if (result != CKR_OK)
            return result;
        if (received > wanted)
            return CKR_GENERAL_ERROR;
        for (size_t i = 0; i < received; ++i)
            found[count++] = narrow(piece[i]);
        if (received < wanted || count == most)
            return CKR_OK;
    }
}

}  // namespace

NV_EXPORT(C_CreateObject,
          (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
           CK_OBJECT_HANDLE_PTR phObject),
          {
              InputTemplate attributes{pTemplate, ulCount};
              NewHandle object{phObject};
              return object.finish(callNative(NV_NATIVE(C_CreateObject), hSession,
                                              attributes.data(), attributes.count(), object.get()));
          })

NV_EXPORT(C_CopyObject,
          (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
           CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phNewObject),
          {
              InputTemplate attributes{pTemplate, ulCount};
              NewHandle object{phNewObject};
              return object.finish(callNative(NV_NATIVE(C_CopyObject), hSession, hObject,
                                              attributes.data(), attributes.count(), object.get()));
          })

NV_FORWARD(C_DestroyObject, (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject), hSession,
           hObject)

NV_EXPORT(C_GetObjectSize,
          (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ULONG_PTR pulSize), {
              InOut size{pulSize};
              return size.finish(
                  callNative(NV_NATIVE(C_GetObjectSize), hSession, hObject, size.get()));
          })

NV_EXPORT(C_GetAttributeValue,
          (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
           CK_ULONG ulCount),
          {
              OutputTemplate attributes{pTemplate, ulCount};
              return attributes.finish(callNative(NV_NATIVE(C_GetAttributeValue), hSession, hObject,
                                                  attributes.data(), attributes.count()));
          })

NV_EXPORT(C_SetAttributeValue,
          (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
           CK_ULONG ulCount),
          {
              InputTemplate attributes{pTemplate, ulCount};
              return callNative(NV_NATIVE(C_SetAttributeValue), hSession, hObject,
                                attributes.data(), attributes.count());
          })

NV_EXPORT(C_FindObjectsInit,
          (CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount), {
              InputTemplate attributes{pTemplate, ulCount};
              return callNative(NV_NATIVE(C_FindObjectsInit), hSession, attributes.data(),
                                attributes.count());
          })

NV_EXPORT(C_FindObjects,
          (CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
           CK_ULONG_PTR pulObjectCount),
          {
              if (phObject == nullptr || pulObjectCount == nullptr)
                  return CKR_ARGUMENTS_BAD;
              CK_ULONG count = 0;
              const CK_RV result = findObjects(hSession, phObject, ulMaxObjectCount, count);
              if (result == CKR_OK)
                  *pulObjectCount = count;
              return result;
          })

NV_FORWARD(C_FindObjectsFinal, (CK_SESSION_HANDLE hSession), hSession)

NV_EXPORT(C_GenerateKey,
          (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_ATTRIBUTE_PTR pTemplate,
           CK_ULONG ulCount, CK_OBJECT_HANDLE_PTR phKey),
          {
              Mechanism mechanism{pMechanism};
              InputTemplate attributes{pTemplate, ulCount};
              NewHandle key{phKey};
              return key.finish(callNative(NV_NATIVE(C_GenerateKey), hSession, mechanism.get(),
                                           attributes.data(), attributes.count(), key.get()));
          })

NV_EXPORT(C_GenerateKeyPair,
          (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism,
           CK_ATTRIBUTE_PTR pPublicKeyTemplate, CK_ULONG ulPublicKeyAttributeCount,
           CK_ATTRIBUTE_PTR pPrivateKeyTemplate, CK_ULONG ulPrivateKeyAttributeCount,
           CK_OBJECT_HANDLE_PTR phPublicKey, CK_OBJECT_HANDLE_PTR phPrivateKey),
          {
              Mechanism mechanism{pMechanism};
              InputTemplate publicKey{pPublicKeyTemplate, ulPublicKeyAttributeCount};
              InputTemplate privateKey{pPrivateKeyTemplate, ulPrivateKeyAttributeCount};
              NewHandle publicHandle{phPublicKey};
              NewHandle privateHandle{phPrivateKey};
              const CK_RV result =
                  callNative(NV_NATIVE(C_GenerateKeyPair), hSession, mechanism.get(),
                             publicKey.data(), publicKey.count(), privateKey.data(),
                             privateKey.count(), publicHandle.get(), privateHandle.get());
              return privateHandle.finish(publicHandle.finish(result));
          })

NV_EXPORT(C_WrapKey,
          (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hWrappingKey,
           CK_OBJECT_HANDLE hKey, CK_BYTE_PTR pWrappedKey, CK_ULONG_PTR pulWrappedKeyLen),
          {
              Mechanism mechanism{pMechanism};
              InOut length{pulWrappedKeyLen};
              return length.finish(callNative(NV_NATIVE(C_WrapKey), hSession, mechanism.get(),
                                              hWrappingKey, hKey, pWrappedKey, length.get()));
          })

NV_EXPORT(C_UnwrapKey,
          (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hUnwrappingKey,
           CK_BYTE_PTR pWrappedKey, CK_ULONG ulWrappedKeyLen, CK_ATTRIBUTE_PTR pTemplate,
           CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey),
          {
              Mechanism mechanism{pMechanism};
              InputTemplate attributes{pTemplate, ulAttributeCount};
              NewHandle key{phKey};
              return key.finish(callNative(NV_NATIVE(C_UnwrapKey), hSession, mechanism.get(),
                                           hUnwrappingKey, pWrappedKey, ulWrappedKeyLen,
                                           attributes.data(), attributes.count(), key.get()));
          })

NV_EXPORT(C_DeriveKey,
          (CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hBaseKey,
           CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulAttributeCount, CK_OBJECT_HANDLE_PTR phKey),
          {
              Mechanism mechanism{pMechanism};
              InputTemplate attributes{pTemplate, ulAttributeCount};
              NewHandle key{phKey};
              return key.finish(callNative(NV_NATIVE(C_DeriveKey), hSession, mechanism.get(),
                                           hBaseKey, attributes.data(), attributes.count(),
                                           key.get()));
          })
