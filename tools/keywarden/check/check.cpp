// Collecting the results of the steps.

#include "check/check.h"

namespace NV::tool {

void Findings::add(const std::string& name, Outcome outcome, const std::string& text,
                   const std::string& advice)
{
    flush();
    steps.push_back({name, outcome, text, advice, {}});
}

void Findings::ok(const std::string& name, const std::string& text)
{
    add(name, Outcome::ok, text, {});
}

void Findings::warn(const std::string& name, const std::string& text, const std::string& advice)
{
    add(name, Outcome::warning, text, advice);
}

void Findings::fail(const std::string& name, const std::string& text, const std::string& advice)
{
    add(name, Outcome::failed, text, advice);
}

void Findings::skip(const std::string& name, const std::string& text)
{
    add(name, Outcome::skipped, text, {});
}

void Findings::detail(const std::string& text)
{
    steps.back().details.push_back(text);
}

void Findings::begin(const std::string& name)
{
    flush();
    if (progress != nullptr)
        progress->begun(name);
}

void Findings::call(const std::string& function) const
{
    if (progress != nullptr)
        progress->calls(function);
}

void Findings::flush()
{
    for (; reported_ < steps.size(); ++reported_) {
        if (progress != nullptr)
            progress->ended(steps[reported_]);
    }
}

}  // namespace NV::tool
