// Reading a token without a login.

#include "system/public_session.h"

#include <algorithm>
#include <array>

#include "p11/p11text.h"

namespace NV::tool {

PublicSession::PublicSession(Pkcs11& p11, CK_SLOT_ID slot)
    : p11_(p11), rv_(p11.module()->joined() ? CKR_OK : p11.C_Initialize(nullptr)),
      initialised_(rv_ == CKR_OK && !p11.module()->joined())
{
    if (rv_ == CKR_OK)
        rv_ = p11_.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &handle_);
    open_ = rv_ == CKR_OK;
}

PublicSession::~PublicSession()
{
    if (open_)
        p11_.C_CloseSession(handle_);
    if (initialised_)
        p11_.C_Finalize(nullptr);
}

bool PublicSession::hasPublicKey(const Bytes& id)
{
    constexpr CK_OBJECT_CLASS objectClass = CKO_PUBLIC_KEY;
    std::array search = {attribute(CKA_CLASS, &objectClass, sizeof objectClass),
                         attribute(CKA_ID, id.data(), id.size())};
    if (p11_.C_FindObjectsInit(handle_, search.data(), search.size()) != CKR_OK)
        return false;
    CK_OBJECT_HANDLE object = 0;
    CK_ULONG count = 0;
    const CK_RV rv = p11_.C_FindObjects(handle_, &object, 1, &count);
    p11_.C_FindObjectsFinal(handle_);
    return rv == CKR_OK && count > 0;
}

}  // namespace NV::tool
