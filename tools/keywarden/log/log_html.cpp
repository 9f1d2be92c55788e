// The time lines as a page of plain HTML and CSS, without scripts and external resources.

#include <algorithm>
#include <cstdio>

#include "log/log_report.h"

namespace NV::tool {

namespace {

constexpr const char* style = R"(
body { font: 14px/1.5 system-ui, sans-serif; margin: 2em auto; max-width: 72em; padding: 0 1em;
       color: #1d2733; background: #fff; }
h1 { font-size: 1.3em; margin-bottom: .2em; }
.key { color: #55606b; }
.key i { display: inline-block; width: .9em; height: .9em; border-radius: 2px; margin: 0 .3em 0 1em;
         vertical-align: -.1em; }
.key .call { position: static; }
.operation { border-top: 1px solid #d5dce3; padding: .7em 0 .5em; }
.head { display: flex; gap: 1em; align-items: baseline; }
.head b { min-width: 9em; }
.head .time { color: #55606b; }
.head .elapsed { min-width: 8em; text-align: right; font-variant-numeric: tabular-nums; }
.head .status { margin-left: auto; font-family: monospace; }
.failed .status, .failed .elapsed, .error { color: #b3261e; }
.line { position: relative; height: 1.6em; background: #f0f3f6; border-radius: 3px; margin: .3em 0;
        overflow: hidden; }
.call { position: absolute; top: 0; bottom: 0; min-width: 2px; background: #2f6f9a;
        border-right: 1px solid #fff; box-sizing: border-box; overflow: hidden; color: #fff;
        font: 11px/2 monospace; white-space: nowrap; }
.call span { padding-left: .5em; }
.call.dialog { background: #c9d6df; color: #1d2733; }
.call.bad { background: #b3261e; }
table { border-collapse: collapse; font-size: 12px; margin: .3em 0 .8em; }
td, th { padding: .1em 1.5em .1em 0; text-align: left; }
.calls td { font-family: monospace; }
.number { text-align: right; font-variant-numeric: tabular-nums; }
td.bad { color: #b3261e; }
summary { cursor: pointer; color: #55606b; font-size: 12px; }
.error { font-family: monospace; font-size: 12px; overflow-wrap: anywhere; }
)";

// The least width of a bar that contains the name of its call, in percent of the line.
constexpr double widthForName = 9;

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

// The position of a call on the line of its operation, in milliseconds.
struct Bar {
    double begin;
    double width;
};

// A call that did not return gets a visible width: a tenth of the time before it.
double widthOf(const TokenCall& call, double begin)
{
    return call.result == noReturn ? std::max(begin / 10, 1.0) : call.elapsed;
}

// A bar never begins before the end of the previous one, because a thread makes one call at a time.
// The records have whole milliseconds only, so short calls would overlap otherwise.
std::vector<Bar> barsOf(const Operation& operation)
{
    std::vector<Bar> bars;
    double end = 0;
    for (const TokenCall& call : operation.calls) {
        const auto begin = static_cast<double>(call.begun - operation.begun);
        bars.push_back({std::max(begin, end), widthOf(call, std::max(begin, end))});
        end = bars.back().begin + bars.back().width;
    }
    return bars;
}

void appendBars(std::string& page, const Operation& operation)
{
    const std::vector<Bar> bars = barsOf(operation);
    // Never zero, and long enough for every call: the times of the records and ELAPSED can differ by
    // a millisecond.
    double span = std::max(operation.elapsed, 0.001);
    for (const Bar& bar : bars)
        span = std::max(span, bar.begin + bar.width);
    page += "<div class=\"line\">";
    for (size_t i = 0; i < bars.size(); ++i) {
        const TokenCall& call = operation.calls[i];
        const double width = bars[i].width / span * 100;
        page += std::string("<div class=\"") + callClass(call) +
                "\" style=\"left:" + percent(bars[i].begin / span * 100) +
                ";width:" + percent(width) + "\" title=\"" +
                escape(call.name + (call.result.empty() ? "" : " " + call.result)) + ", " +
                milliseconds(call.elapsed) + "\">" +
                (width >= widthForName ? "<span>" + escape(call.name) + "</span>" : "") + "</div>";
    }
    page += "</div>\n";
}

// Shows the list opened if something failed.
void appendCalls(std::string& page, const Operation& operation, bool open)
{
    page += std::string(open ? "<details open>" : "<details>") + "<summary>" +
            std::to_string(operation.calls.size()) + " steps, log line " +
            std::to_string(operation.line) + ", process " + escape(operation.process) +
            ", thread " + escape(operation.thread) + "</summary><table class=\"calls\">\n";
    for (const TokenCall& call : operation.calls)
        page += "<tr><td class=\"number\">" + milliseconds(call.elapsed) + "</td><td>" +
                escape(call.name) + "</td><td" + (call.failed() ? " class=\"bad\">" : ">") +
                escape(call.result) + "</td></tr>\n";
    page += "</table></details>\n";
}

void appendFigures(std::string& page, const std::vector<Operation>& operations)
{
    page += "<table><tr><th>operation</th><th class=\"number\">count</th>"
            "<th class=\"number\">failed</th><th class=\"number\">median</th>"
            "<th class=\"number\">95 %</th><th class=\"number\">longest</th></tr>\n";
    const auto cell = [](const std::string& text) {
        return "<td class=\"number\">" + text + "</td>";
    };
    for (const OperationFigures& row : figuresOf(operations))
        page += "<tr><td>" + escape(row.name) + "</td>" + cell(std::to_string(row.count)) +
                cell(std::to_string(row.failures)) + cell(milliseconds(row.median)) +
                cell(milliseconds(row.percentile95)) + cell(milliseconds(row.maximum)) + "</tr>\n";
    page += "</table>\n";
}

void appendOperation(std::string& page, const Operation& operation, bool secrets)
{
    const bool failed = operation.failed() || !operation.finished;
    page += std::string("<div class=\"operation") + (failed ? " failed" : "") +
            "\"><div class=\"head\"><b>" + escape(operation.name) + "</b><span class=\"time\">" +
            escape(operation.time) + "</span><span class=\"elapsed\">" +
            (operation.finished ? milliseconds(operation.elapsed) : "not finished") +
            "</span><span class=\"status\">" + (failed ? escape(statusOf(operation)) : "") +
            "</span></div>\n";
    appendBars(page, operation);
    for (const LogRecord& error : operation.errors)
        page += "<div class=\"error\">" +
                escape(secrets ? error.message : withoutSecrets(error.message)) + "</div>\n";
    appendCalls(page, operation, failed);
    page += "</div>\n";
}

}  // namespace

std::string toHtml(const std::vector<Operation>& operations, const std::string& title, bool secrets)
{
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>" +
        escape(title) + "</title>\n<style>" + style + "</style></head><body>\n<h1>" +
        escape(title) + "</h1>\n<p class=\"key\">" + std::to_string(operations.size()) +
        " operations, each on its own scale."
        "<i class=\"call\"></i>call of the PKCS#11 library"
        "<i class=\"call bad\"></i>call that failed"
        "<i class=\"call dialog\"></i>PIN dialog</p>\n";
    appendFigures(page, operations);
    for (const Operation& operation : operations)
        appendOperation(page, operation, secrets);
    return page + "</body></html>\n";
}

}  // namespace NV::tool
