// The data of the page, and its frame.

#include "log/log_page.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <functional>
#include <vector>

#include "formats/html_text.h"
#include "log/log_report.h"
#include "output.h"

namespace NV::tool {

namespace {

// A damaged log could have any number of names. The number 0 stands for the others.
constexpr size_t mostTexts = 100'000;
constexpr std::string_view otherText = "...";

// Bits of a row; the script has the same.
enum RowFlag : unsigned { isBad = 1, isFinished = 2, isTraced = 4, isSizeQuery = 8 };

// JSON that can stand in an element of the page: without "<", it can neither end the element nor begin
// a comment.
std::string embedded(const Json& json)
{
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string safe;
    safe.reserve(text.size());
    for (const char c : text) {
        if (c == '<')
            safe += "\\u003c";
        else
            safe += c;
    }
    return safe;
}

unsigned flagsOf(const Operation& operation)
{
    return (operation.failed() || !operation.finished ? isBad : 0U) |
           (operation.finished ? isFinished : 0U) | (operation.traced ? isTraced : 0U) |
           (operation.sizeQuery ? isSizeQuery : 0U);
}

Json kindsOf(const LogSummary& summary)
{
    Json kinds = Json::array();
    for (const FailureKind& kind : summary.failureKinds())
        kinds.push_back({{"name", kind.name},
                         {"status", kind.status},
                         {"reason", kind.reason},
                         {"count", kind.count},
                         {"file", kind.latest.file},
                         {"line", kind.latest.line}});
    return kinds;
}

Json figuresOf(const LogSummary& summary)
{
    Json figures = Json::array();
    for (const OperationFigures& row : summary.figures())
        figures.push_back(toJson(row));
    return figures;
}

}  // namespace

size_t LogPage::indexOf(std::string_view text)
{
    if (texts_.empty())
        texts_.emplace(otherText, 0);
    if (const auto known = texts_.find(text); known != texts_.end())
        return known->second;
    if (texts_.size() >= mostTexts)
        return 0;
    return texts_.emplace(text, texts_.size()).first->second;
}

// A log can have a million calls, so the row is put together as text. The script has the order of the
// values, too.
void LogPage::add(const Operation& operation)
{
    std::string row = "[";
    const auto number = [&row](auto value) {
        if (row.back() != '[')
            row += ',';
        row += std::to_string(value);
    };
    const auto text = [&row](std::string_view value) {
        if (row.back() != '[')
            row += ',';
        row += embedded(Json(value));
    };
    number(indexOf(operation.name));
    number(operation.begun);
    number(toMicros(operation.elapsed));
    number(flagsOf(operation));
    number(indexOf(statusOf(operation)));
    number(indexOf(meaningOf(operation)));
    text(operation.process);
    text(operation.thread);
    number(indexOf(operation.program));
    text(operation.key);
    number(operation.file);
    number(operation.line);
    row += ",[";
    const std::vector<Bar> bars = barsOf(operation);
    for (size_t i = 0; i < bars.size(); ++i) {
        const TokenCall& call = operation.calls[i];
        number(indexOf(call.name));
        number(indexOf(call.result));
        number(toMicros(bars[i].begin));
        number(toMicros(bars[i].width));
        number(call.failed() ? 1 : 0);
    }
    row += "],[";
    for (const std::string& error : operation.errors)
        text(secrets_ ? error : withoutSecrets(error));
    row += "]]";
    const bool bad = operation.failed() || !operation.finished;
    std::deque<Row>& rows = bad ? failed_ : others_;
    rows.emplace_back(operation.begun, std::move(row));
    if (rows.size() > (bad ? mostFailed_ : mostOthers_)) {
        rows.pop_front();
        ++leftOut_;
    }
}

std::string LogPage::text(const std::string& title, const LogSummary& summary) const
{
    std::vector<const Row*> rows;
    rows.reserve(failed_.size() + others_.size());
    for (const auto* some : {&failed_, &others_}) {
        for (const Row& row : *some)
            rows.push_back(&row);
    }
    std::ranges::stable_sort(rows, {}, &Row::first);

    std::vector<std::string> texts(std::max<size_t>(texts_.size(), 1));
    for (const auto& [text, number] : texts_)
        texts[number] = text;
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                       // Nothing is fetched, whatever a log contains.
                       "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                       "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n"
                       "<meta name=\"viewport\" content=\"width=device-width\">\n<title>" +
                       htmlText(title) + "</title>\n<style>";
    page += pageStyle;
    page +=
        "</style></head>\n<body><noscript>This page needs JavaScript, which comes with it.</noscript>\n"
        "<script type=\"application/json\" id=\"data\">{\"title\":" +
        embedded(Json(title)) + ",\"leftOut\":" + std::to_string(leftOut_) +
        ",\"untraced\":" + std::to_string(summary.untraced()) +
        ",\"failures\":" + std::to_string(summary.failures()) +
        ",\"kinds\":" + embedded(kindsOf(summary)) +
        ",\"figures\":" + embedded(figuresOf(summary)) + ",\"texts\":" + embedded(Json(texts)) +
        ",\"operations\":[\n";
    for (size_t i = 0; i < rows.size(); ++i) {
        page += rows[i]->second;
        page += i + 1 < rows.size() ? ",\n" : "\n";
    }
    page += "]}</script>\n<script>";
    page += pageScript;
    return page + "</script>\n</body></html>\n";
}

}  // namespace NV::tool
