// The program of the classic behaviour.

#include "world.h"

namespace NV::fuzz {

const Behaviour testedBehaviour = Behaviour::classic;

}  // namespace NV::fuzz
