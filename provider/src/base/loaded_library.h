// The owner of a loaded library.

#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace NV {

struct LibraryUnloader {
    void operator()(HMODULE library) const { FreeLibrary(library); }
};

// Null, or the result of LoadLibraryW and its variants.
using LoadedLibrary = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryUnloader>;

}  // namespace NV
