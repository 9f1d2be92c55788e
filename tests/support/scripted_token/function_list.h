// The scripted token's function list and its scripted variants. Used by control.cpp.

#pragma once

#include <string>

#include "scripted_token_control.h"

namespace NV::scripted {

// How the list is made whenever C_GetFunctionList is called. Call with tokenMutex held.
void resetFunctionList();
void setListMode(test::ListMode mode);
void addNullListEntry(std::string function);

bool isFunctionName(const std::string& name);

}  // namespace NV::scripted
