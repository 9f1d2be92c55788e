// The time lines as a page: plain HTML and CSS, no script, nothing fetched from anywhere.

#include <algorithm>
#include <cstdio>

#include "log_report.h"

namespace NV::tool {

namespace {

constexpr const char* style = R"(
body { font: 14px/1.5 system-ui, sans-serif; margin: 2em auto; max-width: 72em; padding: 0 1em;
       color: #1d2733; background: #fff; }
h1 { font-size: 1.3em; }
.operation { border-top: 1px solid #d5dce3; padding: .6em 0; }
.head { display: flex; gap: 1em; align-items: baseline; }
.head b { min-width: 11em; }
.head .status { margin-left: auto; font-family: monospace; }
.failed .status, .error { color: #b3261e; }
.line { position: relative; height: 1.4em; background: #f0f3f6; border-radius: 3px; margin: .3em 0; }
.call { position: absolute; top: 0; bottom: 0; min-width: 2px; background: #3a7ca5;
        border-right: 1px solid #fff; box-sizing: border-box; }
.call.dialog { background: #c9d6df; }
.call.bad { background: #b3261e; }
table { border-collapse: collapse; font-size: 12px; margin: .3em 0; }
td { padding: 0 1.5em 0 0; font-family: monospace; }
td.time { text-align: right; }
summary { cursor: pointer; color: #55606b; font-size: 12px; }
.error { font-family: monospace; font-size: 12px; }
)";

std::string escape(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

std::string fixed(double value, int decimals)
{
    char text[48];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string milliseconds(double value)
{
    return fixed(value, 3) + " ms";
}

std::string percent(double value)
{
    return fixed(value, 2) + "%";
}

const char* callClass(const TokenCall& call)
{
    if (call.failed())
        return "call bad";
    return call.name == "PIN dialog" ? "call dialog" : "call";
}

// How long the operation's line is, in milliseconds: never zero, and long enough for every call,
// since the two clocks of a log (the records' and ELAPSED) do not agree to the last millisecond.
double spanOf(const Operation& operation)
{
    double span = std::max(operation.elapsed, 0.001);
    for (const TokenCall& call : operation.calls)
        span = std::max(span, static_cast<double>(call.begun - operation.begun) + call.elapsed);
    return span;
}

void appendBars(std::string& page, const Operation& operation)
{
    const double span = spanOf(operation);
    page += "<div class=\"line\">";
    for (const TokenCall& call : operation.calls) {
        const double left = static_cast<double>(call.begun - operation.begun) / span * 100;
        page += std::string("<div class=\"") + callClass(call) +
                "\" style=\"left:" + percent(std::max(left, 0.0)) +
                ";width:" + percent(call.elapsed / span * 100) + "\" title=\"" +
                escape(call.name + " " + call.result) + " " + milliseconds(call.elapsed) +
                "\"></div>";
    }
    page += "</div>\n";
}

void appendCalls(std::string& page, const Operation& operation)
{
    page += "<details><summary>" + std::to_string(operation.calls.size()) + " calls, log line " +
            std::to_string(operation.line) + ", process " + escape(operation.process) +
            ", thread " + escape(operation.thread) + "</summary><table>\n";
    for (const TokenCall& call : operation.calls)
        page += "<tr><td class=\"time\">" + milliseconds(call.elapsed) + "</td><td>" +
                escape(call.name) + "</td><td>" + escape(call.result) + "</td></tr>\n";
    page += "</table></details>\n";
}

void appendOperation(std::string& page, const Operation& operation, bool secrets)
{
    const bool failed = operation.failed() || !operation.finished;
    char status[32];
    std::snprintf(status, sizeof status, "0x%08x", static_cast<unsigned>(operation.status));
    page += std::string("<div class=\"operation") + (failed ? " failed" : "") +
            "\"><div class=\"head\"><b>" + escape(operation.name) + "</b><span>" +
            escape(operation.time) + "</span><span>" +
            (operation.finished ? milliseconds(operation.elapsed) : "not finished") +
            "</span><span class=\"status\">" + (operation.finished ? status : "") +
            "</span></div>\n";
    appendBars(page, operation);
    for (const LogRecord& error : operation.errors)
        page += "<div class=\"error\">" +
                escape(secrets ? error.message : withoutSecrets(error.message)) + "</div>\n";
    appendCalls(page, operation);
    page += "</div>\n";
}

}  // namespace

std::string toHtml(const std::vector<Operation>& operations, const std::string& title, bool secrets)
{
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>" +
        escape(title) + "</title>\n<style>" + style + "</style></head><body>\n<h1>" +
        escape(title) + "</h1>\n<p>" + std::to_string(operations.size()) +
        " operations. Blue: calls of the PKCS#11 library; red: calls that failed; "
        "grey: the PIN dialog.</p>\n";
    for (const Operation& operation : operations)
        appendOperation(page, operation, secrets);
    return page + "</body></html>\n";
}

}  // namespace NV::tool
