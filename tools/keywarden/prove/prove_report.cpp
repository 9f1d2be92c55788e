// The words and the marks of each outcome, and what is put together from them.

#include "prove/prove_report.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include <nlohmann/json.hpp>

#include "formats/html_text.h"
#include "nvvtoken/nvvtoken_name.h"
#include "printable.h"
#include "system/explanation.h"
#include "text.h"

namespace NV::tool {

namespace {

struct OutcomeWords {
    ProofOutcome outcome;
    const char* json;  // scripts rely on it; also the class on the page
    const char* words;
    const char* mark;  // at the beginning of a line
    Colour colour;
};

constexpr OutcomeWords outcomeWords[] = {
    {ProofOutcome::done, "done", "done", "done        ", Colour::green},
    {ProofOutcome::failed, "failed", "failed", "FAILED      ", Colour::red},
    {ProofOutcome::notPossible, "not-possible", "not possible here", "not possible",
     Colour::yellow},
    {ProofOutcome::notTried, "not-tried", "not tried", "not tried   ", Colour::dim},
};

const OutcomeWords& wordsOf(ProofOutcome outcome)
{
    return *std::ranges::find(outcomeWords, outcome, &OutcomeWords::outcome);
}

// Not GetVersionEx, which says 6.2 to programs that do not name later versions.
std::string systemVersion()
{
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    const auto read = reinterpret_cast<LONG(WINAPI*)(OSVERSIONINFOW*)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    if (read == nullptr || read(&version) != 0)
        return "Windows";
    return "Windows " + std::to_string(version.dwMajorVersion) + "." +
           std::to_string(version.dwMinorVersion) + "." + std::to_string(version.dwBuildNumber);
}

std::string presentTime()
{
    SYSTEMTIME time{};
    GetSystemTime(&time);
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02dZ", time.wYear, time.wMonth,
                  time.wDay, time.wHour, time.wMinute, time.wSecond);
    return text;
}

Json orNothing(const std::string& text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

std::string nameOfStatus(const Proof& proof)
{
    const Explanation* row = proof.status ? explain(static_cast<uint32_t>(*proof.status)) : nullptr;
    return row != nullptr ? std::string(row->name) : std::string();
}

Json jsonOf(const Proof& proof)
{
    return {{"name", proof.step},
            {"key", orNothing(proof.key)},
            {"outcome", wordsOf(proof.outcome).json},
            {"text", proof.text},
            {"advice", proof.advice},
            {"status", orNothing(proof.status ? hexText(*proof.status) : std::string())},
            {"statusName", orNothing(nameOfStatus(proof))}};
}

// Safe to show, whatever a token or the system says.
std::string shown(const std::string& text)
{
    return htmlText(printable(text));
}

std::string cell(const std::string& text)
{
    return "<td>" + text + "</td>";
}

constexpr const char* pageHead =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
    "'unsafe-inline'\">\n"
    "<meta name=\"viewport\" content=\"width=device-width\">\n<title>keywarden prove</title>\n"
    "<style>\n"
    ":root { color-scheme: light dark; }\n"
    "body { font: 14px/1.5 system-ui, sans-serif; margin: 1.5em auto; max-width: 76em; "
    "padding: 0 1em; }\n"
    "table { border-collapse: collapse; }\n"
    "td, th { padding: .2em 1.2em .2em 0; text-align: left; vertical-align: top; }\n"
    ".done td:nth-child(3) { color: #2e7d32; }\n"
    ".failed td:nth-child(3) { color: #d32f2f; font-weight: bold; }\n"
    ".not-possible td:nth-child(3) { color: #b26a00; }\n"
    ".not-tried { opacity: .7; }\n"
    "</style></head>\n<body>\n";

}  // namespace

ProofPlace thisPlace(const std::string& version)
{
    return {version, systemVersion(), presentTime()};
}

size_t countOf(const std::vector<Proof>& proofs, ProofOutcome outcome)
{
    return static_cast<size_t>(std::ranges::count(proofs, outcome, &Proof::outcome));
}

std::vector<std::string> linesOf(const Output& out, const Proof& proof)
{
    const OutcomeWords& words = wordsOf(proof.outcome);
    std::vector<std::string> lines = {out.coloured(words.colour, words.mark) + "  " + proof.step +
                                      (proof.key.empty() ? "" : " " + proof.key) + ": " +
                                      proof.text};
    if (!proof.advice.empty())
        lines.push_back("              > " + proof.advice);
    return lines;
}

std::string summaryOf(const std::vector<Proof>& proofs)
{
    std::string text = std::to_string(proofs.size()) + " steps";
    for (const OutcomeWords& row : outcomeWords)
        text += std::string(&row == std::begin(outcomeWords) ? ": " : ", ") +
                std::to_string(countOf(proofs, row.outcome)) + " " + row.words;
    return text + ".";
}

Json reportOf(const ProofPlace& place, const std::vector<Proof>& proofs)
{
    Json report = {{"provider", toUtf8(providerName)},
                   {"version", place.version},
                   {"system", place.system},
                   {"time", place.time},
                   {"steps", Json::array()}};
    for (const Proof& proof : proofs)
        report["steps"].push_back(jsonOf(proof));
    report["done"] = countOf(proofs, ProofOutcome::done);
    report["failed"] = countOf(proofs, ProofOutcome::failed);
    report["notPossible"] = countOf(proofs, ProofOutcome::notPossible);
    report["notTried"] = countOf(proofs, ProofOutcome::notTried);
    return report;
}

std::string pageOf(const ProofPlace& place, const std::vector<Proof>& proofs)
{
    std::string page = pageHead;
    page += "<h1>" + shown(toUtf8(providerName)) + "</h1>\n<p>keywarden " + shown(place.version) +
            ", " + shown(place.system) + ", " + shown(place.time) + "</p>\n<p>" +
            shown(summaryOf(proofs)) + "</p>\n<table>\n<tr><th>step</th><th>key</th>" +
            "<th>outcome</th><th>what was seen</th><th>status</th></tr>\n";
    for (const Proof& proof : proofs) {
        const OutcomeWords& words = wordsOf(proof.outcome);
        const std::string advice =
            proof.advice.empty() ? std::string() : "<br><i>" + shown(proof.advice) + "</i>";
        page += std::string("<tr class=\"") + words.json + "\">" + cell(shown(proof.step)) +
                cell(shown(proof.key)) + cell(words.words) + cell(shown(proof.text) + advice) +
                cell(proof.status ? shown(statusText(*proof.status)) : std::string()) + "</tr>\n";
    }
    return page + "</table>\n</body></html>\n";
}

}  // namespace NV::tool
