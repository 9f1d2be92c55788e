// The scripted token's function list and its scripted variants. Used by control.cpp.

#pragma once

#include <string>

#include "scripted_token_control.h"

namespace NV::scripted {

// How C_GetFunctionList makes the list at each call. The caller holds tokenMutex.
void resetFunctionList();
void setListMode(test::ListMode mode);
void addNullListEntry(std::string function);
// Whether the list that it gives lies in memory that cannot be written; from its next call on.
void setListReadOnly(bool readOnly);
// How that memory is protected now.
bool listReadOnly();

bool isFunctionName(const std::string& name);

}  // namespace NV::scripted
