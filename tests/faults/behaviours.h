// The behaviour as a parameter of a suite.

#pragma once

#include <optional>
#include <string>

#include "config/mode.h"
#include "modern_mode.h"

namespace NV::test {

inline constexpr Behaviour behaviours[] = {Behaviour::classic, Behaviour::modern};

inline std::string nameOf(Behaviour behaviour)
{
    return behaviour == Behaviour::modern ? "modern" : "classic";
}

// A behaviour for the life of an object; see ModernMode.
class ModeOf {
public:
    explicit ModeOf(Behaviour behaviour)
    {
        if (behaviour == Behaviour::modern)
            modern_.emplace();
    }

private:
    std::optional<ModernMode> modern_;
};

}  // namespace NV::test
