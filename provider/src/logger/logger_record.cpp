// Builds record lines. No state, no output.

#include "logger/logger_record.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace NV {

namespace {

constexpr size_t bannerWidth = 76;

// Appends pieces to a fixed buffer and remembers when one did not fit.
class BoundedText {
public:
    BoundedText(char* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    void append(std::string_view text)
    {
        if (text.size() >= capacity_ - length_) {
            overflow_ = true;
            return;
        }
        std::memcpy(buffer_ + length_, text.data(), text.size());
        length_ += text.size();
    }

    template <typename T>
    void appendFormatted(const char* conversion, T value)
    {
// The conversion is a piece of a format that the compiler has checked at the level function.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int written =
            std::snprintf(buffer_ + length_, capacity_ - length_, conversion, value);
#pragma GCC diagnostic pop
        if (written < 0 || static_cast<size_t>(written) >= capacity_ - length_)
            overflow_ = true;
        else
            length_ += static_cast<size_t>(written);
    }

    // Ends the text; gives its length, 0 when a piece was lost.
    size_t finish()
    {
        if (overflow_)
            length_ = 0;
        buffer_[length_] = '\0';
        return length_;
    }

private:
    char* buffer_;
    size_t capacity_;
    size_t length_ = 0;
    bool overflow_ = false;
};

void appendUtf8(std::string& text, uint32_t point)
{
    const auto byte = [&text](uint32_t value) { text.push_back(static_cast<char>(value)); };
    if (point < 0x80) {
        byte(point);
    } else if (point < 0x800) {
        byte(0xC0 | point >> 6);
        byte(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        byte(0xE0 | point >> 12);
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    } else {
        byte(0xF0 | point >> 18);
        byte(0x80 | (point >> 12 & 0x3F));
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    }
}

constexpr bool isHighSurrogate(uint32_t unit)
{
    return unit >= 0xD800 && unit < 0xDC00;
}

constexpr bool isLowSurrogate(uint32_t unit)
{
    return unit >= 0xDC00 && unit < 0xE000;
}

std::string toUtf8(const wchar_t* wide)
{
    std::string text;
    while (*wide != 0) {
        uint32_t point = static_cast<uint32_t>(*wide++);
        const uint32_t next = static_cast<uint32_t>(*wide);
        if (isHighSurrogate(point) && isLowSurrogate(next)) {
            point = 0x10000 + ((point - 0xD800) << 10) + (next - 0xDC00);
            ++wide;
        } else if (isHighSurrogate(point) || isLowSurrogate(point)) {
            point = 0xFFFD;
        }
        appendUtf8(text, point);
    }
    return text;
}

// One conversion of a printf format, with each "*" replaced by its argument.
struct Conversion {
    std::string text = "%";
    int longs = 0;
    char kind = '\0';
};

const char* parseConversion(const char* format, va_list* arguments, Conversion& conversion)
{
    for (; *format != '\0'; ++format) {
        const char c = *format;
        if (c == '*')
            conversion.text += std::to_string(va_arg(*arguments, int));
        else if (std::strchr("-+ #.0123456789", c) != nullptr)
            conversion.text += c;
        else if (c == 'l') {
            ++conversion.longs;
            conversion.text += c;
        } else
            break;
    }
    conversion.kind = *format;
    if (conversion.kind == '\0')
        return format;
    conversion.text += conversion.kind;
    return format + 1;
}

void appendInteger(BoundedText& out, const Conversion& conversion, va_list* arguments)
{
    if (conversion.longs == 0)
        out.appendFormatted(conversion.text.c_str(), va_arg(*arguments, int));
    else if (conversion.longs == 1)
        out.appendFormatted(conversion.text.c_str(), va_arg(*arguments, long));
    else
        out.appendFormatted(conversion.text.c_str(), va_arg(*arguments, long long));
}

void appendText(BoundedText& out, const Conversion& conversion, va_list* arguments)
{
    if (conversion.longs == 0) {
        const char* text = va_arg(*arguments, const char*);
        out.appendFormatted(conversion.text.c_str(), text != nullptr ? text : "(null)");
        return;
    }
    const wchar_t* wide = va_arg(*arguments, const wchar_t*);
    out.append(wide != nullptr ? toUtf8(wide) : "(null)");
}

// Formats piece by piece, so that each wide text can be written by us. It knows the conversions
// that the module's messages use: d i u x X c p s ls f g, flags, width, precision, l and ll.
size_t formatWide(char* buffer, size_t capacity, const char* format, va_list* arguments)
{
    BoundedText out(buffer, capacity);
    while (*format != '\0') {
        const char* percent = std::strchr(format, '%');
        if (percent == nullptr) {
            out.append(format);
            break;
        }
        out.append({format, static_cast<size_t>(percent - format)});
        Conversion conversion;
        format = parseConversion(percent + 1, arguments, conversion);
        switch (conversion.kind) {
        case '%':
            out.append("%");
            break;
        case 's':
            appendText(out, conversion, arguments);
            break;
        case 'p':
            out.appendFormatted(conversion.text.c_str(), va_arg(*arguments, void*));
            break;
        case 'f':
        case 'g':
            out.appendFormatted(conversion.text.c_str(), va_arg(*arguments, double));
            break;
        default:
            appendInteger(out, conversion, arguments);
            break;
        }
    }
    return out.finish();
}

}  // namespace

LocalTime toLocalTime(std::chrono::system_clock::time_point instant)
{
    using namespace std::chrono;
    LocalTime time;
    const auto wholeSeconds = floor<seconds>(instant);
    time.seconds = system_clock::to_time_t(wholeSeconds);
    time.milliseconds =
        static_cast<int>(duration_cast<milliseconds>(instant - wholeSeconds).count());
#if defined(_WIN32)
    if (localtime_s(&time.calendar, &time.seconds) != 0)
        time.calendar = {};
#else
    localtime_r(&time.seconds, &time.calendar);
#endif
    return time;
}

size_t formatMessage(char* buffer, size_t capacity, const char* format, va_list arguments)
{
    if (std::strstr(format, "%ls") != nullptr) {
        va_list copy;  // NOLINT(cppcoreguidelines-init-variables): va_copy does it
        va_copy(copy, arguments);
        const size_t length = formatWide(buffer, capacity, format, &copy);
        va_end(copy);
        return length;
    }
    const int length = std::vsnprintf(buffer, capacity, format, arguments);
    if (length < 0 || static_cast<size_t>(length) >= capacity) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(length);
}

uint32_t threadHash(uint32_t threadId)
{
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (int i = 0; i < 4; ++i) {
        hash ^= threadId >> (8 * i) & 0xFF;
        hash *= 0x100000001b3ULL;
    }
    return static_cast<uint32_t>(hash);
}

std::string identity(uint32_t processId, uint32_t threadId)
{
    char text[32];
    std::snprintf(text, sizeof text, "[%05u,%08x]", processId, threadHash(threadId));
    return text;
}

std::string recordLine(const LocalTime& time, std::string_view tag, std::string_view identity,
                       std::string_view message)
{
    char stamp[64];
    const size_t stampLength =
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &time.calendar);
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%03d", time.milliseconds);

    std::string line;
    line.reserve(stampLength + tag.size() + identity.size() + message.size() + 16);
    line.append(stamp, stampLength).append(fraction).append(" ").append(tag).append(" ");
    line.append(identity).append(" ").append(message);
    std::erase(line, '\n');
    line.push_back('\n');
    return line;
}

std::string bannerLines(const LocalTime& time, std::string_view identity,
                        const LoggerSettings& settings)
{
    char level[64];
    char types[64];
    std::snprintf(level, sizeof level, "LOGGER():LogLevel = 0x%02x", settings.levelMask);
    std::snprintf(types, sizeof types, "LOGGER():LogTypes = 0x%02x", settings.types);
    const std::string row(bannerWidth, '=');
    const std::string store = "LOGGER():LogStore = " + settings.store;
    const std::string rotate = "LOGGER():LogRotate = " + std::to_string(settings.rotate);

    std::string lines;
    const std::string_view messages[] = {row, "LOGGER():STARTED", level, types, store, rotate, row};
    for (const std::string_view message : messages)
        lines += recordLine(time, "INF", identity, message);
    return lines;
}

}  // namespace NV
