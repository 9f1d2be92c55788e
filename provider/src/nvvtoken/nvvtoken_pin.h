// What the PIN dialog is told about the key that an operation uses. For Provider::enterPIN.

#pragma once

#include "base/cng.h"

#include "certstore/certstore.h"
#include "keystore/keystore_key.h"
#include "p11/module.h"
#include "p11/p11.h"
#include "pindialog/pindialog.h"

namespace NV {

// The names of the key and its token, and the token's warning. Asks the token for its information of
// now. If the token does not give it, the label is the one of the opening, and there is no warning.
PINSubject pinSubject(Pkcs11& p11, const P11Slot& slot, const P11KeyObject& key,
                      const CertStore& certStore);

// What the token's flags say about the tries that are left.
PINWarning tokenWarning(const CK_TOKEN_INFO& token);

}  // namespace NV
