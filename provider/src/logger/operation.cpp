// The record of an operation's end.

#include "logger/operation.h"

#include <cstdio>

#include "base/scope_exit.h"
#include "base/text.h"

namespace NV {

namespace {

constexpr size_t mostOfKey = 256;  // characters

constinit thread_local Operation* current = nullptr;

std::string printableKey(std::wstring_view name)
{
    std::string text = toUtf8(name.substr(0, mostOfKey));
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    }
    return text;
}

// "CKR_PIN_INCORRECT" from "000000a0(CKR_PIN_INCORRECT)"; the number if the text has no parentheses.
std::string nameOf(uint32_t result, const char* (*textOf)(uint32_t))
{
    const std::string_view text = textOf(result);
    const size_t begin = text.find('(') + 1;
    const size_t end = text.rfind(')');
    if (begin != 0 && end != std::string_view::npos && begin < end)
        return std::string(text.substr(begin, end - begin));
    char number[16];
    std::snprintf(number, sizeof number, "0x%08x", result);
    return number;
}

}  // namespace

Operation::Operation(const Site& site) noexcept : site_(site)
{
    if (!loggerSettings().gatesAllLevels || !loggerTakes(LogLevel::INF))
        return;
    begun_ = Clock::now();
    outer_ = current;
    current = this;
}

Operation::~Operation()
{
    if (begun_)
        current = outer_;
}

int32_t Operation::end(int32_t status, int line, const char* path) const noexcept
{
    if (!begun_)
        return status;
    quietly([&] {
        const std::chrono::duration<double, std::milli> elapsed = Clock::now() - *begun_;
        std::string more;
        if (status != 0 && result_ != 0)
            more += ", RESULT=" + nameOf(result_, textOf_);
        if (!key_.empty())
            more += ", KEY=" + printableKey(key_);
        NV_LINE(INF, site_, baseName(path), line, "DONE, STATUS=0x%x, ELAPSED:%.3f(ms)%s",
                static_cast<unsigned>(status), elapsed.count(), more.c_str());
    });
    return status;
}

void noteKey(std::wstring_view name) noexcept
{
    // First the settings: where no record is written, the thread has no memory of its own for this.
    if (!loggerSettings().gatesAllLevels || current == nullptr)
        return;
    if (!current->key_.empty())
        return;
    quietly([name] { current->key_ = name.substr(0, mostOfKey + 1); });
}

void noteResult(uint32_t result, const char* (*textOf)(uint32_t)) noexcept
{
    if (!loggerSettings().gatesAllLevels || current == nullptr || result == 0)
        return;
    if (current->result_ != 0)
        return;
    current->result_ = result;
    current->textOf_ = textOf;
}

void forgetResult() noexcept
{
    if (loggerSettings().gatesAllLevels && current != nullptr)
        current->result_ = 0;
}

}  // namespace NV
