// Reading a token without a login.

#include "system/public_session.h"

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
    if (open_ && handle_ != 0)
        p11_.C_CloseSession(handle_);
    if (initialised_)
        p11_.C_Finalize(nullptr);
}

}  // namespace NV::tool
