// The mutex callbacks that a PKCS#11 library gets when the caller of C_Initialize passes no init
// arguments.

#pragma once

#include <memory>

#include "p11/cryptoki.h"

namespace NV {

// Init arguments with the four callbacks over std::mutex.
//
// CreateMutex returns CKR_HOST_MEMORY when there is no memory. The others accept a null handle and
// return CKR_OK. LockMutex throws std::system_error when the platform refuses the lock.
//
// On the thread that ends the process, LockMutex does not wait: the thread that holds the mutex may
// be gone, or be this one, in a call that never returns. It returns CKR_OK without the mutex, so that
// the library goes on to finalize, and the UnlockMutex that belongs to it releases nothing.
std::unique_ptr<CK_C_INITIALIZE_ARGS> initArgsWithMutexes();

}  // namespace NV
