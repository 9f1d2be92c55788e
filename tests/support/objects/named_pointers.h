// Addresses in log lines by the names of what is there, so that a test sees which pointer was
// printed. Used by all tests of this folder.

#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace NV::test {

using PointerNames = std::map<uintptr_t, std::string>;

inline uintptr_t addressOf(const void* object)
{
    return reinterpret_cast<uintptr_t>(object);
}

template <typename Function>
uintptr_t addressOfFunction(Function* function)
{
    return reinterpret_cast<uintptr_t>(function);
}

// Replaces each printed pointer that has a name by that name. Others, null and handles among them,
// stay as they were printed.
std::string withPointerNames(const std::string& text, const PointerNames& names);

// Replaces every occurrence.
std::string replaced(std::string text, const std::string& what, const std::string& by);

}  // namespace NV::test
