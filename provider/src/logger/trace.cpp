// The lines of a traced function.

#include "logger/trace.h"

#include <string>

#include "base/text.h"

namespace NV {

namespace {

using LevelFunction = void (*)(const char* format, ...);

// In the order of LogLevel.
constexpr LevelFunction levelFunctions[] = {SEV, ERR, WRN, INF, DBG, TRC};

// In the order of Format. A wide text is converted first.
constexpr const char* argumentFormats[] = {
    "%.*s[%s:%d]:ARG[%d]:%s%s%p",       "%.*s[%s:%d]:ARG[%d]:%s%s%d",
    "%.*s[%s:%d]:ARG[%d]:%s%s0x%x",     "%.*s[%s:%d]:ARG[%d]:%s%s%x",
    "%.*s[%s:%d]:ARG[%d]:%s%s%s",       "%.*s[%s:%d]:ARG[%d]:%s%s%s",
    "%.*s[%s:%d]:ARG[%d]:%s%s%d(bytes)"};

template <typename Pointed>
const Pointed* asText(uintptr_t value)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it was such a pointer in the descriptor.
    return reinterpret_cast<const Pointed*>(value);
}

}  // namespace

void logArgument(LogLevel level, const Site& operation, int index,
                 const Argument<uintptr_t>& argument)
{
    if (!beginRecord(level))
        return;
    const auto write = [&](auto value) {
        levelFunctions[static_cast<int>(level)](argumentFormats[static_cast<int>(argument.format)],
                                                operation.functionLength, operation.function,
                                                baseName(argument.path), argument.line, index,
                                                argument.name, argument.separator, value);
    };
    switch (argument.format) {
    case Format::pointer:
        write(asPointer(argument.value));
        break;
    case Format::text: {
        const char* value = asText<char>(argument.value);
        write(value != nullptr ? value : "(null)");
        break;
    }
    case Format::wideText:
        write(printable(asText<wchar_t>(argument.value)).c_str());
        break;
    case Format::number:
    case Format::flags:
    case Format::bareFlags:
    case Format::byteCount:
        write(static_cast<unsigned>(argument.value));
        break;
    }
}

Trace::Trace(const Site& site) : site_(site)
{
    NV_LINE(TRC, site_, site.file, site.line, "ENTER");
}

Trace Trace::ofCleanUp(const Site& site) noexcept
{
    quietly([&] { NV_LINE(TRC, site, site.file, site.line, "ENTER"); });
    return {site, Silent{}};
}

void Trace::leave(int line, const char* path) const noexcept
{
    quietly([&] { NV_LINE(TRC, site_, baseName(path), line, "LEAVE"); });
}

bool Trace::leave(bool result, int line, const char* path) const noexcept
{
    quietly([&] { NV_LINE(TRC, site_, baseName(path), line, "LEAVE(%d)", result ? 1 : 0); });
    return result;
}

int32_t Trace::end(int32_t status, int line, const char* path) const noexcept
{
    quietly([&] {
        NV_LINE(TRC, site_, baseName(path), line, "STATUS=0x%x, ELAPSED:%.3f(ms)",
                static_cast<unsigned>(status), clock_.milliseconds());
    });
    leave(line, path);
    return status;
}

bool Trace::endWithResult(bool result, int line, const char* path) const noexcept
{
    quietly([&] {
        NV_LINE(TRC, site_, baseName(path), line, "RESULT=%d, ELAPSED:%.3f(ms)", result ? 1 : 0,
                clock_.milliseconds());
    });
    leave(line, path);
    return result;
}

}  // namespace NV
