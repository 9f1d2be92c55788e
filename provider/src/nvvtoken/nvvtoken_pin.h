// How a provider operation runs token work that needs the PIN. For the provider's own files.

#pragma once

#include <mutex>

#include "logger/trace.h"
#include "nvvtoken/nvvtoken.h"

namespace NV {

template <typename Work>
SECURITY_STATUS Provider::withPIN(const Site& site, const Work& work)
{
    SECURITY_STATUS status = ERROR_SUCCESS;
    const SecretBytes pin = enterPIN(status);
    if (status != ERROR_SUCCESS)
        return status;
    NV_UNDER(TRC, site, "Success to retrive the entered pin = %d (bytes)",
             static_cast<int>(pin.size()));
    if (pin.empty())
        return ERROR_SUCCESS;
    // Only now: the dialog may stay open for as long as the user likes.
    const std::lock_guard sequence(sequenceLock());
    return work(pin);
}

}  // namespace NV
