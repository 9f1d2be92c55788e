// The PIN dialog's place in the module's core: what answers a request for the PIN on this machine.

#pragma once

#include <functional>

#include "base/secret.h"
#include "pindialog/pindialog.h"

namespace NV::stand_in {

// Gets the request that the operation passed to the dialog. Returns the PIN, or throws
// PINDialogException as the dialog does. Runs on the thread of the operation.
using PinAnswer = std::function<SecretBytes(const PINRequest* request)>;

// From now on, for all threads. Without an answer, the PIN is empty, as when the dialog cannot be
// shown. Returns the previous one.
PinAnswer setPinAnswer(PinAnswer answer);

}  // namespace NV::stand_in
