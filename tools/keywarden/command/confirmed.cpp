// Asking on the terminal.

#include "command/confirmed.h"

#include <CLI/CLI.hpp>

#include <iostream>

#include "failure.h"
#include "session.h"

namespace NV::tool {

bool confirmed(const Session& session, const std::string& question)
{
    session.out.line(question + " (yes or no)?");
    std::string answer;
    std::getline(std::cin, answer);
    answer = CLI::detail::to_lower(CLI::detail::trim(answer));
    return answer == "yes" || answer == "y";
}

void requireAnswered(const Session& session, bool answered, const std::string& advice)
{
    if (session.out.json() && !answered)
        throw Failure("--json does not ask", advice);
}

}  // namespace NV::tool
