// keywarden explain: what a result of PKCS#11 or a status of CNG means.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "command/commands.h"
#include "failure.h"
#include "keystore/token_status.h"
#include "session.h"
#include "system/explanation.h"
#include "text.h"
#include "whole_number.h"

namespace NV::tool {

namespace {

// The results from here on are the vendors' own (CKR_VENDOR_DEFINED).
constexpr uint32_t vendorsOwn = 0x80000000;

// 0xA4 as in C, 000000a4 as in the log, 164, and -2146893779 as PowerShell shows a status.
std::optional<uint32_t> valueOf(std::string_view text)
{
    constexpr size_t digitsInLog = 8;
    if (text.starts_with("0x") || text.starts_with("0X"))
        return wholeNumber<uint32_t>(text.substr(2), 16);
    if (text.size() == digitsInLog)
        return wholeNumber<uint32_t>(text, 16);
    if (text.starts_with('-')) {
        const auto number = wholeNumber<int32_t>(text);
        return number ? std::optional(static_cast<uint32_t>(*number)) : std::nullopt;
    }
    return wholeNumber<uint32_t>(text);
}

// The name in "000000a4(CKR_PIN_LOCKED)", the number in "000000a4(UNKNOWN)"; all of any other text.
std::string_view withoutBrackets(std::string_view text)
{
    const size_t open = text.find('(');
    if (open == std::string_view::npos || !text.ends_with(')'))
        return text;
    const std::string_view name = text.substr(open + 1, text.size() - open - 2);
    return explain(name) != nullptr ? name : text.substr(0, open);
}

std::string named(const Explanation& row)
{
    return std::string(row.name) + " (" + hexText(static_cast<SECURITY_STATUS>(row.value)) + ")";
}

const Explanation& find(const std::string& text)
{
    const std::string_view wanted = withoutBrackets(text);
    if (const auto value = valueOf(wanted)) {
        if (const Explanation* row = explain(*value))
            return *row;
        const std::string number = hexText(static_cast<SECURITY_STATUS>(*value));
        throw Failure("no result or status is known with the value " + number,
                      *value >= vendorsOwn
                          ? "As a PKCS#11 result, it is one of the vendor's own: look in the "
                            "documentation of the token's library."
                          : "");
    }
    if (const Explanation* row = explain(wanted))
        return *row;
    const std::string_view nearest = nearestName(wanted);
    throw Failure("no result or status is known with the name \"" + text + "\"",
                  nearest.empty() ? "" : "Did you mean " + std::string(nearest) + "?");
}

Json toJson(const Explanation& row)
{
    Json results = Json::array();
    for (const Explanation* result : resultsOfStatus(row.value))
        results.push_back(result->name);
    const bool failedResult = isResult(row) && row.value != CKR_OK;
    return {{"name", row.name},
            {"value", hexText(static_cast<SECURITY_STATUS>(row.value))},
            {"kind", isResult(row) ? "result" : "status"},
            {"meaning", row.meaning},
            {"advice", row.advice},
            {"exitCode", static_cast<int>(row.exitCode)},
            {"status", failedResult ? Json(statusOfResult(row.value).name) : Json()},
            {"results", results}};
}

void show(Output& out, const Explanation& row)
{
    out.line(named(row) + (isResult(row) ? ", a result of PKCS#11" : ", a status of CNG"));
    out.line("  " + std::string(row.meaning));
    if (!row.advice.empty())
        out.line("  " + std::string(row.advice));
    if (isResult(row) && row.value != CKR_OK)
        out.line("  Status of the operation: in modern " + named(statusOfResult(row.value)) +
                 ", in classic " + std::string(otherTokenFailure.name));
    std::vector<std::string> results;
    for (const Explanation* result : resultsOfStatus(row.value))
        results.push_back(named(*result));
    if (!results.empty())
        out.line("  In modern, the status of " + joined(results));
    out.line("  Exit code of keywarden: " + std::to_string(static_cast<int>(row.exitCode)));
}

}  // namespace

void addExplain(CLI::App& program, Session& session)
{
    const auto text = std::make_shared<std::string>();
    CLI::App& command =
        *program.add_subcommand("explain", "Explain a PKCS#11 result or a status of CNG");
    command
        .add_option("VALUE", *text,
                    "Name or number, such as CKR_PIN_LOCKED, 0xA4, 164 or 0x8009002D")
        ->required();
    command.callback([&session, text] {
        const Explanation& row = find(*text);
        show(session.out, row);
        session.out.document(toJson(row));
    });
}

}  // namespace NV::tool
