// The program of the modern behaviour.

#include "world.h"

namespace NV::fuzz {

const Behaviour testedBehaviour = Behaviour::modern;

}  // namespace NV::fuzz
