// The calling thread's last error.

#include "last_error.h"

#include <cerrno>

namespace {

thread_local DWORD lastError = 0;

}  // namespace

DWORD GetLastError()
{
    return lastError;
}

void SetLastError(DWORD error)
{
    lastError = error;
}

namespace NV::stand_in {

BOOL failed(LONG error)
{
    SetLastError(static_cast<DWORD>(error));
    return FALSE;
}

LONG systemError(int number)
{
    switch (number) {
    case ENOENT:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
        return ERROR_ACCESS_DENIED;
    case EEXIST:
        return ERROR_FILE_EXISTS;
    case ENAMETOOLONG:
    case EINVAL:
        return ERROR_INVALID_NAME;
    case ENOSPC:
        return ERROR_DISK_FULL;
    default:
        return ERROR_INVALID_PARAMETER;
    }
}

}  // namespace NV::stand_in
