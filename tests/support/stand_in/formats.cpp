// The printf formats that differ: the C library of Windows writes a pointer as 16 hexadecimal digits.
// Programs are linked with these functions wrapped.

#include <cstdarg>
#include <cstddef>
#include <string>

namespace {

// "%p" becomes "%016lx".
std::string withPointersAsNumbers(const char* format)
{
    std::string changed;
    for (const char* at = format; *at != '\0'; ++at) {
        changed += *at;
        if (*at != '%' || at[1] == '\0')
            continue;
        ++at;
        if (*at == 'p')
            changed += "016lx";
        else
            changed += *at;
    }
    return changed;
}

}  // namespace

// The linker's names for the wrapped and the wrapping functions.
extern "C" {
int __real_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments);
int __wrap_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments);
int __wrap_snprintf(char* buffer, size_t capacity, const char* format, ...);

int __wrap_vsnprintf(char* buffer, size_t capacity, const char* format, va_list arguments)
{
    return __real_vsnprintf(buffer, capacity, withPointersAsNumbers(format).c_str(), arguments);
}

int __wrap_snprintf(char* buffer, size_t capacity, const char* format, ...)
{
    va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
    va_start(arguments, format);
    const int length = __wrap_vsnprintf(buffer, capacity, format, arguments);
    va_end(arguments);
    return length;
}
}
