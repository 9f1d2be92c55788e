// The one value.

#include "config/mode.h"

namespace NV {

namespace {

constinit Mode current;

}  // namespace

const Mode& mode()
{
    return current;
}

void setMode(const Mode& mode)
{
    current = mode;
}

}  // namespace NV
