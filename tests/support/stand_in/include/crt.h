// What Windows' C library has besides the functions of the standard. Included before each source, because
// those of Windows are in the standard headers.

#pragma once

#include <malloc.h>

#include <cstdlib>

// Windows names them.
// NOLINTBEGIN(readability-identifier-naming)

// An empty value removes the variable.
inline int _putenv_s(const char* name, const char* value)
{
    return *value != '\0' ? setenv(name, value, 1) : unsetenv(name);
}

// The size of a block of the C heap.
inline size_t _msize(void* block)
{
    return malloc_usable_size(block);
}

// NOLINTEND(readability-identifier-naming)
