// Collecting the results of the steps.

#include "check/check.h"

namespace NV::tool {

void Findings::ok(const std::string& name, const std::string& text)
{
    steps.push_back({name, Outcome::ok, text, {}, {}});
}

void Findings::warn(const std::string& name, const std::string& text, const std::string& advice)
{
    steps.push_back({name, Outcome::warning, text, advice, {}});
}

void Findings::fail(const std::string& name, const std::string& text, const std::string& advice)
{
    steps.push_back({name, Outcome::failed, text, advice, {}});
}

void Findings::skip(const std::string& name, const std::string& text)
{
    steps.push_back({name, Outcome::skipped, text, {}, {}});
}

void Findings::detail(const std::string& text)
{
    steps.back().details.push_back(text);
}

}  // namespace NV::tool
